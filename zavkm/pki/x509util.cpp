// x509util.cpp - certificates, requests and keys.
#include "pki/x509util.h"

#include <openssl/bn.h>
#include <openssl/pem.h>

#include <cctype>
#include <ctime>
#include <string>
#include <vector>

#include "base/files.h"
#include "base/sizes.h"
#include "base/state.h"
#include "base/utf.h"

namespace zavkm {
namespace {

bool looksLikePem(const uint8_t* p, size_t n) {
    static const char marker[] = "-----BEGIN";
    if (n < sizeof marker - 1) return false;
    std::string_view text(reinterpret_cast<const char*>(p), n < 4096 ? n : 4096);
    return text.find(marker) != std::string_view::npos;
}

BioPtr memBio(const uint8_t* p, size_t n) {
    return BioPtr(BIO_new_mem_buf(p, static_cast<int>(n)));
}

// derTime - a validity time as DER writes it: UTCTime YYMMDDHHMMSSZ or GeneralizedTime
// YYYYMMDDHHMMSSZ, digits only, naming a real moment.
bool derTime(const ASN1_TIME* t) {
    if (t == nullptr) return false;
    const int type = ASN1_STRING_type(t);
    const int length = ASN1_STRING_length(t);
    if (!((type == V_ASN1_UTCTIME && length == 13) || (type == V_ASN1_GENERALIZEDTIME && length == 15)))
        return false;
    const unsigned char* text = ASN1_STRING_get0_data(t);
    for (int i = 0; i + 1 < length; ++i)
        if (!std::isdigit(text[i])) return false;
    std::tm tm{};
    return text[length - 1] == 'Z' && ASN1_TIME_to_tm(t, &tm) == 1;
}

}  // namespace

Rc readCertificate(const uint8_t* p, size_t n, X509Ptr& out) {
    if (Rc rc = withinSize(n, kMaxItemBytes); rc != ZAVKM_OK) return rc;
    out = parseCertificate(p, n);
    return out ? ZAVKM_OK : ZAVKM_ERR_ASN;
}

Rc readRequest(const uint8_t* p, size_t n, X509ReqPtr& out) {
    if (Rc rc = withinSize(n, kMaxItemBytes); rc != ZAVKM_OK) return rc;
    out = parseRequest(p, n);
    return out ? ZAVKM_OK : ZAVKM_ERR_ASN;
}

namespace {

// certsOfPkcs7 - the certificates of a PKCS#7 SignedData (DER or PEM); false when data is
// not PKCS#7.
bool certsOfPkcs7(const uint8_t* data, uint32_t length, std::vector<X509Ptr>& out) {
    Pkcs7Ptr p7;
    BioPtr bio(BIO_new_mem_buf(data, static_cast<int>(length)));
    if (!bio) return false;
    std::string_view text(reinterpret_cast<const char*>(data), length);
    if (text.find("-----BEGIN") != std::string_view::npos)
        p7.reset(PEM_read_bio_PKCS7(bio.get(), nullptr, nullptr, nullptr));
    else
        p7.reset(d2i_PKCS7_bio(bio.get(), nullptr));
    clearSslErrors();
    if (!p7) return false;
    STACK_OF(X509)* certs = nullptr;
    int type = OBJ_obj2nid(p7->type);
    if (type == NID_pkcs7_signed && p7->d.sign != nullptr)
        certs = p7->d.sign->cert;
    else if (type == NID_pkcs7_signedAndEnveloped && p7->d.signed_and_enveloped != nullptr)
        certs = p7->d.signed_and_enveloped->cert;
    else
        return false;
    for (int i = 0; i < sk_X509_num(certs); ++i) {
        X509Ptr c(X509_dup(sk_X509_value(certs, i)));
        if (!c) throw std::bad_alloc();
        if (!wellFormed(c.get())) {
            out.clear();
            return false;
        }
        out.push_back(std::move(c));
    }
    return true;
}

// certsOfPem - every CERTIFICATE block of PEM text; ZAVKM_ERR_ASN when one of them is
// malformed, ZAVKM_ERR_PARAMETER when there are more than kMaxBundleCertificates.
Rc certsOfPem(const uint8_t* data, uint32_t length, std::vector<X509Ptr>& out) {
    BioPtr bio(BIO_new_mem_buf(data, static_cast<int>(length)));
    Rc rc = ZAVKM_OK;
    while (bio && rc == ZAVKM_OK) {
        X509Ptr c(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
        if (!c) break;
        if (!wellFormed(c.get()))
            rc = ZAVKM_ERR_ASN;
        else if (out.size() == kMaxBundleCertificates)
            rc = ZAVKM_ERR_PARAMETER;
        else
            out.push_back(std::move(c));
    }
    clearSslErrors();
    if (rc != ZAVKM_OK) out.clear();
    return rc;
}

}  // namespace

Rc readCertificates(const uint8_t* data, size_t length, std::vector<X509Ptr>& out) {
    out.clear();
    if (data == nullptr || length == 0) return ZAVKM_ERR_ASN;
    if (Rc rc = withinSize(length, kMaxBundleBytes); rc != ZAVKM_OK) return rc;
    const auto n = static_cast<uint32_t>(length);
    if (!certsOfPkcs7(data, n, out)) {  // else a PEM bundle or one certificate
        if (Rc rc = certsOfPem(data, n, out); rc != ZAVKM_OK) return rc;
        if (out.empty())
            if (X509Ptr one = parseCertificate(data, length)) out.push_back(std::move(one));
        if (out.empty()) return ZAVKM_ERR_ASN;
    }
    if (out.size() > kMaxBundleCertificates) {
        out.clear();
        return ZAVKM_ERR_PARAMETER;
    }
    return ZAVKM_OK;
}

std::string commonNameOf(X509* cert) {
    X509_NAME* name = X509_get_subject_name(cert);
    int at = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    if (at < 0) return "certificate";
    unsigned char* text = nullptr;
    int n = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at)));
    if (n <= 0) {
        clearSslErrors();
        return "certificate";
    }
    std::string s(reinterpret_cast<char*>(text), static_cast<size_t>(n));
    OPENSSL_free(text);
    return labelFromName(s);
}

bool wellFormed(const X509* cert) {
    return derTime(X509_get0_notBefore(cert)) && derTime(X509_get0_notAfter(cert));
}

X509Ptr parseCertificate(const uint8_t* p, size_t n) {
    if (p == nullptr || n == 0 || n > kMaxItemBytes) return nullptr;
    X509Ptr cert;
    if (looksLikePem(p, n)) {
        BioPtr bio = memBio(p, n);
        cert.reset(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    } else {
        const unsigned char* q = p;
        cert.reset(d2i_X509(nullptr, &q, static_cast<long>(n)));
        if (cert && q != p + n) cert.reset();  // trailing bytes: not one certificate
    }
    if (cert && !wellFormed(cert.get())) cert.reset();  // else stored with no expiry at all
    clearSslErrors();
    return cert;
}

X509ReqPtr parseRequest(const uint8_t* p, size_t n) {
    if (p == nullptr || n == 0 || n > kMaxItemBytes) return nullptr;
    X509ReqPtr req;
    if (looksLikePem(p, n)) {
        BioPtr bio = memBio(p, n);
        req.reset(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
    } else {
        const unsigned char* q = p;
        req.reset(d2i_X509_REQ(nullptr, &q, static_cast<long>(n)));
        if (req && q != p + n) req.reset();
    }
    clearSslErrors();
    return req;
}

PkeyPtr parsePrivateKey(const uint8_t* p, size_t n) {
    if (p == nullptr || n == 0 || n > kMaxItemBytes) return nullptr;
    PkeyPtr key;
    if (looksLikePem(p, n)) {
        BioPtr bio = memBio(p, n);
        // No password callback: an encrypted PEM key is refused here rather than prompted for.
        key.reset(PEM_read_bio_PrivateKey(
            bio.get(), nullptr, [](char*, int, int, void*) { return -1; }, nullptr));
    } else {
        const unsigned char* q = p;
        key.reset(d2i_AutoPrivateKey(nullptr, &q, static_cast<long>(n)));
    }
    clearSslErrors();
    return key;
}

KeyInfo keyInfo(const EVP_PKEY* key) noexcept {
    KeyInfo info;
    if (key == nullptr) return info;
    if (EVP_PKEY_is_a(key, "RSA") || EVP_PKEY_is_a(key, "RSA-PSS"))
        info.algorithm = kKeyRsa;
    else if (EVP_PKEY_is_a(key, "EC"))
        info.algorithm = kKeyEc;
    else if (EVP_PKEY_is_a(key, "ED25519"))
        info.algorithm = kKeyEd25519;
    else if (EVP_PKEY_is_a(key, "ED448"))
        info.algorithm = kKeyEd448;
    info.bits = EVP_PKEY_get_bits(key);
    return info;
}

Rc checkKeyPolicy(const EVP_PKEY* key) noexcept {
    KeyInfo info = keyInfo(key);
    if (info.algorithm == 0) return ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM;
    if (fipsMode() && info.algorithm == kKeyRsa && info.bits < 2048)
        return ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE;
    return ZAVKM_OK;
}

Rc checkSignaturePolicy(int signatureNid) noexcept {
    if (!fipsMode()) return ZAVKM_OK;
    int digest = NID_undef, pkey = NID_undef;
    if (OBJ_find_sigid_algs(signatureNid, &digest, &pkey) != 1) return ZAVKM_OK;
    if (digest == NID_md5 || digest == NID_sha1 || digest == NID_md5_sha1 || digest == NID_md2 ||
        digest == NID_md4)
        return ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM;
    return ZAVKM_OK;
}

Rc readPolicyCertificate(const uint8_t* p, size_t n, X509Ptr& out, EVP_PKEY*& publicKey) {
    if (Rc rc = readCertificate(p, n, out); rc != ZAVKM_OK) return rc;
    if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(out.get())); rc != ZAVKM_OK) return rc;
    publicKey = X509_get0_pubkey(out.get());
    if (publicKey == nullptr) return sslError(ZAVKM_ERR_ASN);
    return checkKeyPolicy(publicKey);
}

Rc readPolicyRequest(const uint8_t* p, size_t n, X509ReqPtr& out, EVP_PKEY*& publicKey) {
    if (Rc rc = readRequest(p, n, out); rc != ZAVKM_OK) return rc;
    if (Rc rc = checkSignaturePolicy(X509_REQ_get_signature_nid(out.get())); rc != ZAVKM_OK)
        return rc;
    publicKey = X509_REQ_get0_pubkey(out.get());
    if (publicKey == nullptr) return sslError(ZAVKM_ERR_ASN);
    return checkKeyPolicy(publicKey);
}

Rc generateKey(int32_t keySize, PkeyPtr& out) noexcept {
    EVP_PKEY* key = nullptr;
    if (keySize >= 1024 && keySize <= 16384) {
        if (fipsMode() && keySize < 2048) return ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE;
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(keySize));
    } else if (keySize == 256 || keySize == 384 || keySize == 521) {
        const char* curve = keySize == 256 ? "P-256" : keySize == 384 ? "P-384" : "P-521";
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve);
    } else if (keySize == kSizeEd25519 || keySize == kSizeEd448) {
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, keySize == kSizeEd25519 ? "ED25519" : "ED448");
    } else {
        return ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE;
    }
    if (key == nullptr) return sslError(ZAVKM_ERR_CRYPTO);
    out.reset(key);
    return ZAVKM_OK;
}

bool isEdDsa(const EVP_PKEY* key) noexcept {
    const int algorithm = keyInfo(key).algorithm;
    return algorithm == kKeyEd25519 || algorithm == kKeyEd448;
}

const EVP_MD* signingDigest(const EVP_PKEY* key, const EVP_MD* md) noexcept {
    return isEdDsa(key) ? nullptr : md;
}

Rc signatureDigest(int32_t selector, const EVP_MD*& md) noexcept {
    switch (selector) {
        case 1:
            md = EVP_sha256();
            return ZAVKM_OK;
        case 2:
            md = EVP_sha384();
            return ZAVKM_OK;
        default:
            return ZAVKM_ERR_SIGNATURE_ALGORITHM;
    }
}

namespace {

// addFurtherPart - appends a name part given as "TYPE=value" (TYPE a name OpenSSL knows or a
// dotted OID, split at the first '='); nothing for a null or empty text.
// ZAVKM_ERR_INVALID_DN_INPUT when the type or the value is missing, the type is unknown or the
// value does not suit it.
Rc addFurtherPart(X509_NAME* name, const char* text) {
    if (isEmpty(text)) return ZAVKM_OK;
    std::string_view part(text);
    const size_t eq = part.find('=');
    if (eq == 0 || eq == std::string_view::npos || eq + 1 == part.size())
        return ZAVKM_ERR_INVALID_DN_INPUT;
    const std::string type(part.substr(0, eq));
    Owned<ASN1_OBJECT, ASN1_OBJECT_free> obj(OBJ_txt2obj(type.c_str(), 0));
    if (!obj) return sslError(ZAVKM_ERR_INVALID_DN_INPUT);
    if (X509_NAME_add_entry_by_OBJ(name, obj.get(), MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(text + eq + 1), -1, -1,
                                   0) != 1)
        return sslError(ZAVKM_ERR_INVALID_DN_INPUT);
    return ZAVKM_OK;
}

}  // namespace

Rc nameFromDN(const ZAVKM_DNItem* dn, X509NamePtr& out) {
    if (dn == nullptr) return ZAVKM_ERR_INVALID_DN_INPUT;
    X509NamePtr name(X509_NAME_new());
    if (!name) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    const struct {
        int nid;
        const char* value;
    } parts[] = {
        {NID_countryName, dn->c},      {NID_stateOrProvinceName, dn->s},
        {NID_localityName, dn->l},     {NID_postalCode, dn->pc},
        {NID_organizationName, dn->o}, {NID_organizationalUnitName, dn->ou},
        {NID_commonName, dn->cn},
    };
    for (const auto& part : parts) {
        if (isEmpty(part.value)) continue;
        if (X509_NAME_add_entry_by_NID(name.get(), part.nid, MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char*>(part.value), -1, -1,
                                       0) != 1)
            return sslError(ZAVKM_ERR_INVALID_DN_INPUT);
    }
    for (const char* further : {dn->optionalField1, dn->optionalField2, dn->optionalField3,
                                dn->optionalField4})
        if (Rc rc = addFurtherPart(name.get(), further); rc != ZAVKM_OK) return rc;
    if (X509_NAME_entry_count(name.get()) == 0) return ZAVKM_ERR_INVALID_DN_INPUT;
    out = std::move(name);
    return ZAVKM_OK;
}

Rc parseExtensions(const uint8_t* p, uint32_t n, ExtStackPtr& out) {
    ExtStackPtr exts;
    if (n == 0) {
        exts.reset(sk_X509_EXTENSION_new_null());
        if (!exts) return ZAVKM_ERR_MEMORY_ALLOCATE;
        out = std::move(exts);
        return ZAVKM_OK;
    }
    if (p == nullptr) return ZAVKM_ERR_PARAMETER;
    if (Rc rc = withinSize(n, kMaxItemBytes); rc != ZAVKM_OK) return rc;
    const unsigned char* q = p;
    exts.reset(d2i_X509_EXTENSIONS(nullptr, &q, static_cast<long>(n)));
    if (!exts || q != p + n) return sslError(ZAVKM_ERR_ASN);
    for (int i = 0; i < sk_X509_EXTENSION_num(exts.get()); ++i) {
        const ASN1_OBJECT* a = X509_EXTENSION_get_object(sk_X509_EXTENSION_value(exts.get(), i));
        for (int j = i + 1; j < sk_X509_EXTENSION_num(exts.get()); ++j)
            if (OBJ_cmp(a, X509_EXTENSION_get_object(sk_X509_EXTENSION_value(exts.get(), j))) == 0)
                return ZAVKM_ERR_VALIDATION_DUPLICATE_EXTENSIONS;
    }
    out = std::move(exts);
    return ZAVKM_OK;
}

Rc parseSerial(const char* text, Asn1IntPtr& out) {
    BIGNUM* raw = nullptr;
    if (isEmpty(text)) {
        uint8_t bytes[16];
        if (Rc rc = randomBytes(bytes, sizeof bytes); rc != ZAVKM_OK) return rc;
        bytes[0] &= 0x7f;  // positive, so the DER needs no leading zero byte
        bytes[0] |= 0x40;  // and it keeps all 16 bytes
        raw = BN_bin2bn(bytes, sizeof bytes, nullptr);
    } else {
        std::string s(text);
        bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
        std::string digits = hex ? s.substr(2) : s;
        if (digits.empty() || digits.size() > 80) return ZAVKM_ERR_PARAMETER;
        for (char c : digits)
            if (!(hex ? std::isxdigit(static_cast<unsigned char>(c))
                      : std::isdigit(static_cast<unsigned char>(c))))
                return ZAVKM_ERR_PARAMETER;
        int used = hex ? BN_hex2bn(&raw, digits.c_str()) : BN_dec2bn(&raw, digits.c_str());
        if (used != static_cast<int>(digits.size())) {
            BN_free(raw);
            return sslError(ZAVKM_ERR_PARAMETER);
        }
    }
    BignumPtr bn(raw);
    if (!bn) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    if (BN_is_zero(bn.get()) || BN_is_negative(bn.get()) || BN_num_bytes(bn.get()) > 20)
        return ZAVKM_ERR_PARAMETER;
    out.reset(BN_to_ASN1_INTEGER(bn.get(), nullptr));
    if (!out) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    return ZAVKM_OK;
}

Rc checkValidityDays(int32_t days) noexcept {
    if (days > 9999) return ZAVKM_ERR_EXPIRE_DAYS_TOO_LARGE;
    if (days < 1) return ZAVKM_ERR_PARAMETER;
    return ZAVKM_OK;
}

namespace {

// addExtension - one extension from its configuration text; replaces one of the same type.
Rc addExtension(X509* cert, X509V3_CTX* ctx, int nid, const char* value, bool critical) {
    std::string text = critical ? std::string("critical,") + value : std::string(value);
    X509ExtPtr ext(X509V3_EXT_nconf_nid(nullptr, ctx, nid, text.c_str()));
    if (!ext) return sslError(ZAVKM_ERR_CRYPTO);
    if (X509_add_ext(cert, ext.get(), -1) != 1) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    return ZAVKM_OK;
}

// replaceExtension - adds ext, removing any extension of the same type first.
Rc replaceExtension(X509* cert, X509_EXTENSION* ext) {
    int at = X509_get_ext_by_OBJ(cert, X509_EXTENSION_get_object(ext), -1);
    if (at >= 0) X509_EXTENSION_free(X509_delete_ext(cert, at));
    if (X509_add_ext(cert, ext, -1) != 1) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    return ZAVKM_OK;
}

// derWrap - tag, length and content.
Bytes derWrap(uint8_t tag, const Bytes& content) {
    Bytes out{tag};
    size_t n = content.size();
    if (n < 0x80) {
        out.push_back(static_cast<uint8_t>(n));
    } else {
        Bytes len;
        for (; n > 0; n >>= 8) len.insert(len.begin(), static_cast<uint8_t>(n & 0xff));
        out.push_back(static_cast<uint8_t>(0x80 | len.size()));
        out.insert(out.end(), len.begin(), len.end());
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

// setSignatureAlgorithm - alg names md with the key's algorithm (RSA with a NULL parameter,
// ECDSA with none), or the EdDSA algorithm of an EdDSA key (no digest, no parameter).
Rc setSignatureAlgorithm(X509_ALGOR* alg, const EVP_PKEY* key, const EVP_MD* md) {
    int sigNid = NID_undef;
    const int keyNid = EVP_PKEY_get_base_id(key);
    if (isEdDsa(key))
        sigNid = keyNid;  // the key's algorithm names its signatures too
    else if (OBJ_find_sigid_by_algs(&sigNid, EVP_MD_get_type(md), keyNid) != 1)
        return ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM;
    const int ptype = keyNid == EVP_PKEY_RSA ? V_ASN1_NULL : V_ASN1_UNDEF;
    if (X509_ALGOR_set0(alg, OBJ_nid2obj(sigNid), ptype, nullptr) != 1)
        return sslError(ZAVKM_ERR_CRYPTO);
    return ZAVKM_OK;
}

// signedDer - SEQUENCE { tbs, algorithm, BIT STRING signature } with the remote's signature.
Rc signedDer(const Bytes& tbs, const X509_ALGOR* alg, const EVP_MD* md, RemoteSigner& remote,
             Bytes& out) {
    if (tbs.empty()) return sslError(ZAVKM_ERR_ASN);
    Bytes sig;
    if (Rc rc = remote.sign(tbs, md, sig); rc != ZAVKM_OK) return rc;
    Bytes bits{0};
    bits.insert(bits.end(), sig.begin(), sig.end());
    Bytes body = tbs;
    Bytes algDer = toDer(alg, i2d_X509_ALGOR);
    Bytes bitString = derWrap(V_ASN1_BIT_STRING, bits);
    body.insert(body.end(), algDer.begin(), algDer.end());
    body.insert(body.end(), bitString.begin(), bitString.end());
    out = derWrap(V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED, body);
    return ZAVKM_OK;
}

Rc signCertificateRemotely(X509Ptr& cert, const EVP_PKEY* key, const EVP_MD* md,
                           RemoteSigner& remote) {
    // The algorithm inside the to-be-signed part is set in place, as signing does it.
    auto* inner = const_cast<X509_ALGOR*>(X509_get0_tbs_sigalg(cert.get()));
    X509AlgorPtr alg(X509_ALGOR_new());
    if (!alg) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    if (Rc rc = setSignatureAlgorithm(inner, key, md); rc != ZAVKM_OK) return rc;
    if (Rc rc = setSignatureAlgorithm(alg.get(), key, md); rc != ZAVKM_OK) return rc;
    Bytes der;
    if (Rc rc = signedDer(toDer(cert.get(), i2d_re_X509_tbs), alg.get(), md, remote, der);
        rc != ZAVKM_OK)
        return rc;
    X509Ptr done = parseCertificate(der.data(), der.size());
    if (!done) return ZAVKM_ERR_CRYPTO_SIGN;
    cert = std::move(done);
    return ZAVKM_OK;
}

Rc signRequestRemotely(X509ReqPtr& req, const EVP_PKEY* key, const EVP_MD* md,
                       RemoteSigner& remote) {
    X509AlgorPtr alg(X509_ALGOR_new());
    if (!alg) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    if (Rc rc = setSignatureAlgorithm(alg.get(), key, md); rc != ZAVKM_OK) return rc;
    Bytes der;
    if (Rc rc = signedDer(toDer(req.get(), i2d_re_X509_REQ_tbs), alg.get(), md, remote, der);
        rc != ZAVKM_OK)
        return rc;
    X509ReqPtr done = parseRequest(der.data(), der.size());
    if (!done) return ZAVKM_ERR_CRYPTO_SIGN;
    req = std::move(done);
    return ZAVKM_OK;
}

}  // namespace

Rc makeCertificate(const CertPlan& plan, X509Ptr& out) {
    X509Ptr cert(X509_new());
    if (!cert) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    const bool v3 = plan.version != 1;
    X509* issuerCert = plan.issuer != nullptr ? plan.issuer : cert.get();
    if (X509_set_version(cert.get(), v3 ? 2 : 0) != 1 ||
        X509_set_serialNumber(cert.get(), const_cast<ASN1_INTEGER*>(plan.serial)) != 1 ||
        X509_set_subject_name(cert.get(), plan.subject) != 1 ||
        X509_set_issuer_name(cert.get(), plan.issuer != nullptr ? X509_get_subject_name(plan.issuer)
                                                                : plan.subject) != 1 ||
        X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0) == nullptr ||
        X509_time_adj_ex(X509_getm_notAfter(cert.get()), plan.days, 0, nullptr) == nullptr ||
        X509_set_pubkey(cert.get(), plan.subjectKey) != 1)
        return sslError(ZAVKM_ERR_CRYPTO);
    if (v3) {
        X509V3_CTX ctx;
        X509V3_set_ctx(&ctx, issuerCert, cert.get(), nullptr, nullptr, 0);
        Rc rc = plan.ca ? addExtension(cert.get(), &ctx, NID_basic_constraints, "CA:TRUE", true)
                        : addExtension(cert.get(), &ctx, NID_basic_constraints, "CA:FALSE", false);
        if (rc == ZAVKM_OK && plan.ca)
            rc = addExtension(cert.get(), &ctx, NID_key_usage,
                              "keyCertSign,cRLSign,digitalSignature", true);
        if (rc == ZAVKM_OK)
            rc = addExtension(cert.get(), &ctx, NID_subject_key_identifier, "hash", false);
        if (rc == ZAVKM_OK)
            rc =
                addExtension(cert.get(), &ctx, NID_authority_key_identifier, "keyid:always", false);
        for (int i = 0;
             rc == ZAVKM_OK && plan.extra != nullptr && i < sk_X509_EXTENSION_num(plan.extra); ++i)
            rc = replaceExtension(cert.get(), sk_X509_EXTENSION_value(plan.extra, i));
        if (rc != ZAVKM_OK) return rc;
    } else if (plan.extra != nullptr && sk_X509_EXTENSION_num(plan.extra) > 0) {
        return ZAVKM_ERR_VALIDATION_KEY_WRONG_VERSION;  // a v1 certificate carries none
    }
    const EVP_MD* md = signingDigest(plan.signingKey, plan.md);
    if (plan.remote != nullptr) {
        if (Rc rc = signCertificateRemotely(cert, plan.signingKey, md, *plan.remote);
            rc != ZAVKM_OK)
            return rc;
    } else if (X509_sign(cert.get(), plan.signingKey, md) <= 0) {
        return sslError(ZAVKM_ERR_CRYPTO_SIGN);
    }
    out = std::move(cert);
    return ZAVKM_OK;
}

Rc makeRequest(const X509_NAME* subject, EVP_PKEY* key, const STACK_OF(X509_EXTENSION) * exts,
               const EVP_MD* md, X509ReqPtr& out, RemoteSigner* remote) {
    X509ReqPtr req(X509_REQ_new());
    if (!req) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    if (X509_REQ_set_version(req.get(), 0) != 1 ||
        X509_REQ_set_subject_name(req.get(), subject) != 1 ||
        X509_REQ_set_pubkey(req.get(), key) != 1)
        return sslError(ZAVKM_ERR_CRYPTO);
    if (exts != nullptr && sk_X509_EXTENSION_num(exts) > 0 &&
        X509_REQ_add_extensions(req.get(), const_cast<STACK_OF(X509_EXTENSION)*>(exts)) != 1)
        return sslError(ZAVKM_ERR_ASN);
    md = signingDigest(key, md);
    if (remote != nullptr) {
        if (Rc rc = signRequestRemotely(req, key, md, *remote); rc != ZAVKM_OK) return rc;
    } else if (X509_REQ_sign(req.get(), key, md) <= 0) {
        return sslError(ZAVKM_ERR_CRYPTO_SIGN);
    }
    out = std::move(req);
    return ZAVKM_OK;
}

Bytes spkiOf(const EVP_PKEY* key) { return toDer(key, i2d_PUBKEY); }

SecretBytes pkcs8Of(const EVP_PKEY* key) {
    P8InfPtr p8(EVP_PKEY2PKCS8(key));
    if (!p8) {
        clearSslErrors();
        return {};
    }
    int n = i2d_PKCS8_PRIV_KEY_INFO(p8.get(), nullptr);
    if (n <= 0) return {};
    SecretBytes out(static_cast<size_t>(n));
    unsigned char* q = out.data();
    if (i2d_PKCS8_PRIV_KEY_INFO(p8.get(), &q) != n) return {};
    return out;
}

PkeyPtr keyFromPkcs8(const SecretBytes& pkcs8) {
    const unsigned char* q = pkcs8.data();
    P8InfPtr p8(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &q, static_cast<long>(pkcs8.size())));
    PkeyPtr key(p8 ? EVP_PKCS82PKEY(p8.get()) : nullptr);
    clearSslErrors();
    return key;
}

bool sameKey(const EVP_PKEY* a, const EVP_PKEY* b) noexcept {
    int r = EVP_PKEY_eq(a, b);
    clearSslErrors();
    return r == 1;
}

Bytes derOf(const X509* cert) { return toDer(cert, i2d_X509); }
Bytes derOf(const X509_REQ* req) { return toDer(req, i2d_X509_REQ); }
Bytes derOf(const X509_NAME* name) { return toDer(name, i2d_X509_NAME); }

Rc writeCertificateFile(const char* fileName, const X509* cert, bool pem) {
    if (!pem) {
        Bytes der = derOf(cert);
        if (der.empty()) return sslError(ZAVKM_ERR_ASN);
        return writeFile(fileName, der, 0644);
    }
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1)
        return sslError(ZAVKM_ERR_BASE64_ENCODING);
    char* data = nullptr;
    long n = BIO_get_mem_data(bio.get(), &data);
    return writeFile(fileName, reinterpret_cast<const uint8_t*>(data), static_cast<size_t>(n),
                     0644);
}

Rc writeRequestFile(const char* fileName, const X509_REQ* req) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509_REQ(bio.get(), req) != 1)
        return sslError(ZAVKM_ERR_BASE64_ENCODING);
    char* data = nullptr;
    long n = BIO_get_mem_data(bio.get(), &data);
    return writeFile(fileName, reinterpret_cast<const uint8_t*>(data), static_cast<size_t>(n),
                     0644);
}

bool signedBy(X509* cert, X509* issuer) noexcept {
    if (X509_NAME_cmp(X509_get_issuer_name(cert), X509_get_subject_name(issuer)) != 0) return false;
    EVP_PKEY* key = X509_get0_pubkey(issuer);
    int r = key != nullptr ? X509_verify(cert, key) : 0;
    clearSslErrors();
    return r == 1;
}

bool isSelfSigned(X509* cert) noexcept { return signedBy(cert, cert); }

}  // namespace zavkm
