// x509records.cpp - ABI records from decoded certificates, requests and names.
#include "pki/x509records.h"

#include <openssl/asn1.h>

#include <climits>
#include <ctime>
#include <string>

#include "pki/der.h"
#include "pki/x509util.h"

namespace zavkm {
namespace {

// utf8Of - the entry's value as UTF-8 text.
std::string utf8Of(const X509_NAME_ENTRY* entry) {
    unsigned char* out = nullptr;
    int n = ASN1_STRING_to_UTF8(&out, X509_NAME_ENTRY_get_data(entry));
    if (n < 0) {
        clearSslErrors();
        return {};
    }
    std::string s(reinterpret_cast<char*>(out), static_cast<size_t>(n));
    OPENSSL_free(out);
    return s;
}

std::string oidText(const ASN1_OBJECT* obj, bool numeric) {
    char buf[128];
    int n = OBJ_obj2txt(buf, sizeof buf, obj, numeric ? 1 : 0);
    return n > 0 ? std::string(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n)
                                                                        : sizeof buf - 1)
                 : std::string();
}

// civilSeconds - seconds since 1970 of a UTC date and time (month 1-12), in 64 bits whatever
// time_t is.
int64_t civilSeconds(int64_t year, int64_t month, int64_t day, int64_t hour, int64_t minute,
                     int64_t second) {
    const int64_t y = year - (month <= 2 ? 1 : 0);
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t mp = (month + 9) % 12;  // March is 0
    const int64_t doy = (153 * mp + 2) / 5 + day - 1;
    const int64_t days = era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
    return days * 86400 + hour * 3600 + minute * 60 + second;
}

}  // namespace

int64_t exactTime(const ASN1_TIME* t) {
    std::tm tm{};
    if (t == nullptr || ASN1_TIME_to_tm(t, &tm) != 1) {
        clearSslErrors();
        return 0;
    }
    return civilSeconds(int64_t{tm.tm_year} + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                        tm.tm_min, tm.tm_sec);
}

namespace {

int32_t clampedTime(const ASN1_TIME* t) {
    const int64_t seconds = exactTime(t);
    if (seconds > INT32_MAX) return INT32_MAX;
    if (seconds < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(seconds);
}

std::string serialHex(const ASN1_INTEGER* serial) {
    BignumPtr bn(ASN1_INTEGER_to_BN(serial, nullptr));
    if (!bn) {
        clearSslErrors();
        return {};
    }
    int n = BN_num_bytes(bn.get());
    Bytes bytes(n > 0 ? static_cast<size_t>(n) : 1, 0);  // zero is one 00 byte
    if (n > 0) BN_bn2bin(bn.get(), bytes.data());
    static const char digits[] = "0123456789ABCDEF";
    std::string hex = BN_is_negative(bn.get()) ? "-" : "";
    for (uint8_t b : bytes) {
        hex.push_back(digits[b >> 4]);
        hex.push_back(digits[b & 15]);
    }
    return hex;
}

// The record field of a name part the record names itself, or null for a further part.
char** namedPart(ZAVKM_DNItem& dn, int nid) {
    static constexpr struct {
        int nid;
        char* ZAVKM_DNItem::*field;
    } parts[] = {
        {NID_commonName, &ZAVKM_DNItem::cn},          {NID_organizationalUnitName, &ZAVKM_DNItem::ou},
        {NID_organizationName, &ZAVKM_DNItem::o},     {NID_localityName, &ZAVKM_DNItem::l},
        {NID_stateOrProvinceName, &ZAVKM_DNItem::s},  {NID_postalCode, &ZAVKM_DNItem::pc},
        {NID_countryName, &ZAVKM_DNItem::c},
    };
    for (const auto& part : parts) {
        if (part.nid == nid) return &(dn.*part.field);
    }
    return nullptr;
}

// SignatureOut - where a record keeps its signature, its algorithm's DER, OID and OID name.
struct SignatureOut {
    uint8_t** signature;
    uint32_t* signatureLength;
    uint8_t** algorithm;
    uint32_t* algorithmLength;
    char** oid;
    char** oidName;
};

// signatureFields - copies a signature and its algorithm into a record (the OID dotted, the
// name long, or dotted when OpenSSL has none); throws std::bad_alloc.
void signatureFields(const ASN1_BIT_STRING* sig, const X509_ALGOR* alg, const SignatureOut& out) {
    copyBytes(ASN1_STRING_get0_data(sig), static_cast<size_t>(ASN1_STRING_length(sig)),
              out.signature, out.signatureLength);
    copyBytes(toDer(alg, i2d_X509_ALGOR), out.algorithm, out.algorithmLength);
    const ASN1_OBJECT* algObj = nullptr;
    X509_ALGOR_get0(&algObj, nullptr, nullptr, alg);
    *out.oid = copyText(oidText(algObj, true));
    int nid = OBJ_obj2nid(algObj);
    *out.oidName = copyText(nid != NID_undef ? OBJ_nid2ln(nid) : oidText(algObj, true));
}

}  // namespace

Rc dnRecord(const X509_NAME* name, DNPtr& out) {
    DNPtr dn(newRecord<ZAVKM_DNItem>());
    char** optional[] = {&dn->optionalField1, &dn->optionalField2, &dn->optionalField3,
                         &dn->optionalField4};
    size_t used = 0;
    for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
        const ASN1_OBJECT* obj = X509_NAME_ENTRY_get_object(entry);
        char** field = namedPart(*dn, OBJ_obj2nid(obj));
        std::string value = utf8Of(entry);
        if (field != nullptr && *field == nullptr) {
            *field = copyText(value);
        } else if (used < 4) {
            int nid = OBJ_obj2nid(obj);
            std::string type = nid != NID_undef ? OBJ_nid2sn(nid) : oidText(obj, true);
            *optional[used++] = copyText(type + "=" + value);
        }
    }
    Bytes der = derOf(name);
    if (der.empty()) return sslError(ZAVKM_ERR_ASN);
    copyBytes(der, &dn->der, &dn->derLength);
    out = std::move(dn);
    return ZAVKM_OK;
}

Rc certRecord(X509* cert, CertItemPtr& out) {
    CertItemPtr item(newRecord<ZAVKM_CertItem>());
    Bytes der = derOf(cert);
    if (der.empty()) return sslError(ZAVKM_ERR_ASN);
    copyBytes(der, &item->der, &item->derLength);
    item->shortValue1 = static_cast<int32_t>(X509_get_version(cert)) + 1;
    EVP_PKEY* key = X509_get0_pubkey(cert);
    item->shortValue2 = key != nullptr ? EVP_PKEY_get_bits(key) : 0;
    clearSslErrors();
    std::string serial = serialHex(X509_get0_serialNumber(cert));
    if (serial.empty()) return ZAVKM_ERR_ASN;
    item->serialNumber = copyText(serial);
    DNPtr issuer, subject;
    if (Rc rc = dnRecord(X509_get_issuer_name(cert), issuer); rc != ZAVKM_OK) return rc;
    if (Rc rc = dnRecord(X509_get_subject_name(cert), subject); rc != ZAVKM_OK) return rc;
    item->issuer = issuer.release();
    item->subject = subject.release();
    item->effectTime = clampedTime(X509_get0_notBefore(cert));
    item->expireTime = clampedTime(X509_get0_notAfter(cert));
    const ASN1_BIT_STRING* sig = nullptr;
    const X509_ALGOR* alg = nullptr;
    X509_get0_signature(&sig, &alg, cert);
    signatureFields(sig, alg, {&item->signature, &item->signatureLength, &item->sigAlgId,
                               &item->sigAlgIdLength, &item->sigAlgIdOID, &item->sigAlgIdOIDName});
    Bytes spki = toDer(X509_get_X509_PUBKEY(cert), i2d_X509_PUBKEY);
    copyBytes(spki, &item->spki, &item->spkiLength);
    const STACK_OF(X509_EXTENSION)* exts = X509_get0_extensions(cert);
    if (exts != nullptr && sk_X509_EXTENSION_num(exts) > 0) {
        Bytes extDer = toDer(exts, i2d_X509_EXTENSIONS);
        copyBytes(extDer, &item->extensions, &item->extensionsLength);
    }
    out = std::move(item);
    return ZAVKM_OK;
}

Rc certListRecord(const std::vector<X509Ptr>& certs, CertItemListPtr& out) {
    CertItemListPtr head;
    ZAVKM_CertItemList* tail = nullptr;
    for (const X509Ptr& cert : certs) {
        CertItemPtr item;
        if (Rc rc = certRecord(cert.get(), item); rc != ZAVKM_OK) return rc;
        auto* node = newRecord<ZAVKM_CertItemList>();
        node->cert = item.release();
        if (tail == nullptr)
            head.reset(node);
        else
            tail->next = node;
        tail = node;
    }
    out = std::move(head);
    return ZAVKM_OK;
}

int64_t notAfterOf(const uint8_t* der, size_t n) {
    DerElement outer, tbs, field;
    if (der == nullptr || !readDer(der, n, outer) || outer.tag != 0x30) return 0;
    if (!readDer(outer.content, outer.contentLength, tbs) || tbs.tag != 0x30) return 0;
    const uint8_t* p = tbs.content;
    size_t left = tbs.contentLength;
    auto next = [&] {
        if (!readDer(p, left, field)) return false;
        p += field.totalLength;
        left -= field.totalLength;
        return true;
    };
    // [0] version (optional), serial, signature algorithm, issuer, validity
    if (!next() || (field.tag == 0xA0 && !next())) return 0;
    if (!next() || !next() || !next() || field.tag != 0x30) return 0;
    DerElement notBefore, notAfter;
    if (!readDer(field.content, field.contentLength, notBefore) ||
        !readDer(notBefore.start + notBefore.totalLength,
                 field.contentLength - notBefore.totalLength, notAfter))
        return 0;
    const bool utc = notAfter.tag == 0x17 && notAfter.contentLength == 13;
    if (!utc && !(notAfter.tag == 0x18 && notAfter.contentLength == 15)) return 0;
    const uint8_t* t = notAfter.content;
    auto num = [&t](int digits) {
        int64_t v = 0;
        for (int i = 0; i < digits; ++i) v = v * 10 + (*t++ - '0');
        return v;
    };
    int64_t year = utc ? num(2) : num(4);
    if (utc) year += year < 50 ? 2000 : 1900;
    const int64_t month = num(2), day = num(2), hour = num(2), minute = num(2), second = num(2);
    return civilSeconds(year, month, day, hour, minute, second);
}

Bytes tbsOf(const uint8_t* der, size_t n) {
    DerElement outer, tbs;
    if (!readDer(der, n, outer) || outer.tag != 0x30 || outer.totalLength != n) return {};
    if (!readDer(outer.content, outer.contentLength, tbs) || tbs.tag != 0x30) return {};
    return Bytes(tbs.start, tbs.start + tbs.totalLength);
}

namespace {

// requestParts - the information part of a request and its attributes as a SET OF Attribute.
void requestParts(const Bytes& der, Bytes& info, Bytes& attributes) {
    DerElement outer, cri, field;
    if (!readDer(der.data(), der.size(), outer) || outer.tag != 0x30) return;
    if (!readDer(outer.content, outer.contentLength, cri) || cri.tag != 0x30) return;
    info.assign(cri.start, cri.start + cri.totalLength);
    const uint8_t* p = cri.content;
    size_t left = cri.contentLength;
    for (int i = 0; i < 4 && readDer(p, left, field); ++i) {  // version, subject, spki, [0]
        if (i == 3 && field.tag == 0xA0 && field.contentLength > 0) {
            attributes.assign(field.start, field.start + field.totalLength);
            attributes[0] = 0x31;  // [0] IMPLICIT SET OF becomes a plain SET OF
        }
        p += field.totalLength;
        left -= field.totalLength;
    }
}

}  // namespace

Rc reqKeyItemRecord(const std::string& label, int32_t keyType, int32_t keyBits,
                    const Bytes& spki, X509_REQ* req, ReqKeyItemPtr& out) {
    ReqKeyItemPtr item(newRecord<ZAVKM_ReqKeyItem>());
    item->shortValue1 = keyType;
    item->label = copyText(label);
    item->keySize = keyBits;
    copyBytes(spki, &item->keyBer, &item->keyBerLength);
    item->hasKeyBer = 1;
    CertReqItemPtr reqItem;
    if (Rc rc = requestRecord(req, reqItem); rc != ZAVKM_OK) return rc;
    item->certReq = reqItem.release();
    out = std::move(item);
    return ZAVKM_OK;
}

Rc requestRecord(X509_REQ* req, CertReqItemPtr& out) {
    CertReqItemPtr item(newRecord<ZAVKM_CertReqItem>());
    Bytes der = derOf(req);
    if (der.empty()) return sslError(ZAVKM_ERR_ASN);
    copyBytes(der, &item->der, &item->derLength);
    const ASN1_BIT_STRING* sig = nullptr;
    const X509_ALGOR* alg = nullptr;
    X509_REQ_get0_signature(req, &sig, &alg);
    signatureFields(sig, alg, {&item->sig, &item->sigLength, &item->sigAlgId,
                               &item->sigAlgIdLength, &item->sigAlgIdOID, &item->sigAlgIdOIDName});

    auto* info = newRecord<ZAVKM_CertReqInfoItem>();
    item->certReqInfoItem = info;
    Bytes infoDer, attributes;
    requestParts(der, infoDer, attributes);
    if (infoDer.empty()) return ZAVKM_ERR_ASN;
    copyBytes(infoDer, &info->der, &info->derLength);
    EVP_PKEY* key = X509_REQ_get0_pubkey(req);
    info->keySize = key != nullptr ? EVP_PKEY_get_bits(key) : 0;
    clearSslErrors();
    DNPtr subject;
    if (Rc rc = dnRecord(X509_REQ_get_subject_name(req), subject); rc != ZAVKM_OK) return rc;
    info->subjectName = subject.release();
    Bytes spki = key != nullptr ? spkiOf(key) : Bytes();
    copyBytes(spki, &info->spki, &info->spkiLength);
    if (!attributes.empty()) copyBytes(attributes, &info->attributes, &info->attributesLength);
    out = std::move(item);
    return ZAVKM_OK;
}

}  // namespace zavkm
