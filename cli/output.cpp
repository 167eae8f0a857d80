// output.cpp - what tolvik prints: results as aligned text or one JSON document, failures as one
// line with the code's name and a hint; times; progress; the files it reads and writes itself.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <thread>

#include "tolvik.h"

namespace tolvik {

// The names of the return codes, from the ABI's one table; the codes run 1, 2, ... in order.
const char* codeName(ZAVKM_ReturnCode code) {
#define ZAVKM_NAME_(code, name) #name,
    static const char* const names[] = {"ZAVKM_OK", ZAVKM_RETURN_CODES(ZAVKM_NAME_)};
#undef ZAVKM_NAME_
    static_assert(std::size(names) == ZAVKM_ERROR_COUNT + 1);
    return code >= 0 && code <= ZAVKM_ERROR_COUNT ? names[code] : "(unnamed)";
}

// columns - the characters of UTF-8 text (one column each; continuation bytes are not counted).
size_t columns(std::string_view text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

namespace {

// What a person can do about a code, where there is something to say.
const std::map<ZAVKM_ReturnCode, const char*> hints{
    {ZAVKM_ERR_ASN, "the data does not decode as a certificate, request or key"},
    {ZAVKM_ERR_DATABASE_ALREADY_EXISTS, "the file exists; choose another name"},
    {ZAVKM_ERR_DATABASE_INVALID_VERSION, "written by a newer version of this library"},
    {ZAVKM_ERR_DATABASE_INVALID_PASSWORD, "wrong password, or a stale stash file"},
    {ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE, "not a key database of ours"},
    {ZAVKM_ERR_DATABASE_CORRUPTION, "the file is damaged; restore it from a backup"},
    {ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION, "the stash file is damaged; stash again"},
    {ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL, "the label is taken"},
    {ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE, "key sizes: RSA 1024-16384, EC 256, 384, 521"},
    {ZAVKM_ERR_VALIDATION_KEY_VALIDITY,
     "a certificate of the chain has expired or is not yet valid"},
    {ZAVKM_ERR_VALIDATION_KEY_ISSUER_NOT_FOUND, "add the issuer with tolvik cert add-ca"},
    {ZAVKM_ERR_VALIDATION_KEY_PAIR, "the key does not belong to the certificate"},
    {ZAVKM_ERR_PASSWORD_EXPIRATION_TIME, "the password has expired; tolvik keydb changepw"},
    {ZAVKM_ERR_UNSUPPORTED_OPTION, "not available yet in this build of the library"},
    {ZAVKM_ERR_FILE_OPEN_NOT_EXIST, "no such file"},
    {ZAVKM_ERR_BASE64_INVALID_DATA, "neither PEM nor base64"},
    {ZAVKM_ERR_KEYDB_NOT_EXIST, "no such key database; tolvik keydb create makes one"},
    {ZAVKM_ERR_PASSWORD_CHANGE_MATCH, "the new password is the old one"},
    {ZAVKM_ERR_REQKEY_FOR_CERT_NULL, "no key here matches the certificate's public key"},
    {ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL, "the entry is a certificate without its private key"},
    {ZAVKM_ERR_KEYDB_DEFAULT_KEY_NULL, "no default key; tolvik default LABEL"},
    {ZAVKM_ERR_INVALID_DN_INPUT, "give --subject CN=...,O=...,C=XX (two-letter country)"},
    {ZAVKM_ERR_KEY_GET_BY_LABEL, "unknown label; tolvik list shows the labels"},
    {ZAVKM_ERR_INVALID_PKCS12_DATA, "not a PKCS#12 file"},
    {ZAVKM_ERR_PKCS12_PWD_CORRUPTION, "wrong password for the PKCS#12 file"},
    {ZAVKM_ERR_EXPIRE_DAYS_TOO_LARGE, "at most 9999 days"},
    {ZAVKM_ERR_PWD_TOO_SHORT, "the password must not be empty"},
    {ZAVKM_ERR_CERT_ROOT_NOT_TRUSTED, "the root is not trusted; tolvik trust LABEL on"},
};

std::string words(std::string key) {
    std::replace(key.begin(), key.end(), '_', ' ');
    return key;
}

std::string scalar(const Json& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_null()) return "-";
    if (v.is_boolean()) return v.get<bool>() ? "yes" : "no";
    return v.dump();
}

// line - an object on one line: "key value, ..."; in a list of rows its values only, a true
// flag shown by its name and a false one left out.
std::string line(const Json& v, bool row) {
    if (!v.is_object()) return scalar(v);
    std::string text;
    for (const auto& [key, x] : v.items()) {
        std::string part = x.is_boolean() && row ? (x.get<bool>() ? words(key) : "")
                                                 : (row ? "" : words(key) + " ") + scalar(x);
        if (!part.empty()) text += (text.empty() ? "" : row ? "  " : ", ") + part;
    }
    return text;
}

// table - rows of objects under a header of their keys, columns aligned.
void table(const Json& rows) {
    std::vector<std::vector<std::string>> lines(1);
    for (const auto& [key, x] : rows.front().items()) lines[0].push_back(words(key));
    for (const Json& r : rows) {
        lines.emplace_back();
        for (const auto& [key, x] : r.items()) lines.back().push_back(scalar(x));
    }
    std::vector<size_t> width(lines[0].size());
    for (const auto& cells : lines) {
        for (size_t i = 0; i < cells.size(); ++i)
            width[i] = std::max(width[i], columns(cells[i]) + 2);
    }
    for (const auto& cells : lines) {
        for (size_t i = 0; i + 1 < cells.size(); ++i)
            std::cout << cells[i] << std::string(width[i] - columns(cells[i]), ' ');
        std::cout << cells.back() << '\n';
    }
}

}  // namespace

void print(const Json& doc, bool json) {
    if (json) {
        std::cout << doc.dump(2) << '\n';
    } else if (doc.is_array()) {
        if (!doc.empty() && doc.front().is_object())
            table(doc);
        else
            for (const Json& v : doc) std::cout << scalar(v) << '\n';
    } else {
        size_t width = 0;
        for (const auto& [key, x] : doc.items()) width = std::max(width, key.size());
        for (const auto& [key, x] : doc.items()) {
            std::string pad(width + 2 - key.size(), ' ');
            if (!x.is_array()) std::cout << words(key) << pad << line(x, false) << '\n';
            if (x.is_array() && x.empty()) std::cout << words(key) << pad << "-\n";
            for (size_t i = 0; x.is_array() && i < x.size(); ++i) {
                std::cout << (i ? std::string(width + 2, ' ') : words(key) + pad)
                          << line(x[i], true) << '\n';
            }
        }
    }
}

std::string describe(const Failure& f) {
    std::string text = "cannot " + f.what + ": " + std::to_string(f.code) + " " + codeName(f.code);
    auto known = hints.find(f.code);
    std::string why = !f.hint.empty() ? f.hint : known != hints.end() ? known->second : "";
    return why.empty() ? text : text + " (" + why + ")";
}

std::string isoTime(int64_t seconds) {
    // The civil date of a day count, in 64 bits whatever time_t is.
    int64_t days = seconds / 86400, rest = seconds % 86400;
    if (rest < 0) rest += 86400, --days;
    const int64_t z = days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    const int64_t day = doy - (153 * mp + 2) / 5 + 1;
    const int64_t month = mp < 10 ? mp + 3 : mp - 9;
    const int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
    char text[128];
    std::snprintf(text, sizeof text, "%04lld-%02lld-%02lldT%02lld:%02lld:%02lldZ",
                  static_cast<long long>(year), static_cast<long long>(month),
                  static_cast<long long>(day), static_cast<long long>(rest / 3600),
                  static_cast<long long>(rest / 60 % 60), static_cast<long long>(rest % 60));
    return text;
}

ZAVKM_ReturnCode withProgress(int keySize, const std::function<ZAVKM_ReturnCode()>& generate) {
    if (keySize < 4096 || !isatty(STDERR_FILENO)) return generate();
    std::atomic<bool> done{false};
    std::thread ticker([&done, keySize] {
        auto start = std::chrono::steady_clock::now();
        for (int tick = 0; !done; ++tick) {
            if (tick % 5 == 0) {
                auto s = std::chrono::duration_cast<std::chrono::seconds>(
                    std::chrono::steady_clock::now() - start);
                std::cerr << "\rgenerating an RSA " << keySize << "-bit key ... " << s.count()
                          << " s" << std::flush;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        std::cerr << "\r\033[K" << std::flush;
    });
    ZAVKM_ReturnCode rc = generate();
    done = true;
    ticker.join();
    return rc;
}

Bytes readFile(const std::string& path) {
    constexpr size_t kLimit = 16u << 20;  // the library refuses larger files too
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure{"read " + path, ZAVKM_ERR_FILE_OPEN_TO_READ, std::strerror(errno)};
    Bytes data;
    char chunk[65536];
    while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
        const size_t n = static_cast<size_t>(in.gcount());
        if (data.size() + n > kLimit)
            throw Failure{"read " + path, ZAVKM_ERR_PARAMETER, "the file is larger than 16 MiB"};
        data.insert(data.end(), chunk, chunk + n);
    }
    if (in.bad()) throw Failure{"read " + path, ZAVKM_ERR_IO, std::strerror(errno)};
    return data;
}

void writeFile(const std::string& path, const uint8_t* data, size_t length) {
    std::string temp = path + ".XXXXXX";
    int fd = mkstemp(temp.data());  // mode 0600
    bool ok = fd >= 0;
    for (size_t done = 0; ok && done < length;) {
        ssize_t n = write(fd, data + done, length - done);
        ok = n > 0;
        done += ok ? static_cast<size_t>(n) : 0;
    }
    ok = ok && fsync(fd) == 0;
    int error = errno;
    if (fd >= 0) close(fd);
    if (ok && std::rename(temp.c_str(), path.c_str()) == 0) {
        // The rename reaches the disk with the directory.
        const size_t slash = path.rfind('/');
        const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
        int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dirFd >= 0) {
            fsync(dirFd);
            close(dirFd);
        }
        return;
    }
    error = ok ? errno : error;
    if (fd >= 0) unlink(temp.c_str());
    throw Failure{"write " + path, ZAVKM_ERR_FILE_WRITE, std::strerror(error)};
}

}  // namespace tolvik
