// utf.h - labels between UTF-8 and the UTF-16 big-endian text of an ASN.1 BMPString.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common.h"

namespace zavkm {

// utf8ToUtf16be - text as UTF-16BE: characters beyond U+FFFF become surrogate pairs. Surrogate
// halves written as three-byte sequences (Java's modified UTF-8) pass through as the code units
// they name. Nothing for bytes that are not such text.
std::optional<Bytes> utf8ToUtf16be(std::string_view text);

// utf16beToUtf8 - UTF-16BE as UTF-8, surrogate pairs joined into one character. Nothing for an
// odd length, a lone surrogate or a NUL.
std::optional<std::string> utf16beToUtf8(const uint8_t* p, size_t n);

}  // namespace zavkm
