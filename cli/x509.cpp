// x509.cpp - certificates for people: names as text, fingerprints, extensions, PEM; and the
// subject and subjectAltName given on the command line turned into what the library takes.
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "tolvik.h"

namespace tolvik {
namespace {

struct Field {
    const char* name;
    char* ZAVKM_DNItem::*text;
};
// The named parts of a DN record, most specific first, as names are read.
constexpr Field fields[] = {{"CN", &ZAVKM_DNItem::cn}, {"OU", &ZAVKM_DNItem::ou},
                            {"O", &ZAVKM_DNItem::o},   {"L", &ZAVKM_DNItem::l},
                            {"ST", &ZAVKM_DNItem::s},  {"postalCode", &ZAVKM_DNItem::pc},
                            {"C", &ZAVKM_DNItem::c}};

using BioPtr = std::unique_ptr<BIO, decltype([](BIO* b) { BIO_free(b); })>;
using ExtensionsPtr =
    std::unique_ptr<STACK_OF(X509_EXTENSION), decltype([](STACK_OF(X509_EXTENSION) * s) {
                        sk_X509_EXTENSION_pop_free(s, X509_EXTENSION_free);
                    })>;

std::string drain(BIO* bio) {
    char* data = nullptr;
    long n = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(n));
}

std::string fingerprint(const uint8_t* der, uint32_t length, const EVP_MD* md) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_Digest(der, length, digest, &n, md, nullptr) != 1) return "";
    std::string hex;
    for (unsigned int i = 0; i < n; ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, i ? ":%02X" : "%02X", digest[i]);
        hex += byte;
    }
    return hex;
}

// extensions - one row per extension: its short name (or OID), whether critical, its value as
// OpenSSL prints it on one line.
Json extensions(const uint8_t* der, uint32_t length) {
    Json rows = Json::array();
    const unsigned char* p = der;
    ExtensionsPtr list(der ? d2i_X509_EXTENSIONS(nullptr, &p, length) : nullptr);
    for (int i = 0; list && i < sk_X509_EXTENSION_num(list.get()); ++i) {
        X509_EXTENSION* ext = sk_X509_EXTENSION_value(list.get(), i);
        ASN1_OBJECT* oid = X509_EXTENSION_get_object(ext);
        char name[80];
        int nid = OBJ_obj2nid(oid);
        if (nid != NID_undef)
            std::snprintf(name, sizeof name, "%s", OBJ_nid2sn(nid));
        else
            OBJ_obj2txt(name, sizeof name, oid, 1);
        BioPtr bio(BIO_new(BIO_s_mem()));
        if (X509V3_EXT_print(bio.get(), ext, 0, 0) != 1) {
            ASN1_STRING_print(bio.get(), X509_EXTENSION_get_data(ext));
        }
        std::string value = drain(bio.get());
        std::replace(value.begin(), value.end(), '\n', ' ');
        rows.push_back({{"name", name},
                        {"critical", X509_EXTENSION_get_critical(ext) != 0},
                        {"value", value.substr(0, value.find_last_not_of(' ') + 1)}});
    }
    ERR_clear_error();
    return rows;
}

}  // namespace

ZAVKM_DNItem subjectOf(const std::vector<std::string>& parts) {
    ZAVKM_DNItem dn{};
    for (const std::string& part : parts) {
        size_t start = part.find_first_not_of(' ');
        size_t eq = part.find('=');
        const Field* field =
            std::find_if(std::begin(fields), std::end(fields), [&](const Field& f) {
                return eq != std::string::npos && start < eq &&
                       part.compare(start, eq - start, f.name) == 0;
            });
        if (field == std::end(fields)) {
            throw UsageError{"--subject: \"" + part +
                             "\" is none of CN= OU= O= L= ST= postalCode= C="};
        }
        dn.*(field->text) = const_cast<char*>(part.c_str() + eq + 1);
    }
    return dn;
}

Bytes extensionsDer(const std::string& san) {
    if (san.empty()) return {};
    X509_EXTENSION* ext = X509V3_EXT_nconf_nid(nullptr, nullptr, NID_subject_alt_name, san.c_str());
    ERR_clear_error();
    if (ext == nullptr) {
        throw UsageError{"--san: cannot read \"" + san +
                         "\"; say DNS:name,IP:address,email:address"};
    }
    ExtensionsPtr list(sk_X509_EXTENSION_new_null());
    sk_X509_EXTENSION_push(list.get(), ext);
    unsigned char* der = nullptr;
    int n = i2d_X509_EXTENSIONS(list.get(), &der);
    Bytes bytes(der, der + std::max(n, 0));
    OPENSSL_free(der);
    return bytes;
}

std::string dnText(const ZAVKM_DNItem* dn) {
    if (dn == nullptr) return "";
    std::string text;
    auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    for (const Field& f : fields) {
        if (dn->*(f.text)) add(std::string(f.name) + "=" + dn->*(f.text));
    }
    for (const char* extra :
         {dn->optionalField1, dn->optionalField2, dn->optionalField3, dn->optionalField4}) {
        if (extra) add(extra);
    }
    return text;
}

std::string pem(const char* type, const uint8_t* der, uint32_t length) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio(bio.get(), type, "", der, length);
    return drain(bio.get());
}

// exactTime - a validity time of the certificate's DER in 64-bit seconds since 1970: the
// record's fields hold 32 bits and stop at 2038.
int64_t exactTime(const ZAVKM_CertItem& cert, bool notAfter, int64_t recorded) {
    const unsigned char* p = cert.der;
    std::unique_ptr<X509, decltype(&X509_free)> x509(d2i_X509(nullptr, &p, cert.derLength), X509_free);
    std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> epoch(ASN1_TIME_set(nullptr, 0), ASN1_TIME_free);
    int days = 0, seconds = 0;
    if (!x509 || !epoch ||
        ASN1_TIME_diff(&days, &seconds, epoch.get(),
                       notAfter ? X509_get0_notAfter(x509.get()) : X509_get0_notBefore(x509.get())) != 1) {
        ERR_clear_error();
        return recorded;
    }
    return int64_t{days} * 86400 + seconds;
}

Json certFacts(const ZAVKM_CertItem& cert) {
    return {{"subject", dnText(cert.subject)},
            {"issuer", dnText(cert.issuer)},
            {"serial", cert.serialNumber ? cert.serialNumber : ""},
            {"not_before", isoTime(exactTime(cert, false, cert.effectTime))},
            {"not_after", isoTime(exactTime(cert, true, cert.expireTime))},
            {"version", cert.shortValue1},
            {"signature", cert.sigAlgIdOIDName ? cert.sigAlgIdOIDName : ""},
            {"sha1", fingerprint(cert.der, cert.derLength, EVP_sha1())},
            {"sha256", fingerprint(cert.der, cert.derLength, EVP_sha256())},
            {"extensions", extensions(cert.extensions, cert.extensionsLength)}};
}

}  // namespace tolvik
