// der.cpp - minimal DER element reader.
#include "pki/der.h"

namespace zavkm {

bool readDer(const uint8_t* p, size_t n, DerElement& out) noexcept {
    if (p == nullptr || n < 2 || (p[0] & 0x1f) == 0x1f) return false;
    size_t len = p[1];
    size_t header = 2;
    if (len & 0x80) {
        size_t count = len & 0x7f;
        if (count == 0 || count > sizeof(size_t) || n < 2 + count) return false;
        len = 0;
        for (size_t i = 0; i < count; ++i) len = (len << 8) | p[2 + i];
        header += count;
    }
    if (len > n - header) return false;
    out.tag = p[0];
    out.start = p;
    out.content = p + header;
    out.contentLength = len;
    out.totalLength = header + len;
    return true;
}

}  // namespace zavkm
