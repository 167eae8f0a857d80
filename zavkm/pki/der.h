// der.h - just enough DER reading to take exact byte ranges out of an encoding (the to-be-signed
// part of a certificate, the attributes of a request) without re-encoding them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zavkm {

// DerElement - one TLV inside a buffer.
struct DerElement {
    uint8_t tag = 0;
    const uint8_t* start = nullptr;    // the tag byte
    const uint8_t* content = nullptr;  // the first content byte
    size_t contentLength = 0;
    size_t totalLength = 0;  // tag, length and content
};

// readDer - reads the element at p (n bytes available); false when it is malformed, uses a
// multi-byte tag or an indefinite length, or runs past n.
bool readDer(const uint8_t* p, size_t n, DerElement& out) noexcept;

}  // namespace zavkm
