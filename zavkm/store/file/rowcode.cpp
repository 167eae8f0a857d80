// rowcode.cpp - heads, hashes, MACs and tags of key database rows.
#include "store/file/rowcode.h"

#include <openssl/core_names.h>

#include <cstring>

#include "store/file/kdf.h"
#include "base/ossl.h"

namespace zavkm {
Encoder& Encoder::u32(uint32_t v) {
    const uint8_t b[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                          static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    return raw(b, sizeof b);
}

Encoder& Encoder::u64(uint64_t v) {
    uint8_t b[8];
    for (int i = 0; i < 8; ++i) b[i] = static_cast<uint8_t>(v >> (56 - 8 * i));
    return raw(b, sizeof b);
}

Encoder& Encoder::raw(const void* p, size_t n) {
    if (n == 0) return *this;
    const size_t at = out.size();
    out.resize(at + n);
    std::memcpy(out.data() + at, p, n);
    return *this;
}

Encoder& Encoder::field(std::string_view bytes) {
    u32(static_cast<uint32_t>(bytes.size()));
    return raw(bytes.data(), bytes.size());
}

uint64_t readU64(const uint8_t* p) noexcept {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | p[i];
    return v;
}

Digest::Digest() : ctx_(EVP_MD_CTX_new()) {
    failed_ = !ctx_ || sha256Algorithm() == nullptr ||
              EVP_DigestInit_ex2(ctx_.get(), sha256Algorithm(), nullptr) != 1;
}

Digest& Digest::add(const void* p, size_t n) {
    if (!failed_ && n > 0) failed_ = EVP_DigestUpdate(ctx_.get(), p, n) != 1;
    return *this;
}

Digest& Digest::field(std::string_view bytes) {
    uint8_t length[4];
    for (int i = 0; i < 4; ++i) length[i] = static_cast<uint8_t>(bytes.size() >> (24 - 8 * i));
    return add(length, sizeof length).add(bytes);
}

bool Digest::finish(uint8_t* out) {
    unsigned int n = 0;
    bool ok = !failed_ && EVP_DigestFinal_ex(ctx_.get(), out, &n) == 1 && n == kHashSize;
    failed_ = !ctx_ || EVP_DigestInit_ex2(ctx_.get(), sha256Algorithm(), nullptr) != 1;
    if (!ok) clearSslErrors();
    return ok;
}

Rc Hmac::setKey(const SecretBytes& key) {
    if (hmacAlgorithm() == nullptr) return sslError(ZAVKM_ERR_CRYPTO);
    ctx_.reset(EVP_MAC_CTX_new(hmacAlgorithm()));
    char digest[] = "SHA256";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                           OSSL_PARAM_construct_end()};
    if (!ctx_ || EVP_MAC_init(ctx_.get(), key.data(), key.size(), params) != 1) {
        ctx_.reset();
        return sslError(ZAVKM_ERR_CRYPTO);
    }
    started_ = true;
    failed_ = false;
    return ZAVKM_OK;
}

void Hmac::start() {
    // A restart with no key given keeps the key and its prepared pads.
    failed_ = !ctx_ || EVP_MAC_init(ctx_.get(), nullptr, 0, nullptr) != 1;
    started_ = true;
}

Hmac& Hmac::add(const void* p, size_t n) {
    if (!started_) start();
    if (!failed_ && n > 0)
        failed_ = EVP_MAC_update(ctx_.get(), static_cast<const uint8_t*>(p), n) != 1;
    return *this;
}

bool Hmac::finish(uint8_t* out, size_t n) {
    if (!started_) start();
    uint8_t mac[EVP_MAX_MD_SIZE];
    size_t length = 0;
    bool ok = !failed_ && EVP_MAC_final(ctx_.get(), mac, &length, sizeof mac) == 1 && length >= n;
    started_ = false;
    if (ok) std::memcpy(out, mac, n);
    OPENSSL_cleanse(mac, sizeof mac);
    if (!ok) clearSslErrors();
    return ok;
}

Rc deriveRowKeys(const SecretBytes& dataKey, const Bytes& fileId, RowKeys& out) {
    const std::string id(fileId.begin(), fileId.end());
    for (auto [info, mac] : {std::pair{"zavkm row mac v3:", &out.row},
                             std::pair{"zavkm index tag v3:", &out.tag},
                             std::pair{"zavkm meta mac v3:", &out.meta}}) {
        const std::string purpose = std::string(info) + id;
        Digest d;
        d.add(dataKey.data(), dataKey.size()).add(purpose);
        Bytes lookup(kHashSize);
        SecretBytes key;
        const bool known = d.finish(lookup.data()) && recallSecret(lookup, key);
        if (!known) {
            if (Rc rc = hkdfKey(dataKey, purpose, key); rc != ZAVKM_OK) return rc;
            rememberSecret(lookup, key);
        }
        if (Rc rc = mac->setKey(key); rc != ZAVKM_OK) return rc;
    }
    return ZAVKM_OK;
}

Hash keyBody(std::string_view cert, std::string_view spki, std::string_view subject, bool hasKey,
             std::string_view privateKey) {
    Hash h{};
    const uint8_t keyFlag = hasKey ? 1 : 0;
    Digest d;
    d.field(cert).field(spki).field(subject).add(&keyFlag, 1).field(privateKey);
    if (!d.finish(h.data())) h.fill(0);
    return h;
}

Hash requestBody(std::string_view request, std::string_view spki, std::string_view privateKey) {
    Hash h{};
    Digest d;
    d.field(request).field(spki).field(privateKey);
    if (!d.finish(h.data())) h.fill(0);
    return h;
}

Hash keyBody(const KeyRow& row) {
    return keyBody(asView(row.cert), asView(row.spki), asView(row.subject), !row.privateKey.empty(),
                   asView(row.privateKey));
}

Hash requestBody(const RequestRow& row) {
    return requestBody(asView(row.request), asView(row.spki), asView(row.privateKey));
}

void appendHead(Bytes& out, const KeyHead& h, const uint8_t* body) {
    out.reserve(out.size() + 93 + h.label.size());
    Encoder e{out};
    e.u8(kKeysTable).u64(static_cast<uint64_t>(h.id)).field(h.label);
    e.u64(static_cast<uint64_t>(h.flags));
    e.u64(static_cast<uint64_t>(h.keyType)).u64(static_cast<uint64_t>(h.keyBits));
    e.u64(static_cast<uint64_t>(h.notBefore)).u64(static_cast<uint64_t>(h.notAfter));
    e.raw(body, kHashSize);
}

void appendHead(Bytes& out, const RequestHead& h, const uint8_t* body) {
    out.reserve(out.size() + 61 + h.label.size());
    Encoder e{out};
    e.u8(kRequestsTable).u64(static_cast<uint64_t>(h.id)).field(h.label);
    e.u64(static_cast<uint64_t>(h.keyType)).u64(static_cast<uint64_t>(h.keyBits));
    e.raw(body, kHashSize);
}

bool rowMac(Hmac& key, const Bytes& head, uint8_t* mac) {
    return key.add(head).finish(mac, kMacSize);
}

bool tagOf(Hmac& key, Domain domain, std::string_view value, uint8_t* tag) {
    const uint8_t d = domain;
    return key.add(&d, 1).add(value.data(), value.size()).finish(tag, kTagSize);
}

}  // namespace zavkm
