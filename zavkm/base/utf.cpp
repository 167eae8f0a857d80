// utf.cpp - UTF-8 and UTF-16BE conversions for labels.
#include "utf.h"

namespace zavkm {
namespace {

void putUnit(Bytes& out, uint32_t unit) {
    out.push_back(static_cast<uint8_t>(unit >> 8));
    out.push_back(static_cast<uint8_t>(unit & 0xff));
}

void putUtf8(std::string& out, uint32_t c) {
    if (c < 0x80) {
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

}  // namespace

std::optional<Bytes> utf8ToUtf16be(std::string_view text) {
    Bytes out;
    out.reserve(text.size() * 2);
    for (size_t i = 0; i < text.size();) {
        const auto b = static_cast<uint8_t>(text[i]);
        const size_t length = b < 0x80 ? 1 : (b & 0xe0) == 0xc0 ? 2 : (b & 0xf0) == 0xe0 ? 3 : (b & 0xf8) == 0xf0 ? 4 : 0;
        if (length == 0 || i + length > text.size() || b == 0) return std::nullopt;
        uint32_t c = length == 1 ? b : b & (0x7f >> length);
        for (size_t k = 1; k < length; ++k) {
            const auto next = static_cast<uint8_t>(text[i + k]);
            if ((next & 0xc0) != 0x80) return std::nullopt;
            c = (c << 6) | (next & 0x3f);
        }
        static const uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
        if (c < kLeast[length] || c > 0x10ffff) return std::nullopt;  // overlong or too large
        if (c >= 0x10000) {
            c -= 0x10000;
            putUnit(out, 0xd800 | (c >> 10));
            putUnit(out, 0xdc00 | (c & 0x3ff));
        } else {
            putUnit(out, c);
        }
        i += length;
    }
    return out;
}

std::optional<std::string> utf16beToUtf8(const uint8_t* p, size_t n) {
    if (n % 2 != 0) return std::nullopt;
    std::string out;
    for (size_t i = 0; i < n; i += 2) {
        uint32_t c = (uint32_t{p[i]} << 8) | p[i + 1];
        if (c == 0 || (c >= 0xdc00 && c <= 0xdfff)) return std::nullopt;
        if (c >= 0xd800 && c <= 0xdbff) {
            if (i + 3 >= n) return std::nullopt;
            const uint32_t low = (uint32_t{p[i + 2]} << 8) | p[i + 3];
            if (low < 0xdc00 || low > 0xdfff) return std::nullopt;
            c = 0x10000 + ((c - 0xd800) << 10) + (low - 0xdc00);
            i += 2;
        }
        putUtf8(out, c);
    }
    return out;
}

}  // namespace zavkm
