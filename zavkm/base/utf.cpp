// utf.cpp - canonical text, the forms handed out, UTF-16BE.
#include "base/utf.h"

#include <algorithm>

namespace zavkm {
namespace {

constexpr uint32_t kReplacement = 0xfffd;
constexpr uint32_t kNone = 0xffffffff;  // no character starts here

bool isSurrogate(uint32_t c) { return c >= 0xd800 && c <= 0xdfff; }
bool isHigh(uint32_t c) { return c >= 0xd800 && c <= 0xdbff; }
bool isLow(uint32_t c) { return c >= 0xdc00 && c <= 0xdfff; }

// unit - the code point of one UTF-8 sequence at text[i] (surrogate halves included, as
// modified UTF-8 writes them), its length in n; kNone for anything else. C0 80 is U+0000.
uint32_t unit(std::string_view text, size_t i, size_t& n) {
    const auto b = static_cast<uint8_t>(text[i]);
    n = b < 0x80 ? 1 : (b & 0xe0) == 0xc0 ? 2 : (b & 0xf0) == 0xe0 ? 3 : (b & 0xf8) == 0xf0 ? 4 : 0;
    if (n == 0 || i + n > text.size() || b == 0) return kNone;
    uint32_t c = n == 1 ? b : b & (0x7fu >> n);
    for (size_t k = 1; k < n; ++k) {
        const auto next = static_cast<uint8_t>(text[i + k]);
        if ((next & 0xc0) != 0x80) return kNone;
        c = (c << 6) | (next & 0x3f);
    }
    static const uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (n == 2 && c == 0) return 0;  // modified UTF-8's U+0000
    if (c < kLeast[n] || c > 0x10ffff) return kNone;
    return c;
}

// character - the character at text[i]: one sequence, or a pair of surrogate sequences joined;
// a lone surrogate is returned as itself (the caller decides). kNone when no sequence starts.
uint32_t character(std::string_view text, size_t i, size_t& n) {
    const uint32_t c = unit(text, i, n);
    if (c == kNone || !isHigh(c) || n != 3) return c;
    size_t m = 0;
    const uint32_t low = i + n < text.size() ? unit(text, i + n, m) : kNone;
    if (low == kNone || !isLow(low)) return c;
    n += m;
    return 0x10000 + ((c - 0xd800) << 10) + (low - 0xdc00);
}

void putUtf8(std::string& out, uint32_t c) {
    if (c == 0) {
        out += "\xc0\x80";
    } else if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xc0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3f));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xe0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (c & 0x3f));
    } else {
        out += static_cast<char>(0xf0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3f));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (c & 0x3f));
    }
}

void putJava(std::string& out, uint32_t c) {
    if (c < 0x10000) return putUtf8(out, c);
    c -= 0x10000;
    putUtf8(out, 0xd800 | (c >> 10));
    putUtf8(out, 0xdc00 | (c & 0x3ff));
}

void putUnit(Bytes& out, uint32_t unit) {
    out.push_back(static_cast<uint8_t>(unit >> 8));
    out.push_back(static_cast<uint8_t>(unit & 0xff));
}

bool isControl(uint32_t c) { return c < 0x20 || (c >= 0x7f && c <= 0x9f); }

// rewrite - stored character by character through put(out, c); a byte that starts no character
// goes through as U+FFFD.
template <class Put>
std::string rewrite(std::string_view stored, Put put) {
    // ASCII without NUL reads the same in every form: copied as it stands.
    if (std::all_of(stored.begin(), stored.end(), [](char c) { return c != 0 && static_cast<unsigned char>(c) < 0x80; }))
        return std::string(stored);
    std::string out;
    out.reserve(stored.size());
    for (size_t i = 0, n = 1; i < stored.size(); i += n) {
        const uint32_t c = character(stored, i, n);
        if (c == kNone) n = 1;
        put(out, c == kNone ? kReplacement : c);
    }
    return out;
}

}  // namespace

std::optional<std::string> canonicalText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0, n = 0; i < text.size(); i += n) {
        const uint32_t c = character(text, i, n);
        if (c == kNone || isSurrogate(c)) return std::nullopt;
        putUtf8(out, c);
    }
    return out;
}

Rc checkLabelText(const char* label) noexcept {
    if (label == nullptr) return ZAVKM_ERR_NULL_PARAMETER;
    const std::string_view text(label);
    if (text.empty() || text.size() > 255) return ZAVKM_ERR_PARAMETER;
    for (size_t i = 0, n = 0; i < text.size(); i += n) {
        const uint32_t c = character(text, i, n);
        if (c == kNone || isSurrogate(c) || isControl(c)) return ZAVKM_ERR_PARAMETER;
        if (c >= 0x10000 && n != 4) return ZAVKM_ERR_PARAMETER;  // a pair: not canonical
    }
    return ZAVKM_OK;
}

std::string labelFromName(std::string_view name) {
    std::string out;
    for (size_t i = 0, n = 0; i < name.size(); i += n) {
        uint32_t c = character(name, i, n);
        if (c == kNone) return "certificate";
        putUtf8(out, isSurrogate(c) || isControl(c) ? kReplacement : c);
    }
    return out.empty() || out.size() > 200 ? "certificate" : out;
}

std::string javaText(std::string_view stored) {
    return rewrite(stored, [](std::string& out, uint32_t c) { putJava(out, c); });
}

std::string utf8Text(std::string_view stored) {
    return rewrite(stored, [](std::string& out, uint32_t c) {
        putUtf8(out, c == 0 || isSurrogate(c) ? kReplacement : c);
    });
}

Rc CanonicalTexts::take(std::initializer_list<TextArg> texts) {
    for (const TextArg& arg : texts) {
        if (*arg.text == nullptr) continue;
        std::optional<std::string> canonical = canonicalText(*arg.text);
        if (arg.use == TextArg::Label) {
            if (!canonical) continue;
            *arg.text = labels_.emplace_back(std::move(*canonical)).c_str();
        } else {
            if (!canonical) return ZAVKM_ERR_PARAMETER;
            *arg.text = passwords_.emplace_back(std::move(*canonical)).c_str();
        }
    }
    return ZAVKM_OK;
}

std::string canonicalLabel(const char* label) {
    std::optional<std::string> canonical = canonicalText(label);
    return canonical ? std::move(*canonical) : std::string(label);
}

std::optional<Bytes> utf8ToUtf16be(std::string_view text) {
    Bytes out;
    out.reserve(text.size() * 2);
    for (size_t i = 0, n = 0; i < text.size(); i += n) {
        uint32_t c = character(text, i, n);
        if (c == kNone || c == 0 || isSurrogate(c)) return std::nullopt;
        if (c >= 0x10000) {
            c -= 0x10000;
            putUnit(out, 0xd800 | (c >> 10));
            putUnit(out, 0xdc00 | (c & 0x3ff));
        } else {
            putUnit(out, c);
        }
    }
    return out;
}

std::optional<std::string> utf16beToUtf8(const uint8_t* p, size_t n) {
    if (n % 2 != 0) return std::nullopt;
    std::string out;
    for (size_t i = 0; i < n; i += 2) {
        uint32_t c = (uint32_t{p[i]} << 8) | p[i + 1];
        if (c == 0 || isLow(c)) return std::nullopt;
        if (isHigh(c)) {
            if (i + 3 >= n) return std::nullopt;
            const uint32_t low = (uint32_t{p[i + 2]} << 8) | p[i + 3];
            if (!isLow(low)) return std::nullopt;
            c = 0x10000 + ((c - 0xd800) << 10) + (low - 0xdc00);
            i += 2;
        }
        putUtf8(out, c);
    }
    return out;
}

}  // namespace zavkm
