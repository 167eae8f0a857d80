// rowcode.h - what the integrity of a key database is computed over: the rows as the library
// holds them, the keys derived from the data key, each row's head (the bytes its MAC covers),
// the hash of its large columns, and the tags by which the index finds rows by label, public key
// and subject.
//
// A row's head is its table, id and every small column, followed by the SHA-256 of its large
// columns (certificate, public key, subject, sealed private key; request, public key, sealed
// private key), each length-prefixed. Its MAC is HMAC-SHA256 of the head, cut to 16 bytes, under
// a key derived from the data key and the file id, so a row moved to another id, table or file
// fails. A listing checks heads only; whoever reads a large column checks its hash.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <string>
#include <string_view>

#include "base/common.h"

namespace zavkm {

inline constexpr size_t kMacSize = 16;    // row MACs and page digests: HMAC-SHA256 cut short
inline constexpr size_t kTagSize = 8;     // index tags: HMAC-SHA256 cut short
inline constexpr size_t kHashSize = 32;   // SHA-256
inline constexpr size_t kFileIdSize = 16;

// The tables of rows, as the heads and the index name them.
enum Table : uint8_t { kKeysTable = 1, kRequestsTable = 2 };

// What a tag of the index stands for.
enum Domain : uint8_t {
    kKeyLabel = 1,
    kKeySpki = 2,
    kKeySubject = 3,
    kRequestLabel = 4,
    kRequestSpki = 5
};

// KeyRow - a personal key (privateKey sealed, non-empty) or a signer certificate (empty).
struct KeyRow {
    int64_t id = 0;
    std::string label;
    Bytes cert;
    Bytes spki;
    Bytes subject;  // DER of the certificate's subject, for finding issuers
    int32_t keyType = 0;
    int32_t keyBits = 0;
    Bytes privateKey;
    bool isDefault = false;  // the file's default key (kept in meta, not in the row)
    bool trusted = false;
    bool selfSigned = false;  // the certificate verifies under its own key (checked when stored)
    int64_t notBefore = 0;  // of the certificate, seconds since 1970
    int64_t notAfter = 0;
};

// RequestRow - a key pair waiting for its certificate, with its PKCS#10 request.
struct RequestRow {
    int64_t id = 0;
    std::string label;
    Bytes request;
    Bytes spki;
    int32_t keyType = 0;
    int32_t keyBits = 0;
    Bytes privateKey;
};

using Hash = std::array<uint8_t, kHashSize>;

// Encoder - appends big-endian integers and length-prefixed bytes to out.
struct Encoder {
    Bytes& out;
    Encoder& u8(uint8_t v) {
        out.push_back(v);
        return *this;
    }
    Encoder& u32(uint32_t v);
    Encoder& u64(uint64_t v);
    Encoder& raw(const void* p, size_t n);
    Encoder& field(std::string_view bytes);  // u32 length, then the bytes
    Encoder& field(const Bytes& b) {
        return field(std::string_view(reinterpret_cast<const char*>(b.data()), b.size()));
    }
};

// readU64 / readU32 - a big-endian integer at p.
uint64_t readU64(const uint8_t* p) noexcept;

// Digest - SHA-256 fed piece by piece; restartable.
class Digest {
  public:
    Digest();
    Digest& add(const void* p, size_t n);
    Digest& add(std::string_view s) { return add(s.data(), s.size()); }
    Digest& field(std::string_view bytes);  // u32 length, then the bytes
    // finish - the hash of everything added since the last finish; false on an OpenSSL
    // failure. The digest starts again.
    bool finish(uint8_t* out);

  private:
    Owned<EVP_MD_CTX, EVP_MD_CTX_free> ctx_;
    bool failed_ = false;
};

// Hmac - HMAC-SHA256 under one key, keyed once and restarted for every message.
class Hmac {
  public:
    Rc setKey(const SecretBytes& key);
    Hmac& add(const void* p, size_t n);
    Hmac& add(const Bytes& b) { return add(b.data(), b.size()); }
    // finish - the first n bytes (at most 32) of the MAC of everything added since the last
    // finish; false on an OpenSSL failure. The MAC starts again.
    bool finish(uint8_t* out, size_t n);

  private:
    Owned<EVP_MAC_CTX, EVP_MAC_CTX_free> ctx_;
    bool started_ = false;
    bool failed_ = false;
    void start();
};

// RowKeys - the MAC keys of one data key and file id: rows and pages, index tags, meta.
struct RowKeys {
    Hmac row;
    Hmac tag;
    Hmac meta;
};

// deriveRowKeys - the three keys, HKDF-SHA256 of dataKey with infos naming their use and the
// file id.
Rc deriveRowKeys(const SecretBytes& dataKey, const Bytes& fileId, RowKeys& out);

// keyBody / requestBody - the hash of a row's large columns.
Hash keyBody(const KeyRow& row);
Hash requestBody(const RequestRow& row);
Hash keyBody(std::string_view cert, std::string_view spki, std::string_view subject,
             bool hasKey, std::string_view privateKey);
Hash requestBody(std::string_view request, std::string_view spki, std::string_view privateKey);

// KeyHead / RequestHead - the small columns of a row, as stored, that its head encodes. flags:
// bit 0 trusted, bit 1 a private key is there, bit 2 the certificate is self-signed.
inline constexpr int64_t kTrustedFlag = 1;
inline constexpr int64_t kPrivateKeyFlag = 2;
inline constexpr int64_t kSelfSignedFlag = 4;
struct KeyHead {
    int64_t id;
    std::string_view label;
    int64_t flags;
    int64_t keyType;
    int64_t keyBits;
    int64_t notBefore;
    int64_t notAfter;
};
struct RequestHead {
    int64_t id;
    std::string_view label;
    int64_t keyType;
    int64_t keyBits;
};

// appendHead - the head of a row (its small columns and the hash of its large ones) appended to
// out.
void appendHead(Bytes& out, const KeyHead& h, const uint8_t* body);
void appendHead(Bytes& out, const RequestHead& h, const uint8_t* body);

// rowMac - the MAC of a head.
bool rowMac(Hmac& key, const Bytes& head, uint8_t* mac);

// tagOf - the index tag of value in domain.
bool tagOf(Hmac& key, Domain domain, std::string_view value, uint8_t* tag);

// asView - bytes as a string_view.
inline std::string_view asView(const Bytes& b) {
    return {reinterpret_cast<const char*>(b.data()), b.size()};
}

}  // namespace zavkm
