// output.cpp - what tolvik prints: results as aligned text or one JSON document, failures as one
// line with the code's name and a hint; times; progress; the files it reads and writes itself.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>

#include "tolvik.h"

namespace tolvik {

const char* codeName(ZAVKM_ReturnCode code) {
    switch (code) {
        case ZAVKM_OK: return "ZAVKM_OK";
#define ZAVKM_NAME_(code, name) case code: return #name;
        ZAVKM_RETURN_CODES(ZAVKM_NAME_)
#undef ZAVKM_NAME_
        default: return "(unnamed)";
    }
}

namespace {

// hint - what a person can do about a code, where there is something to say.
const char* hint(ZAVKM_ReturnCode code) {
    switch (code) {
        case ZAVKM_ERR_ASN: return "the data does not decode as a certificate, request or key";
        case ZAVKM_ERR_DATABASE_ALREADY_EXISTS: return "the file exists; choose another name";
        case ZAVKM_ERR_DATABASE_INVALID_VERSION: return "written by a newer version of this library";
        case ZAVKM_ERR_DATABASE_INVALID_PASSWORD: return "wrong password, or a stale stash file";
        case ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE: return "not a key database of ours";
        case ZAVKM_ERR_DATABASE_CORRUPTION: return "the file is damaged; restore it from a backup";
        case ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION: return "the stash file is damaged; stash again";
        case ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL: return "the label is taken";
        case ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE: return "key sizes: RSA 1024-16384, EC 256, 384, 521";
        case ZAVKM_ERR_VALIDATION_KEY_VALIDITY: return "a certificate of the chain has expired or is not yet valid";
        case ZAVKM_ERR_VALIDATION_KEY_ISSUER_NOT_FOUND: return "add the issuer with tolvik cert add-ca";
        case ZAVKM_ERR_VALIDATION_KEY_PAIR: return "the key does not belong to the certificate";
        case ZAVKM_ERR_PASSWORD_EXPIRATION_TIME: return "the password has expired; tolvik keydb changepw";
        case ZAVKM_ERR_UNSUPPORTED_OPTION: return "not available yet in this build of the library";
        case ZAVKM_ERR_FILE_OPEN_NOT_EXIST: return "no such file";
        case ZAVKM_ERR_BASE64_INVALID_DATA: return "neither PEM nor base64";
        case ZAVKM_ERR_KEYDB_NOT_EXIST: return "no such key database; tolvik keydb create makes one";
        case ZAVKM_ERR_PASSWORD_CHANGE_MATCH: return "the new password is the old one";
        case ZAVKM_ERR_REQKEY_FOR_CERT_NULL: return "no key here matches the certificate's public key";
        case ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL: return "the entry is a certificate without its private key";
        case ZAVKM_ERR_KEYDB_DEFAULT_KEY_NULL: return "no default key; tolvik default LABEL";
        case ZAVKM_ERR_INVALID_DN_INPUT: return "give --subject CN=...,O=...,C=XX (two-letter country)";
        case ZAVKM_ERR_KEY_GET_BY_LABEL: return "unknown label; tolvik list shows the labels";
        case ZAVKM_ERR_INVALID_PKCS12_DATA: return "not a PKCS#12 file";
        case ZAVKM_ERR_PKCS12_PWD_CORRUPTION: return "wrong password for the PKCS#12 file";
        case ZAVKM_ERR_EXPIRE_DAYS_TOO_LARGE: return "at most 9999 days";
        case ZAVKM_ERR_PWD_TOO_SHORT: return "the password must not be empty";
        case ZAVKM_ERR_CERT_ROOT_NOT_TRUSTED: return "the root is not trusted; tolvik trust LABEL on";
        default: return "";
    }
}

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
    std::vector<size_t> width;
    for (const auto& [key, x] : rows.front().items()) width.push_back(words(key).size());
    for (const Json& r : rows) {
        size_t i = 0;
        for (const auto& [key, x] : r.items()) width[i] = std::max(width[i], scalar(x).size()), ++i;
    }
    auto out = [&width](const std::vector<std::string>& cells) {
        std::string text;
        for (size_t i = 0; i < cells.size(); ++i) {
            text += cells[i] + (i + 1 < cells.size() ? std::string(width[i] + 2 - cells[i].size(), ' ') : "");
        }
        std::cout << text << '\n';
    };
    std::vector<std::string> header;
    for (const auto& [key, x] : rows.front().items()) header.push_back(words(key));
    out(header);
    for (const Json& r : rows) {
        std::vector<std::string> cells;
        for (const auto& [key, x] : r.items()) cells.push_back(scalar(x));
        out(cells);
    }
}

}  // namespace

void print(const Json& doc, bool json) {
    if (json) {
        std::cout << doc.dump(2) << '\n';
    } else if (doc.is_array()) {
        if (!doc.empty() && doc.front().is_object()) table(doc);
        else for (const Json& v : doc) std::cout << scalar(v) << '\n';
    } else {
        size_t width = 0;
        for (const auto& [key, x] : doc.items()) width = std::max(width, key.size());
        for (const auto& [key, x] : doc.items()) {
            std::string pad(width + 2 - key.size(), ' ');
            if (!x.is_array()) std::cout << words(key) << pad << line(x, false) << '\n';
            if (x.is_array() && x.empty()) std::cout << words(key) << pad << "-\n";
            for (size_t i = 0; x.is_array() && i < x.size(); ++i) {
                std::cout << (i ? std::string(width + 2, ' ') : words(key) + pad) << line(x[i], true) << '\n';
            }
        }
    }
}

std::string describe(const Failure& f) {
    std::string text = "cannot " + f.what + ": " + std::to_string(f.code) + " " + codeName(f.code);
    std::string why = f.hint.empty() ? hint(f.code) : f.hint;
    return why.empty() ? text : text + " (" + why + ")";
}

std::string isoTime(int64_t seconds) {
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

ZAVKM_ReturnCode withProgress(int keySize, const std::function<ZAVKM_ReturnCode()>& generate) {
    if (keySize < 4096 || !isatty(STDERR_FILENO)) return generate();
    std::atomic<bool> done{false};
    std::thread ticker([&done, keySize] {
        auto start = std::chrono::steady_clock::now();
        for (int tick = 0; !done; ++tick) {
            if (tick % 5 == 0) {
                auto s = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
                std::cerr << "\rgenerating an RSA " << keySize << "-bit key ... " << s.count() << " s" << std::flush;
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
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure{"read " + path, ZAVKM_ERR_FILE_OPEN_TO_READ, std::strerror(errno)};
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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
    if (ok && std::rename(temp.c_str(), path.c_str()) == 0) return;
    error = ok ? errno : error;
    if (fd >= 0) unlink(temp.c_str());
    throw Failure{"write " + path, ZAVKM_ERR_FILE_WRITE, std::strerror(error)};
}

}  // namespace tolvik
