// output.cpp - what tolvik prints: results as aligned text or JSON, failures as one line with the
// code's name and a hint; text made safe for a terminal and measured in columns; times; progress.
#include <locale.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
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

namespace {

// What a person can do about a code, where there is something to say.
const std::map<ZAVKM_ReturnCode, const char*> hints{
    {ZAVKM_ERR_ASN, "the data does not decode as a certificate, request or key"},
    {ZAVKM_ERR_DATABASE_ALREADY_EXISTS, "the file exists; choose another name"},
    {ZAVKM_ERR_DATABASE_INVALID_VERSION, "written by a newer version of this library"},
    {ZAVKM_ERR_DATABASE_INVALID_PASSWORD, "wrong password, or a stale stash file"},
    {ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE, "not a key database of ours"},
    {ZAVKM_ERR_DATABASE_CORRUPTION, "the file is damaged; restore it from a backup"},
    {ZAVKM_ERR_DATABASE_KEY_INTEGRITY,
     "rows of the file fail their check; tolvik keydb verify names them"},
    {ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION, "the stash file is damaged; stash again"},
    {ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL, "the label is taken"},
    {ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE,
     "key sizes: RSA 1024-16384, EC 256, 384, 521; or --key ed25519|ed448"},
    {ZAVKM_ERR_VALIDATION_KEY_VALIDITY,
     "a certificate of the chain has expired or is not yet valid"},
    {ZAVKM_ERR_VALIDATION_KEY_ISSUER_NOT_FOUND, "add the issuer with tolvik cert add-ca"},
    {ZAVKM_ERR_VALIDATION_KEY_PAIR, "the key does not belong to the certificate"},
    {ZAVKM_ERR_VALIDATION_KEY_SIGNATURE, "a signature does not verify"},
    {ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS, "the issuer is not a CA certificate"},
    {ZAVKM_ERR_INVALID_CERT_CHAIN, "the chain does not validate"},
    {ZAVKM_ERR_PASSWORD_EXPIRATION_TIME, "the password has expired; tolvik keydb changepw"},
    {ZAVKM_ERR_UNSUPPORTED_OPTION, "not available yet in this build of the library"},
    {ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT, "not available for this store yet"},
    {ZAVKM_ERR_FILE_OPEN_NOT_EXIST, "no such file"},
    {ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED, "the file is not ours, or not a file that may be used"},
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
    if (v.is_string()) return terminalText(v.get<std::string>());
    if (v.is_null()) return "-";
    if (v.is_boolean()) return v.get<bool>() ? "yes" : "no";
    return v.dump();
}

// line - an object on one line: "key value, ..."; in a list of rows its values only, a true
// flag shown by its name and a false one left out.
std::string line(const Json& v, bool row) {
    if (v.is_array()) {
        std::string text;
        for (const Json& x : v) text += (text.empty() ? "" : ", ") + scalar(x);
        return text.empty() ? "-" : text;
    }
    if (!v.is_object()) return scalar(v);
    std::string text;
    for (const auto& [key, x] : v.items()) {
        std::string part = x.is_boolean() && row ? (x.get<bool>() ? words(key) : "")
                                                 : (row ? "" : words(key) + " ") + line(x, false);
        if (!part.empty()) text += (text.empty() ? "" : row ? "  " : ", ") + part;
    }
    return text;
}

// table - rows of objects under a header of their keys, columns aligned.
std::string table(const Json& rows) {
    std::vector<std::vector<std::string>> lines(1);
    for (const auto& [key, x] : rows.front().items()) lines[0].push_back(words(key));
    for (const Json& r : rows) {
        lines.emplace_back();
        for (const auto& [key, x] : r.items()) lines.back().push_back(line(x, false));
    }
    std::vector<size_t> widths(lines[0].size());
    for (const auto& cells : lines)
        for (size_t i = 0; i < cells.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], width(cells[i]) + 2);
    std::string text;
    for (const auto& cells : lines) {
        for (size_t i = 0; i + 1 < cells.size(); ++i)
            text += cells[i] + std::string(widths[i] - width(cells[i]), ' ');
        text += cells.back() + '\n';
    }
    return text;
}

// decode - the code point at text[i] and its length; -1 for a byte that starts no UTF-8
// sequence (overlong forms, surrogates and values past U+10FFFF included).
int32_t decode(std::string_view text, size_t i, size_t& length) {
    const auto b = [&](size_t k) { return static_cast<unsigned char>(text[i + k]); };
    const unsigned char c = b(0);
    length = 1;
    if (c < 0x80) return c;
    const size_t n = c >= 0xf0 ? 4 : c >= 0xe0 ? 3 : c >= 0xc0 ? 2 : 0;
    if (n == 0 || c > 0xf4 || i + n > text.size()) return -1;
    int32_t cp = c & (0x3f >> (n - 1));
    for (size_t k = 1; k < n; ++k) {
        if ((b(k) & 0xc0) != 0x80) return -1;
        cp = cp << 6 | (b(k) & 0x3f);
    }
    static constexpr int32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kLeast[n] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return -1;
    length = n;
    return cp;
}

// hidden - code points a terminal acts on or that turn text around: C0, DEL, C1, the
// bidirectional controls and the line and paragraph separators.
bool hidden(int32_t cp) {
    return cp < 0x20 || (cp >= 0x7f && cp <= 0x9f) || cp == 0x61c || cp == 0x200e ||
           cp == 0x200f || (cp >= 0x2028 && cp <= 0x202e) || (cp >= 0x2066 && cp <= 0x2069);
}

// changes - a changing command's result as sentences: "added ca (personal, trusted)", "wrote
// ca.pem (certificate)", then its other members as "key value" lines.
std::string changes(const Json& doc) {
    static const std::map<std::string, std::string> past{
        {"add", "added"}, {"delete", "deleted"}, {"update", "updated"}, {"rename", "renamed"}};
    std::string text;
    for (const Json& c : doc["changes"]) {
        auto verb = past.find(c.value("action", ""));
        text += (verb == past.end() ? c.value("action", "") : verb->second) + " " + scalar(c["label"]);
        if (c.contains("new_label")) text += " to " + scalar(c["new_label"]);
        std::string notes = c["kind"].is_string() ? c["kind"].get<std::string>() : "";
        for (const char* flag : {"trusted", "default"}) {
            if (c.contains(flag))
                notes += (notes.empty() ? "" : ", ") + std::string(c[flag].get<bool>() ? "" : "not ") + flag;
        }
        text += notes.empty() ? "\n" : " (" + notes + ")\n";
    }
    for (const Json& f : doc["files"]) text += "wrote " + scalar(f["path"]) + " (" + scalar(f["content"]) + ")\n";
    for (const auto& [key, x] : doc.items()) {
        if (key != "changes" && key != "files") text += words(key) + "  " + line(x, false) + "\n";
    }
    return text;
}

}  // namespace

namespace {

bool printableAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

}  // namespace

std::string terminalText(std::string_view text) {
    if (printableAscii(text)) return std::string(text);
    std::string out;
    out.reserve(text.size());
    char buf[16];
    for (size_t i = 0, n = 0; i < text.size(); i += n) {
        const int32_t cp = decode(text, i, n);
        if (cp == '\n' || cp == '\t' || cp == '\r') {
            out += cp == '\n' ? "\\n" : cp == '\t' ? "\\t" : "\\r";
        } else if (cp < 0x20 || cp == 0x7f) {  // a byte that is no UTF-8 too
            std::snprintf(buf, sizeof buf, "\\x%02x", static_cast<unsigned char>(text[i]));
            out += buf;
        } else if (hidden(cp)) {
            std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(cp));
            out += buf;
        } else {
            out.append(text.substr(i, n));
        }
    }
    return out;
}

size_t width(std::string_view text) {
    if (printableAscii(text)) return text.size();
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const locale_t previous = utf8 ? uselocale(utf8) : nullptr;
    size_t columns = 0;
    for (size_t i = 0, n = 0; i < text.size(); i += n) {
        const int32_t cp = decode(text, i, n);
        const int w = cp < 0 ? 4 : utf8 ? wcwidth(static_cast<wchar_t>(cp)) : 1;
        columns += static_cast<size_t>(std::max(w, 0));
    }
    if (utf8) uselocale(previous);
    return columns;
}

std::string padded(std::string_view text, size_t columns) {
    std::string shown = terminalText(text);
    const size_t used = width(shown);
    if (used < columns) shown.append(columns - used, ' ');
    return shown;
}

bool colour() {
    const char* noColour = std::getenv("NO_COLOR");
    const char* term = std::getenv("TERM");
    return isatty(STDOUT_FILENO) && (noColour == nullptr || *noColour == '\0') &&
           !(term != nullptr && std::strcmp(term, "dumb") == 0);
}

void writeOut(std::string_view text) {
    std::cout.flush();
    if (!text.empty() && std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        throw Failure{"write to standard output", ZAVKM_ERR_FILE_WRITE, std::strerror(errno)};
    if (std::fflush(stdout) != 0)
        throw Failure{"write to standard output", ZAVKM_ERR_FILE_WRITE, std::strerror(errno)};
}

std::string render(const Json& doc) {
    std::string text;
    if (doc.is_array()) {
        if (!doc.empty() && doc.front().is_object()) {
            text = table(doc);
        } else {
            for (const Json& v : doc) text += scalar(v) + '\n';
        }
    } else if (doc.is_object() && doc.contains("changes") && doc.contains("files")) {
        text = changes(doc);
    } else if (doc.is_object()) {
        size_t keys = 0;
        for (const auto& [key, x] : doc.items()) keys = std::max(keys, key.size());
        for (const auto& [key, x] : doc.items()) {
            std::string pad(keys + 2 - key.size(), ' ');
            const bool rows = x.is_array() && !x.empty() && x.front().is_object();
            if (!rows) text += words(key) + pad + line(x, false) + '\n';
            for (size_t i = 0; rows && i < x.size(); ++i)
                text += (i ? std::string(keys + 2, ' ') : words(key) + pad) + line(x[i], true) + '\n';
        }
    } else {
        text = scalar(doc) + '\n';
    }
    return text;
}

Json change(const std::string& action, const std::string& label, const char* kind) {
    return {{"action", action}, {"label", label}, {"kind", kind ? Json(kind) : Json()}};
}

Json file(const std::string& path, const std::string& content) {
    return {{"path", path}, {"content", content}};
}

Json changed(Json changes, Json files) {
    return {{"changes", changes.is_null() ? Json::array() : std::move(changes)},
            {"files", std::move(files)}};
}

std::string jsonText(const Json& doc) {
    return doc.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::string describe(const Failure& f) {
    if (f.code == ZAVKM_OK) return terminalText("cannot " + f.what + ": " + f.hint);
    std::string text = "cannot " + f.what + ": " + std::to_string(f.code) + " " + codeName(f.code);
    auto known = hints.find(f.code);
    std::string why = !f.hint.empty() ? f.hint : known != hints.end() ? known->second : "";
    return terminalText(why.empty() ? text : text + " (" + why + ")");
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
    if (year < 0 || year > 9999) {  // beyond four digits: as printf writes them
        char text[128];
        std::snprintf(text, sizeof text, "%04lld-%02lld-%02lldT%02lld:%02lld:%02lldZ",
                      static_cast<long long>(year), static_cast<long long>(month),
                      static_cast<long long>(day), static_cast<long long>(rest / 3600),
                      static_cast<long long>(rest / 60 % 60), static_cast<long long>(rest % 60));
        return text;
    }
    // Listings write one for every entry: digits placed directly.
    std::string text = "0000-00-00T00:00:00Z";
    auto put = [&text](size_t at, int64_t value, int digits) {
        for (int i = digits - 1; i >= 0; --i, value /= 10) text[at + static_cast<size_t>(i)] = static_cast<char>('0' + value % 10);
    };
    put(0, year, 4);
    put(5, month, 2);
    put(8, day, 2);
    put(11, rest / 3600, 2);
    put(14, rest / 60 % 60, 2);
    put(17, rest % 60, 2);
    return text;
}

ZAVKM_ReturnCode withProgress(int keySize, const std::function<ZAVKM_ReturnCode()>& generate) {
    if (keySize < 4096 || keySize == 25519 || !isatty(STDERR_FILENO)) return generate();
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

}  // namespace tolvik
