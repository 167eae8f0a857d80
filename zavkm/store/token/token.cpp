// token.cpp - a PKCS#11 token as a key store.
#include "store/token/token.h"

#include <openssl/core_names.h>
#include <openssl/param_build.h>

#include <cstring>

#include "base/trace.h"

namespace zavkm {
namespace {

constexpr char kApplication[] = "zav7km certificate request";
constexpr char kReplacing[] = "zav7km certificate request, replacing";
CK_BBOOL kYes = CK_TRUE;
CK_BBOOL kNo = CK_FALSE;

CK_ATTRIBUTE attr(CK_ATTRIBUTE_TYPE type, const void* p, size_t n) {
    return {type, const_cast<void*>(p), static_cast<CK_ULONG>(n)};
}
CK_ATTRIBUTE attr(CK_ATTRIBUTE_TYPE type, const std::string& s) {
    return attr(type, s.data(), s.size());
}
CK_ATTRIBUTE attr(CK_ATTRIBUTE_TYPE type, const Bytes& b) { return attr(type, b.data(), b.size()); }
CK_ATTRIBUTE flag(CK_ATTRIBUTE_TYPE type, bool on) {
    return attr(type, on ? &kYes : &kNo, sizeof(CK_BBOOL));
}

const CK_OBJECT_CLASS kClasses[] = {CKO_CERTIFICATE, CKO_DATA, CKO_PRIVATE_KEY, CKO_PUBLIC_KEY,
                                    CKO_DATA};

// kindTemplate - the attributes that select objects of a kind.
std::vector<CK_ATTRIBUTE> kindTemplate(TokenObject kind) {
    std::vector<CK_ATTRIBUTE> t{attr(CKA_CLASS, &kClasses[static_cast<int>(kind)],
                                     sizeof(CK_OBJECT_CLASS))};
    if (kind == TokenObject::Request)
        t.push_back(attr(CKA_APPLICATION, kApplication, sizeof kApplication - 1));
    if (kind == TokenObject::Replacement)
        t.push_back(attr(CKA_APPLICATION, kReplacing, sizeof kReplacing - 1));
    return t;
}

// signingOnly - the usage attributes of a key pair's halves: the private key signs, the public
// key verifies, and nothing else, whatever the module's defaults.
std::vector<CK_ATTRIBUTE> signingOnly(bool privateHalf) {
    if (privateHalf)
        return {flag(CKA_SIGN, true), flag(CKA_DECRYPT, false), flag(CKA_UNWRAP, false),
                flag(CKA_DERIVE, false)};
    return {flag(CKA_VERIFY, true), flag(CKA_ENCRYPT, false), flag(CKA_WRAP, false),
            flag(CKA_DERIVE, false)};
}

// needsLogin - ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED unless the handle proved the PIN:
// the module would take a private object from any session while another one holds the login.
Rc needsLogin(const TokenStore& t) {
    return t.session.loggedIn ? ZAVKM_OK : ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED;
}

// findObjects - the objects matching tmpl; a handle that did not log in sees public objects
// only, even while the process holds the token's login through another handle.
Rc findObjects(TokenStore& t, std::vector<CK_ATTRIBUTE> tmpl, std::vector<CK_OBJECT_HANDLE>& out) {
    if (!t.session.loggedIn) tmpl.push_back(flag(CKA_PRIVATE, false));
    CK_FUNCTION_LIST* f = t.session.f;
    CK_SESSION_HANDLE h = t.session.handle;
    std::shared_lock reading(objectLock());
    if (CK_RV rv = f->C_FindObjectsInit(h, tmpl.data(), tmpl.size()); rv != CKR_OK)
        return p11Error(rv, "C_FindObjectsInit");
    CK_OBJECT_HANDLE found[64];
    CK_ULONG n = 0;
    CK_RV rv = CKR_OK;
    while ((rv = f->C_FindObjects(h, found, 64, &n)) == CKR_OK && n > 0)
        out.insert(out.end(), found, found + n);
    f->C_FindObjectsFinal(h);
    return rv == CKR_OK ? ZAVKM_OK : p11Error(rv, "C_FindObjects");
}

Rc attribute(TokenStore& t, CK_OBJECT_HANDLE obj, CK_ATTRIBUTE_TYPE type, Bytes& out) {
    CK_ATTRIBUTE a = attr(type, nullptr, 0);
    CK_FUNCTION_LIST* f = t.session.f;
    std::shared_lock reading(objectLock());
    if (CK_RV rv = f->C_GetAttributeValue(t.session.handle, obj, &a, 1); rv != CKR_OK)
        return p11Error(rv, "C_GetAttributeValue");
    out.resize(a.ulValueLen);
    a.pValue = out.data();
    if (CK_RV rv = f->C_GetAttributeValue(t.session.handle, obj, &a, 1); rv != CKR_OK)
        return p11Error(rv, "C_GetAttributeValue");
    return ZAVKM_OK;
}

// attributes - several attributes of one object in two calls; an attribute the object lacks
// comes back empty. gone: the object went away meanwhile (another session removed or replaced
// it), nothing is read.
Rc attributes(TokenStore& t, CK_OBJECT_HANDLE obj, std::initializer_list<CK_ATTRIBUTE_TYPE> types,
              std::vector<Bytes>& out, bool& gone) {
    std::vector<CK_ATTRIBUTE> tmpl;
    for (CK_ATTRIBUTE_TYPE type : types) tmpl.push_back(attr(type, nullptr, 0));
    CK_FUNCTION_LIST* f = t.session.f;
    out.assign(tmpl.size(), Bytes());
    std::shared_lock reading(objectLock());
    for (int pass = 0; pass < 2; ++pass) {
        CK_RV rv = f->C_GetAttributeValue(t.session.handle, obj, tmpl.data(), tmpl.size());
        gone = rv == CKR_OBJECT_HANDLE_INVALID;
        if (gone) return ZAVKM_OK;
        if (rv != CKR_OK && rv != CKR_ATTRIBUTE_TYPE_INVALID)
            return p11Error(rv, "C_GetAttributeValue");
        for (size_t i = 0; pass == 0 && i < tmpl.size(); ++i) {
            if (tmpl[i].ulValueLen == CK_UNAVAILABLE_INFORMATION) tmpl[i].ulValueLen = 0;
            out[i].resize(tmpl[i].ulValueLen);
            tmpl[i].pValue = out[i].data();
        }
    }
    return ZAVKM_OK;
}

Rc readSnapshot(TokenStore& t, TokenSnapshot& out) {
    std::vector<CK_OBJECT_HANDLE> certs, keys;
    if (Rc rc = findObjects(t, kindTemplate(TokenObject::Certificate), certs); rc != ZAVKM_OK)
        return rc;
    std::vector<Bytes> values;
    bool gone = false;
    for (CK_OBJECT_HANDLE obj : certs) {
        if (Rc rc = attributes(t, obj, {CKA_LABEL, CKA_ID, CKA_VALUE, CKA_TRUSTED}, values, gone);
            rc != ZAVKM_OK)
            return rc;
        if (!gone)
            out.certs.push_back({std::string(values[0].begin(), values[0].end()),
                                 std::move(values[1]), std::move(values[2]),
                                 values[3].size() == 1 && values[3][0] == CK_TRUE});
    }
    if (Rc rc = findObjects(t, kindTemplate(TokenObject::PrivateKey), keys); rc != ZAVKM_OK)
        return rc;
    for (CK_OBJECT_HANDLE obj : keys) {
        if (Rc rc = attributes(t, obj, {CKA_ID}, values, gone); rc != ZAVKM_OK) return rc;
        if (!gone) out.privateKeyIds.push_back(std::move(values[0]));
    }
    out.valid = true;
    return ZAVKM_OK;
}

}  // namespace

Rc snapshotOf(TokenStore& t, const TokenSnapshot*& out) {
    if (!t.snapshot.valid) {
        TokenSnapshot fresh;
        if (Rc rc = readSnapshot(t, fresh); rc != ZAVKM_OK) return rc;
        t.snapshot = std::move(fresh);
    }
    out = &t.snapshot;
    return ZAVKM_OK;
}

bool hasPrivateKey(const TokenSnapshot& snap, const Bytes& id) noexcept {
    for (const Bytes& k : snap.privateKeyIds)
        if (k == id) return true;
    return false;
}

namespace {

Rc createObject(TokenStore& t, std::vector<CK_ATTRIBUTE> tmpl, const char* what,
                CK_OBJECT_HANDLE* created = nullptr) {
    if (t.readOnly) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
    t.snapshot.valid = false;
    CK_OBJECT_HANDLE obj = CK_INVALID_HANDLE;
    std::unique_lock writing(objectLock());
    CK_RV rv = t.session.f->C_CreateObject(t.session.handle, tmpl.data(), tmpl.size(), &obj);
    if (rv != CKR_OK) return p11Error(rv, what);
    if (created != nullptr) *created = obj;
    return ZAVKM_OK;
}

Rc sessionOn(const TokenSpec& spec, bool readWrite, Session& s, CK_TOKEN_INFO& info) {
    CK_FUNCTION_LIST* f = nullptr;
    if (Rc rc = loadModule(spec.module, f); rc != ZAVKM_OK) return rc;
    CK_SLOT_ID slot = 0;
    if (Rc rc = findTokenSlot(f, spec.label, slot); rc != ZAVKM_OK) return rc;
    if (CK_RV rv = f->C_GetTokenInfo(slot, &info); rv != CKR_OK)
        return p11Error(rv, "C_GetTokenInfo");
    return s.open(f, slot, readWrite);
}

// Curve - a curve of EC or EdDSA keys: its CKA_EC_PARAMS (the DER OID, which the certificate's
// key names too), its OpenSSL name, and how long its public point is as raw bytes (an EC point
// uncompressed).
struct Curve {
    Bytes oid;
    const char* name = nullptr;
    size_t pointBytes = 0;
    bool edwards = false;
};

// kCurves - the curves a key size asks for (256, 384, 521 EC; 25519, 448 EdDSA).
const std::pair<int32_t, Curve> kCurves[] = {
    {256, {{0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}, "prime256v1", 65, false}},
    {384, {{0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22}, "secp384r1", 97, false}},
    {521, {{0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x23}, "secp521r1", 133, false}},
    {kSizeEd25519, {{0x06, 0x03, 0x2B, 0x65, 0x70}, "ED25519", 32, true}},
    {kSizeEd448, {{0x06, 0x03, 0x2B, 0x65, 0x71}, "ED448", 57, true}},
};

// curveOf - the curve of a key size; no name for RSA sizes.
Curve curveOf(int32_t keySize) {
    for (const auto& [size, curve] : kCurves)
        if (size == keySize) return curve;
    return {};
}

// curveNamed - the curve OpenSSL calls name (a group name, or ED25519 / ED448); no name when
// this library makes no keys on it.
Curve curveNamed(const char* name) {
    for (const auto& [size, curve] : kCurves)
        if (std::strcmp(curve.name, name) == 0) return curve;
    return {};
}

// pointOf - the raw public point in CKA_EC_POINT, which holds it as a DER OCTET STRING or, with
// some modules, bare; empty when it is neither for a point of n bytes.
Bytes pointOf(const Bytes& value, size_t n) {
    if (value.size() == n) return value;  // bare: a DER form is always longer
    const unsigned char* p = value.data();
    Asn1OctetPtr octets(d2i_ASN1_OCTET_STRING(nullptr, &p, static_cast<long>(value.size())));
    clearSslErrors();
    if (!octets || p != value.data() + value.size() ||
        static_cast<size_t>(ASN1_STRING_length(octets.get())) != n)
        return {};
    const uint8_t* data = ASN1_STRING_get0_data(octets.get());
    return Bytes(data, data + n);
}

// pointAttribute - CKA_EC_POINT for a raw point: its DER OCTET STRING.
Bytes pointAttribute(const uint8_t* point, size_t n) {
    Asn1OctetPtr octets(ASN1_OCTET_STRING_new());
    if (!octets || ASN1_OCTET_STRING_set(octets.get(), point, static_cast<int>(n)) != 1) return {};
    return toDer(octets.get(), i2d_ASN1_OCTET_STRING);
}

Rc keyFromParams(const char* type, OSSL_PARAM* params, PkeyPtr& out) {
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY* key = nullptr;
    if (!ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, EVP_PKEY_PUBLIC_KEY, params) != 1)
        return sslError(ZAVKM_ERR_CRYPTO);
    out.reset(key);
    return ZAVKM_OK;
}

using ParamBldPtr = Owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using ParamsPtr = Owned<OSSL_PARAM, OSSL_PARAM_free>;

Rc rsaPublicKey(TokenStore& t, CK_OBJECT_HANDLE obj, PkeyPtr& out) {
    Bytes n, e;
    if (Rc rc = attribute(t, obj, CKA_MODULUS, n); rc != ZAVKM_OK) return rc;
    if (Rc rc = attribute(t, obj, CKA_PUBLIC_EXPONENT, e); rc != ZAVKM_OK) return rc;
    BignumPtr bn(BN_bin2bn(n.data(), static_cast<int>(n.size()), nullptr));
    BignumPtr be(BN_bin2bn(e.data(), static_cast<int>(e.size()), nullptr));
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    if (!bn || !be || !bld || OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, bn.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, be.get()) != 1)
        return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    ParamsPtr params(OSSL_PARAM_BLD_to_param(bld.get()));
    if (!params) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    return keyFromParams("RSA", params.get(), out);
}

// curvePublicKey - the public key of an EC or EdDSA key object on curve.
Rc curvePublicKey(TokenStore& t, CK_OBJECT_HANDLE obj, const Curve& curve, PkeyPtr& out) {
    Bytes value;
    if (Rc rc = attribute(t, obj, CKA_EC_POINT, value); rc != ZAVKM_OK) return rc;
    Bytes point = pointOf(value, curve.pointBytes);
    if (point.empty()) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_FUNCTION_FAILED;
    if (curve.edwards) {
        out.reset(EVP_PKEY_new_raw_public_key_ex(nullptr, curve.name, nullptr, point.data(),
                                                 point.size()));
        return out ? ZAVKM_OK : sslError(ZAVKM_ERR_CRYPTO);
    }
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, const_cast<char*>(curve.name), 0),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()),
        OSSL_PARAM_construct_end()};
    return keyFromParams("EC", params, out);
}

Rc rawEcdsaToDer(const Bytes& raw, Bytes& out) {
    const int half = static_cast<int>(raw.size() / 2);
    Owned<ECDSA_SIG, ECDSA_SIG_free> sig(ECDSA_SIG_new());
    BIGNUM* r = BN_bin2bn(raw.data(), half, nullptr);
    BIGNUM* s = BN_bin2bn(raw.data() + half, half, nullptr);
    if (!sig || r == nullptr || s == nullptr || ECDSA_SIG_set0(sig.get(), r, s) != 1) {
        BN_free(r);
        BN_free(s);
        return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    }
    out = toDer(sig.get(), i2d_ECDSA_SIG);
    return out.empty() ? sslError(ZAVKM_ERR_CRYPTO_SIGN) : ZAVKM_OK;
}

}  // namespace

Bytes keyIdOf(const EVP_PKEY* key) {
    // The key's bits as its SubjectPublicKeyInfo carries them, as keyIdOf(X509*) digests them.
    Owned<X509_PUBKEY, X509_PUBKEY_free> spki;
    X509_PUBKEY* made = nullptr;
    if (X509_PUBKEY_set(&made, const_cast<EVP_PKEY*>(key)) != 1) return {};
    spki.reset(made);
    const unsigned char* bits = nullptr;
    int length = 0;
    Bytes id(EVP_MAX_MD_SIZE);
    unsigned int n = 0;
    if (X509_PUBKEY_get0_param(nullptr, &bits, &length, nullptr, spki.get()) != 1 ||
        EVP_Digest(bits, static_cast<size_t>(length), id.data(), &n, EVP_sha1(), nullptr) != 1)
        return {};
    id.resize(n);
    return id;
}

Bytes keyIdOf(const X509* cert) {
    Bytes id(EVP_MAX_MD_SIZE);
    unsigned int n = 0;
    if (X509_pubkey_digest(cert, EVP_sha1(), id.data(), &n) != 1) return {};
    id.resize(n);
    return id;
}

Rc openToken(const TokenSpec& spec, const char* pin, bool publicOnly,
             std::unique_ptr<TokenStore>& out) {
    auto t = std::make_unique<TokenStore>();
    CK_TOKEN_INFO info{};
    if (Rc rc = sessionOn(spec, true, t->session, info); rc != ZAVKM_OK) return rc;
    t->readOnly = (info.flags & CKF_WRITE_PROTECTED) != 0;
    if (!isEmpty(pin)) {
        if (Rc rc = t->session.login(pin); rc != ZAVKM_OK) return rc;
        t->pin = SecretBytes(reinterpret_cast<const uint8_t*>(pin), std::strlen(pin));
    } else if ((info.flags & CKF_LOGIN_REQUIRED) != 0 && !publicOnly) {
        return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED;
    }
    if (Rc rc = recoverReplacements(*t); rc != ZAVKM_OK)  // the token stays usable as it is
        trace("a request replacement left half-way was not finished: %d", rc);
    out = std::move(t);
    return ZAVKM_OK;
}

Rc tokenLoginRequired(const TokenSpec& spec, bool& required) {
    Session s;
    CK_TOKEN_INFO info{};
    if (Rc rc = sessionOn(spec, false, s, info); rc != ZAVKM_OK) return rc;
    required = (info.flags & CKF_LOGIN_REQUIRED) != 0;
    return ZAVKM_OK;
}

Rc changeTokenPin(const TokenSpec& spec, const char* oldPin, const char* newPin) {
    Session s;
    CK_TOKEN_INFO info{};
    if (Rc rc = sessionOn(spec, true, s, info); rc != ZAVKM_OK) return rc;
    if (Rc rc = s.login(oldPin); rc != ZAVKM_OK) return rc;
    std::unique_lock writing(objectLock());
    return s.changePin(oldPin, newPin);
}

Rc objectLabels(TokenStore& t, TokenObject kind, std::vector<std::string>& out) {
    if (kind == TokenObject::Certificate) {
        const TokenSnapshot* snap = nullptr;
        if (Rc rc = snapshotOf(t, snap); rc != ZAVKM_OK) return rc;
        for (const CertObject& c : snap->certs) out.push_back(c.label);
        return ZAVKM_OK;
    }
    std::vector<CK_OBJECT_HANDLE> objs;
    if (Rc rc = findObjects(t, kindTemplate(kind), objs); rc != ZAVKM_OK) return rc;
    for (CK_OBJECT_HANDLE obj : objs) {
        Bytes label;
        if (Rc rc = attribute(t, obj, CKA_LABEL, label); rc != ZAVKM_OK) return rc;
        out.emplace_back(label.begin(), label.end());  // labels two objects share come twice
    }
    return ZAVKM_OK;
}

Rc objectValues(TokenStore& t, TokenObject kind, const std::string& label,
                std::vector<Bytes>& out) {
    if (kind == TokenObject::Certificate) {
        const TokenSnapshot* snap = nullptr;
        if (Rc rc = snapshotOf(t, snap); rc != ZAVKM_OK) return rc;
        for (const CertObject& c : snap->certs)
            if (c.label == label) out.push_back(c.value);
        return ZAVKM_OK;
    }
    std::vector<CK_ATTRIBUTE> tmpl = kindTemplate(kind);
    tmpl.push_back(attr(CKA_LABEL, label));
    std::vector<CK_OBJECT_HANDLE> objs;
    if (Rc rc = findObjects(t, tmpl, objs); rc != ZAVKM_OK) return rc;
    for (CK_OBJECT_HANDLE obj : objs) {
        Bytes value;
        if (Rc rc = attribute(t, obj, CKA_VALUE, value); rc != ZAVKM_OK) return rc;
        out.push_back(std::move(value));
    }
    return ZAVKM_OK;
}

Rc requestObjects(TokenStore& t, std::vector<std::pair<std::string, Bytes>>& out) {
    std::vector<CK_OBJECT_HANDLE> objs;
    if (Rc rc = findObjects(t, kindTemplate(TokenObject::Request), objs); rc != ZAVKM_OK) return rc;
    std::vector<Bytes> values;
    bool gone = false;
    for (CK_OBJECT_HANDLE obj : objs) {
        if (Rc rc = attributes(t, obj, {CKA_LABEL, CKA_VALUE}, values, gone); rc != ZAVKM_OK)
            return rc;
        if (!gone) out.emplace_back(std::string(values[0].begin(), values[0].end()), std::move(values[1]));
    }
    return ZAVKM_OK;
}

Rc privateKeyPresent(TokenStore& t, const Bytes& id, bool& present) {
    const TokenSnapshot* snap = nullptr;
    if (Rc rc = snapshotOf(t, snap); rc != ZAVKM_OK) return rc;
    present = hasPrivateKey(*snap, id);
    return ZAVKM_OK;
}

namespace {

Rc destroyAll(TokenStore& t, std::vector<CK_ATTRIBUTE> tmpl) {
    std::vector<CK_OBJECT_HANDLE> objs;
    if (Rc rc = findObjects(t, std::move(tmpl), objs); rc != ZAVKM_OK) return rc;
    if (objs.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    if (t.readOnly) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
    t.snapshot.valid = false;
    std::unique_lock writing(objectLock());
    for (CK_OBJECT_HANDLE obj : objs)
        if (CK_RV rv = t.session.f->C_DestroyObject(t.session.handle, obj); rv != CKR_OK)
            return p11Error(rv, "C_DestroyObject");
    return ZAVKM_OK;
}

}  // namespace

Rc destroyLabelled(TokenStore& t, const std::string& label) {
    return destroyAll(t, {attr(CKA_LABEL, label)});
}

Rc labelWithId(TokenStore& t, TokenObject kind, const Bytes& id, std::string& label) {
    label.clear();
    std::vector<CK_ATTRIBUTE> tmpl = kindTemplate(kind);
    tmpl.push_back(attr(CKA_ID, id));
    std::vector<CK_OBJECT_HANDLE> objs;
    if (Rc rc = findObjects(t, tmpl, objs); rc != ZAVKM_OK) return rc;
    if (objs.empty()) return ZAVKM_OK;
    Bytes text;
    if (Rc rc = attribute(t, objs.front(), CKA_LABEL, text); rc != ZAVKM_OK) return rc;
    label.assign(text.begin(), text.end());
    return ZAVKM_OK;
}

Rc destroyWithId(TokenStore& t, TokenObject kind, const Bytes& id) {
    std::vector<CK_ATTRIBUTE> tmpl = kindTemplate(kind);
    tmpl.push_back(attr(CKA_ID, id));
    return destroyAll(t, std::move(tmpl));
}

Rc destroyObjects(TokenStore& t, TokenObject kind, const std::string& label) {
    std::vector<CK_ATTRIBUTE> tmpl = kindTemplate(kind);
    tmpl.push_back(attr(CKA_LABEL, label));
    return destroyAll(t, std::move(tmpl));
}

Rc generateTokenKey(TokenStore& t, int32_t keySize, const std::string& label, TokenKey& out) {
    const Curve curve = curveOf(keySize);
    const bool ec = curve.name != nullptr;  // EC or EdDSA
    if (!ec && (keySize < 1024 || keySize > 16384))
        return ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE;
    if (t.readOnly) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
    t.snapshot.valid = false;
    CK_ULONG bits = static_cast<CK_ULONG>(keySize);
    const CK_BYTE exponent[] = {1, 0, 1};
    if (Rc rc = needsLogin(t); rc != ZAVKM_OK) return rc;
    std::vector<CK_ATTRIBUTE> pub = signingOnly(false);
    pub.insert(pub.end(), {flag(CKA_TOKEN, true), attr(CKA_LABEL, label)});
    if (ec) {
        pub.push_back(attr(CKA_EC_PARAMS, curve.oid));
    } else {
        pub.push_back(attr(CKA_MODULUS_BITS, &bits, sizeof bits));
        pub.push_back(attr(CKA_PUBLIC_EXPONENT, exponent, sizeof exponent));
    }
    std::vector<CK_ATTRIBUTE> priv = signingOnly(true);
    priv.insert(priv.end(), {flag(CKA_TOKEN, true), flag(CKA_PRIVATE, true),
                             flag(CKA_SENSITIVE, true), flag(CKA_EXTRACTABLE, false),
                             attr(CKA_LABEL, label)});
    CK_MECHANISM mech{curve.edwards ? CKM_EC_EDWARDS_KEY_PAIR_GEN
                      : ec          ? CKM_EC_KEY_PAIR_GEN
                                    : CKM_RSA_PKCS_KEY_PAIR_GEN,
                      nullptr, 0};
    std::unique_lock writing(objectLock());
    CK_RV rv = t.session.f->C_GenerateKeyPair(t.session.handle, &mech, pub.data(), pub.size(),
                                              priv.data(), priv.size(), &out.publicHandle,
                                              &out.privateKey);
    writing.unlock();
    if (rv != CKR_OK) return p11Error(rv, "C_GenerateKeyPair");
    Rc rc = ec ? curvePublicKey(t, out.publicHandle, curve, out.publicKey)
               : rsaPublicKey(t, out.publicHandle, out.publicKey);
    if (rc == ZAVKM_OK) out.id = keyIdOf(out.publicKey.get());
    if (rc == ZAVKM_OK && out.id.empty()) rc = sslError(ZAVKM_ERR_CRYPTO);
    CK_ATTRIBUTE id = attr(CKA_ID, out.id);
    writing.lock();
    for (CK_OBJECT_HANDLE obj : {out.publicHandle, out.privateKey}) {
        if (rc != ZAVKM_OK) break;
        if ((rv = t.session.f->C_SetAttributeValue(t.session.handle, obj, &id, 1)) != CKR_OK)
            rc = p11Error(rv, "C_SetAttributeValue");
    }
    writing.unlock();
    if (rc != ZAVKM_OK) destroyKey(t, out);
    return rc;
}

Rc privateKeyWithId(TokenStore& t, const Bytes& id, CK_OBJECT_HANDLE& out) {
    out = CK_INVALID_HANDLE;
    std::vector<CK_ATTRIBUTE> tmpl = kindTemplate(TokenObject::PrivateKey);
    tmpl.push_back(attr(CKA_ID, id));
    std::vector<CK_OBJECT_HANDLE> objs;
    if (Rc rc = findObjects(t, tmpl, objs); rc != ZAVKM_OK) return rc;
    if (!objs.empty()) out = objs.front();
    return ZAVKM_OK;
}

void destroyKey(TokenStore& t, const TokenKey& key) noexcept {
    t.snapshot.valid = false;
    std::unique_lock writing(objectLock());
    for (CK_OBJECT_HANDLE obj : {key.publicHandle, key.privateKey})
        if (obj != CK_INVALID_HANDLE) t.session.f->C_DestroyObject(t.session.handle, obj);
}

Rc TokenSigner::sign(const Bytes& tbs, const EVP_MD* md, Bytes& signature) {
    const bool ec = EVP_PKEY_get_base_id(key_.publicKey.get()) == EVP_PKEY_EC;
    Bytes input = tbs;
    CK_MECHANISM mech{CKM_ECDSA, nullptr, 0};
    if (isEdDsa(key_.publicKey.get())) {  // the message itself; the signature is the raw one
        mech.mechanism = CKM_EDDSA;
    } else if (ec) {  // the token signs the digest
        input.resize(EVP_MAX_MD_SIZE);
        unsigned int n = 0;
        if (EVP_Digest(tbs.data(), tbs.size(), input.data(), &n, md, nullptr) != 1)
            return sslError(ZAVKM_ERR_CRYPTO_SIGN);
        input.resize(n);
    } else {
        mech.mechanism =
            EVP_MD_get_type(md) == NID_sha384 ? CKM_SHA384_RSA_PKCS : CKM_SHA256_RSA_PKCS;
    }
    CK_FUNCTION_LIST* f = t_.session.f;
    CK_SESSION_HANDLE h = t_.session.handle;
    if (CK_RV rv = f->C_SignInit(h, &mech, key_.privateKey); rv != CKR_OK)
        return p11Error(rv, "C_SignInit");
    CK_ULONG n = 0;
    if (CK_RV rv = f->C_Sign(h, input.data(), input.size(), nullptr, &n); rv != CKR_OK)
        return p11Error(rv, "C_Sign");
    Bytes raw(n);
    if (CK_RV rv = f->C_Sign(h, input.data(), input.size(), raw.data(), &n); rv != CKR_OK)
        return p11Error(rv, "C_Sign");
    raw.resize(n);
    if (ec) return rawEcdsaToDer(raw, signature);
    signature = std::move(raw);
    return ZAVKM_OK;
}

Rc storeCertificate(TokenStore& t, const std::string& label, const Bytes& id, X509* cert) {
    static const CK_CERTIFICATE_TYPE x509 = CKC_X_509;
    Bytes der = derOf(cert);
    Bytes subject = derOf(X509_get_subject_name(cert));
    Bytes issuer = derOf(X509_get_issuer_name(cert));
    Bytes serial = toDer(X509_get0_serialNumber(cert), i2d_ASN1_INTEGER);
    if (der.empty() || subject.empty() || issuer.empty() || serial.empty())
        return sslError(ZAVKM_ERR_ASN);
    std::vector<CK_ATTRIBUTE> tmpl = kindTemplate(TokenObject::Certificate);
    tmpl.insert(tmpl.end(), {attr(CKA_CERTIFICATE_TYPE, &x509, sizeof x509),
                             flag(CKA_TOKEN, true), flag(CKA_PRIVATE, false),
                             attr(CKA_LABEL, label), attr(CKA_ID, id), attr(CKA_SUBJECT, subject),
                             attr(CKA_ISSUER, issuer), attr(CKA_SERIAL_NUMBER, serial),
                             attr(CKA_VALUE, der)});
    return createObject(t, tmpl, "C_CreateObject (certificate)");
}

Rc storeRequest(TokenStore& t, const std::string& label, const Bytes& id, const Bytes& der) {
    std::vector<CK_ATTRIBUTE> tmpl = kindTemplate(TokenObject::Request);
    (void)id;  // data objects carry no CKA_ID: the request's own public key names its pair
    tmpl.insert(tmpl.end(), {flag(CKA_TOKEN, true), flag(CKA_PRIVATE, false),
                             attr(CKA_LABEL, label), attr(CKA_VALUE, der)});
    return createObject(t, tmpl, "C_CreateObject (request)");
}

namespace {

// replacementLock - held across a request's replacement and across the recovery of one, so that
// two handles of the process never finish the same replacement at once.
std::mutex& replacementLock() {
    static std::mutex lock;
    return lock;
}

// destroyObject - C_DestroyObject; an object another session destroyed meanwhile is gone too.
Rc destroyObject(TokenStore& t, CK_OBJECT_HANDLE obj, const char* what) {
    t.snapshot.valid = false;
    std::unique_lock writing(objectLock());
    CK_RV rv = t.session.f->C_DestroyObject(t.session.handle, obj);
    return rv == CKR_OK || rv == CKR_OBJECT_HANDLE_INVALID ? ZAVKM_OK : p11Error(rv, what);
}

// finishReplacement - the last steps of replacing label's request by der, whose replacement
// object is replacing: every request object under label that holds something else goes, one
// holding der stays (made when there is none), then the replacement object goes. Each step
// leaves a state from which a later call finishes the same way.
Rc finishReplacement(TokenStore& t, CK_OBJECT_HANDLE replacing, const std::string& label,
                     const Bytes& der) {
    std::vector<CK_ATTRIBUTE> tmpl = kindTemplate(TokenObject::Request);
    tmpl.push_back(attr(CKA_LABEL, label));
    std::vector<CK_OBJECT_HANDLE> requests;
    if (Rc rc = findObjects(t, tmpl, requests); rc != ZAVKM_OK) return rc;
    bool kept = false;
    for (CK_OBJECT_HANDLE obj : requests) {
        Bytes value;
        if (Rc rc = attribute(t, obj, CKA_VALUE, value); rc != ZAVKM_OK) return rc;
        if (!kept && value == der) {
            kept = true;
            continue;
        }
        if (Rc rc = destroyObject(t, obj, "C_DestroyObject (request)"); rc != ZAVKM_OK) return rc;
    }
    if (!kept)
        if (Rc rc = storeRequest(t, label, {}, der); rc != ZAVKM_OK) return rc;
    return destroyObject(t, replacing, "C_DestroyObject (replacement)");
}

}  // namespace

Rc replaceRequest(TokenStore& t, const std::string& label, const Bytes& der) {
    std::lock_guard replacing(replacementLock());
    std::vector<CK_ATTRIBUTE> tmpl = kindTemplate(TokenObject::Request);
    tmpl.push_back(attr(CKA_LABEL, label));
    std::vector<CK_OBJECT_HANDLE> old;
    if (Rc rc = findObjects(t, tmpl, old); rc != ZAVKM_OK) return rc;
    if (old.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    // The new request is first kept in an object of its own kind, which no lookup of requests
    // sees: whenever the process stops, the token holds the old request, or this object from
    // which the next open finishes the replacement.
    std::vector<CK_ATTRIBUTE> record = kindTemplate(TokenObject::Replacement);
    record.insert(record.end(), {flag(CKA_TOKEN, true), flag(CKA_PRIVATE, false),
                                 attr(CKA_LABEL, label), attr(CKA_VALUE, der)});
    CK_OBJECT_HANDLE obj = CK_INVALID_HANDLE;
    if (Rc rc = createObject(t, record, "C_CreateObject (replacement)", &obj); rc != ZAVKM_OK)
        return rc;
    return finishReplacement(t, obj, label, der);
}

Rc recoverReplacements(TokenStore& t) {
    if (t.readOnly) return ZAVKM_OK;
    std::lock_guard replacing(replacementLock());
    std::vector<CK_OBJECT_HANDLE> left;
    if (Rc rc = findObjects(t, kindTemplate(TokenObject::Replacement), left); rc != ZAVKM_OK)
        return rc;
    std::vector<Bytes> values;
    bool gone = false;
    for (CK_OBJECT_HANDLE obj : left) {
        if (Rc rc = attributes(t, obj, {CKA_LABEL, CKA_VALUE}, values, gone); rc != ZAVKM_OK)
            return rc;
        if (gone) continue;
        trace("finishing the replacement of a request left half-way");
        const std::string label(values[0].begin(), values[0].end());
        if (Rc rc = finishReplacement(t, obj, label, values[1]); rc != ZAVKM_OK) return rc;
    }
    return ZAVKM_OK;
}

namespace {

using SecretBnPtr = Owned<BIGNUM, BN_clear_free>;

// bigParam - a number of key as unsigned big-endian bytes (wiped when dropped).
bool bigParam(const EVP_PKEY* key, const char* name, SecretBytes& out) {
    BIGNUM* raw = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &raw) != 1) return false;
    SecretBnPtr bn(raw);
    out = SecretBytes(static_cast<size_t>(BN_num_bytes(bn.get())));
    return BN_bn2bin(bn.get(), out.data()) == static_cast<int>(out.size());
}

// KeyMaterial - the attributes that carry a key's numbers, its public ones apart.
struct KeyMaterial {
    CK_KEY_TYPE type = CKK_RSA;
    std::vector<SecretBytes> values;  // owned here, pointed to by the templates
    std::vector<CK_ATTRIBUTE> publicPart, privatePart;
};

Rc rsaMaterial(const EVP_PKEY* key, KeyMaterial& m) {
    static const std::pair<const char*, CK_ATTRIBUTE_TYPE> kParts[] = {
        {OSSL_PKEY_PARAM_RSA_N, CKA_MODULUS},
        {OSSL_PKEY_PARAM_RSA_E, CKA_PUBLIC_EXPONENT},
        {OSSL_PKEY_PARAM_RSA_D, CKA_PRIVATE_EXPONENT},
        {OSSL_PKEY_PARAM_RSA_FACTOR1, CKA_PRIME_1},
        {OSSL_PKEY_PARAM_RSA_FACTOR2, CKA_PRIME_2},
        {OSSL_PKEY_PARAM_RSA_EXPONENT1, CKA_EXPONENT_1},
        {OSSL_PKEY_PARAM_RSA_EXPONENT2, CKA_EXPONENT_2},
        {OSSL_PKEY_PARAM_RSA_COEFFICIENT1, CKA_COEFFICIENT}};
    m.type = CKK_RSA;
    m.values.resize(std::size(kParts));
    for (size_t i = 0; i < std::size(kParts); ++i) {
        if (!bigParam(key, kParts[i].first, m.values[i])) return sslError(ZAVKM_ERR_CRYPTO);
        CK_ATTRIBUTE a = attr(kParts[i].second, m.values[i].data(), m.values[i].size());
        m.privatePart.push_back(a);
        if (i < 2) m.publicPart.push_back(a);  // modulus and public exponent
    }
    return ZAVKM_OK;
}

Rc ecMaterial(const EVP_PKEY* key, KeyMaterial& m, Bytes& params) {
    char group[64] = {};
    size_t n = 0;
    if (EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group, &n) != 1)
        return sslError(ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM);
    const Curve curve = curveNamed(group);
    if (curve.name == nullptr || curve.edwards) return ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM;
    params = curve.oid;
    m.type = CKK_EC;
    m.values.resize(2);
    Bytes point(curve.pointBytes);
    if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_ENCODED_PUBLIC_KEY, point.data(),
                                        point.size(), &n) != 1 ||
        n != point.size() || !bigParam(key, OSSL_PKEY_PARAM_PRIV_KEY, m.values[1]))
        return sslError(ZAVKM_ERR_CRYPTO);
    Bytes der = pointAttribute(point.data(), point.size());
    if (der.empty()) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    m.values[0] = SecretBytes(der.data(), der.size());
    m.publicPart = {attr(CKA_EC_PARAMS, params), attr(CKA_EC_POINT, m.values[0].data(), m.values[0].size())};
    m.privatePart = {attr(CKA_EC_PARAMS, params), attr(CKA_VALUE, m.values[1].data(), m.values[1].size())};
    return ZAVKM_OK;
}

// edwardsMaterial - an Ed25519 or Ed448 key: CKA_VALUE is the raw private key, CKA_EC_POINT the
// DER OCTET STRING of the raw public key, CKA_EC_PARAMS the curve's OID.
Rc edwardsMaterial(const EVP_PKEY* key, KeyMaterial& m, Bytes& params) {
    const Curve curve = curveNamed(EVP_PKEY_get0_type_name(key));
    if (curve.name == nullptr || !curve.edwards) return ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM;
    params = curve.oid;
    m.type = CKK_EC_EDWARDS;
    SecretBytes secret(curve.pointBytes);  // a private key is as long as its public point
    Bytes point(curve.pointBytes);
    size_t secretLength = secret.size(), pointLength = point.size();
    if (EVP_PKEY_get_raw_private_key(key, secret.data(), &secretLength) != 1 ||
        EVP_PKEY_get_raw_public_key(key, point.data(), &pointLength) != 1 ||
        secretLength != secret.size() || pointLength != point.size())
        return sslError(ZAVKM_ERR_CRYPTO);
    Bytes der = pointAttribute(point.data(), point.size());
    if (der.empty()) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    m.values.resize(2);
    m.values[0] = SecretBytes(der.data(), der.size());
    m.values[1] = std::move(secret);
    m.publicPart = {attr(CKA_EC_PARAMS, params), attr(CKA_EC_POINT, m.values[0].data(), m.values[0].size())};
    m.privatePart = {attr(CKA_EC_PARAMS, params), attr(CKA_VALUE, m.values[1].data(), m.values[1].size())};
    return ZAVKM_OK;
}

}  // namespace

Rc importKeyPair(TokenStore& t, const EVP_PKEY* key, const std::string& label, TokenKey& out) {
    if (t.readOnly) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
    if (Rc rc = needsLogin(t); rc != ZAVKM_OK) return rc;
    KeyMaterial m;
    Bytes params;
    const int type = EVP_PKEY_get_base_id(key);
    Rc rc = type == EVP_PKEY_RSA ? rsaMaterial(key, m)
            : type == EVP_PKEY_EC ? ecMaterial(key, m, params)
            : isEdDsa(key)        ? edwardsMaterial(key, m, params)
                                  : ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM;
    if (rc != ZAVKM_OK) return rc;
    out.id = keyIdOf(key);
    if (out.id.empty()) return sslError(ZAVKM_ERR_CRYPTO);
    static const CK_OBJECT_CLASS privateClass = CKO_PRIVATE_KEY, publicClass = CKO_PUBLIC_KEY;
    std::vector<CK_ATTRIBUTE> common{attr(CKA_KEY_TYPE, &m.type, sizeof m.type),
                                     flag(CKA_TOKEN, true), attr(CKA_LABEL, label),
                                     attr(CKA_ID, out.id)};
    std::vector<CK_ATTRIBUTE> priv = signingOnly(true), pub = signingOnly(false);
    priv.insert(priv.end(), {attr(CKA_CLASS, &privateClass, sizeof privateClass),
                             flag(CKA_PRIVATE, true), flag(CKA_SENSITIVE, true),
                             flag(CKA_EXTRACTABLE, false)});
    pub.push_back(attr(CKA_CLASS, &publicClass, sizeof publicClass));
    for (auto* part : {&priv, &pub}) part->insert(part->end(), common.begin(), common.end());
    priv.insert(priv.end(), m.privatePart.begin(), m.privatePart.end());
    pub.insert(pub.end(), m.publicPart.begin(), m.publicPart.end());
    rc = createObject(t, priv, "C_CreateObject (private key)", &out.privateKey);
    if (rc == ZAVKM_OK) rc = createObject(t, pub, "C_CreateObject (public key)", &out.publicHandle);
    if (rc != ZAVKM_OK) destroyKey(t, out);
    return rc;
}

}  // namespace zavkm
