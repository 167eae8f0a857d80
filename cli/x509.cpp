// x509.cpp - certificates for people: names as text, fingerprints, validity, subject
// alternative names and extensions read from DER; and the subject and extensions given on the
// command line turned into what the library takes.
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

#include "tolvik.h"

namespace tolvik {
namespace {

using BioPtr = Owned<BIO, BIO_free_all>;
using X509Ptr = Owned<X509, X509_free>;
using ReqPtr = Owned<X509_REQ, X509_REQ_free>;
using NamePtr = Owned<X509_NAME, X509_NAME_free>;
using ExtPtr = Owned<X509_EXTENSION, X509_EXTENSION_free>;
using TimePtr = Owned<ASN1_TIME, ASN1_TIME_free>;
void freeExtensions(STACK_OF(X509_EXTENSION) * s) { sk_X509_EXTENSION_pop_free(s, X509_EXTENSION_free); }
using ExtensionsPtr = Owned<STACK_OF(X509_EXTENSION), freeExtensions>;
void freeNames(GENERAL_NAMES* n) { GENERAL_NAMES_free(n); }
using NamesPtr = Owned<GENERAL_NAMES, freeNames>;

struct Field {
    const char* name;
    char* ZAVKM_DNItem::*text;
};
// The named parts of a DN record.
constexpr Field fields[] = {{"CN", &ZAVKM_DNItem::cn}, {"OU", &ZAVKM_DNItem::ou},
                            {"O", &ZAVKM_DNItem::o},   {"L", &ZAVKM_DNItem::l},
                            {"ST", &ZAVKM_DNItem::s},  {"postalCode", &ZAVKM_DNItem::pc},
                            {"C", &ZAVKM_DNItem::c}};

std::string drain(BIO* bio) {
    char* data = nullptr;
    long n = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(std::max(n, 0L)));
}

std::string fingerprint(const uint8_t* der, size_t length, const EVP_MD* md) {
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

// nameText - a name as people read it, most specific part first: "CN=a, O=Foo\, Inc., C=NO".
std::string nameText(const X509_NAME* name) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    const unsigned long flags = (ASN1_STRFLGS_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) |
                                XN_FLAG_SEP_CPLUS_SPC | XN_FLAG_DN_REV | XN_FLAG_FN_SN |
                                XN_FLAG_DUMP_UNKNOWN_FIELDS;
    if (!bio || X509_NAME_print_ex(bio.get(), name, 0, flags) < 0) return "";
    return drain(bio.get());
}

// seconds - a validity time in 64-bit seconds since 1970.
int64_t seconds(const ASN1_TIME* time) {
    TimePtr epoch(ASN1_TIME_set(nullptr, 0));
    int days = 0, secs = 0;
    if (!epoch || ASN1_TIME_diff(&days, &secs, epoch.get(), time) != 1) return 0;
    return int64_t{days} * 86400 + secs;
}

// sanText - the subject alternative names as "DNS:a", "IP:10.0.0.1", "email:x", "URI:u".
std::vector<std::string> sanText(const GENERAL_NAMES* names) {
    std::vector<std::string> out;
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME* n = sk_GENERAL_NAME_value(names, i);
        const ASN1_STRING* s = nullptr;
        const char* type = nullptr;
        switch (n->type) {
            case GEN_DNS: type = "DNS", s = n->d.dNSName; break;
            case GEN_EMAIL: type = "email", s = n->d.rfc822Name; break;
            case GEN_URI: type = "URI", s = n->d.uniformResourceIdentifier; break;
            case GEN_DIRNAME: out.push_back("dirName:" + nameText(n->d.directoryName)); continue;
            case GEN_IPADD: {
                char text[64] = "";
                const ASN1_OCTET_STRING* ip = n->d.iPAddress;
                const int length = ASN1_STRING_length(ip);
                const unsigned char* b = ASN1_STRING_get0_data(ip);
                if (length == 4) std::snprintf(text, sizeof text, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
                for (int k = 0; length == 16 && k < 16; k += 2)
                    std::snprintf(text + std::strlen(text), sizeof text - std::strlen(text), k ? ":%X" : "%X",
                                  b[k] << 8 | b[k + 1]);
                out.push_back(std::string("IP:") + text);
                continue;
            }
            default: out.push_back("other"); continue;
        }
        out.push_back(std::string(type) + ":" +
                      std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(s)),
                                  static_cast<size_t>(ASN1_STRING_length(s))));
    }
    return out;
}

// extensions - one row per extension: its short name (or OID), whether critical, its value as
// OpenSSL prints it on one line.
Json extensions(const X509* cert) {
    Json rows = Json::array();
    for (int i = 0; i < X509_get_ext_count(cert); ++i) {
        X509_EXTENSION* ext = X509_get_ext(cert, i);
        ASN1_OBJECT* oid = X509_EXTENSION_get_object(ext);
        char name[80];
        int nid = OBJ_obj2nid(oid);
        if (nid != NID_undef)
            std::snprintf(name, sizeof name, "%s", OBJ_nid2sn(nid));
        else
            OBJ_obj2txt(name, sizeof name, oid, 1);
        BioPtr bio(BIO_new(BIO_s_mem()));
        if (X509V3_EXT_print(bio.get(), ext, 0, 0) != 1)
            ASN1_STRING_print(bio.get(), X509_EXTENSION_get_data(ext));
        std::string value = drain(bio.get());
        std::replace(value.begin(), value.end(), '\n', ' ');
        rows.push_back({{"name", name},
                        {"critical", X509_EXTENSION_get_critical(ext) != 0},
                        {"value", value.substr(0, value.find_last_not_of(' ') + 1)}});
    }
    ERR_clear_error();
    return rows;
}

X509Ptr decodeCert(const uint8_t* der, size_t length) {
    const unsigned char* p = der;
    X509Ptr cert(der ? d2i_X509(nullptr, &p, static_cast<long>(length)) : nullptr);
    ERR_clear_error();
    return cert;
}

// NamePart - one part of a subject given on the command line.
struct NamePart {
    std::string type;  // as given
    int nid;
    std::string value;  // unescaped
};

// unescape - a value with \, \+ \" \\ \; \< \> \= \# and \HH escapes resolved, blanks at both
// ends that are not escaped dropped.
std::string unescape(const std::string& text, const std::string& part) {
    std::string out;
    size_t keep = 0;  // the length up to the last escaped or non-blank character
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '\\') {
            if (i + 1 >= text.size())
                throw UsageError{"--subject: \"" + part + "\" ends in a lone backslash"};
            auto hex = [&](size_t k) {
                return k < text.size() && std::isxdigit(static_cast<unsigned char>(text[k]));
            };
            if (hex(i + 1) && hex(i + 2)) {
                out.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)));
                i += 2;
            } else {
                out.push_back(text[++i]);
            }
            keep = out.size();
            continue;
        }
        if (out.empty() && c == ' ') continue;
        out.push_back(c);
        if (c != ' ') keep = out.size();
    }
    out.resize(keep);
    return out;
}

// nameParts - "CN=a,O=Foo\, Inc.,C=NO" split at the commas that are not escaped.
std::vector<NamePart> nameParts(const std::string& subject) {
    std::vector<std::string> raw(1);
    for (size_t i = 0; i < subject.size(); ++i) {
        if (subject[i] == '\\' && i + 1 < subject.size()) {
            raw.back() += subject.substr(i++, 2);
        } else if (subject[i] == ',') {
            raw.emplace_back();
        } else {
            raw.back() += subject[i];
        }
    }
    std::vector<NamePart> parts;
    for (const std::string& part : raw) {
        const size_t eq = part.find('=');
        std::string type = eq == std::string::npos ? "" : part.substr(0, eq);
        type.erase(0, type.find_first_not_of(' '));
        type.erase(type.find_last_not_of(' ') + 1);
        const int nid = type.empty() ? NID_undef : OBJ_txt2nid(type.c_str());
        ERR_clear_error();
        if (nid == NID_undef)
            throw UsageError{"--subject: \"" + part +
                             "\" is none of CN= OU= O= L= ST= postalCode= C= emailAddress= DC= "
                             "(a comma inside a value is written \\,)"};
        std::string value = unescape(part.substr(eq + 1), part);
        if (value.empty()) throw UsageError{"--subject: \"" + part + "\" has no value"};
        if (nid == NID_countryName &&
            (value.size() != 2 || !std::isalpha(static_cast<unsigned char>(value[0])) ||
             !std::isalpha(static_cast<unsigned char>(value[1]))))
            throw UsageError{"--subject: " + part + ": a country is two letters, as C=NO"};
        parts.push_back({type, nid, value});
    }
    return parts;
}

}  // namespace

std::string keyType(int32_t algorithm) {
    switch (algorithm) {
        case 1: return "RSA";
        case 2: return "EC";
        case 3: return "Ed25519";
        case 4: return "Ed448";
        default: return "unknown";
    }
}

std::string keyText(int32_t algorithm, int32_t bits) {
    return algorithm == 3 || algorithm == 4 ? keyType(algorithm)
                                            : keyType(algorithm) + " " + std::to_string(bits);
}

std::optional<CertFacts> certFacts(const uint8_t* der, size_t length) {
    X509Ptr cert = decodeCert(der, length);
    if (!cert) return std::nullopt;
    CertFacts f;
    f.subject = nameText(X509_get_subject_name(cert.get()));
    f.issuer = nameText(X509_get_issuer_name(cert.get()));
    const X509_NAME* subject = X509_get_subject_name(cert.get());
    const int cn = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    unsigned char* utf8 = nullptr;
    const int n = cn < 0 ? -1 : ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, cn)));
    if (n > 0) f.commonName.assign(reinterpret_cast<char*>(utf8), static_cast<size_t>(n));
    OPENSSL_free(utf8);
    Owned<BIGNUM, BN_free> serial(ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert.get()), nullptr));
    if (char* hex = serial ? BN_bn2hex(serial.get()) : nullptr) {
        f.serial = hex;
        OPENSSL_free(hex);
    }
    f.notBefore = seconds(X509_get0_notBefore(cert.get()));
    f.notAfter = seconds(X509_get0_notAfter(cert.get()));
    NamesPtr names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(cert.get(), NID_subject_alt_name, nullptr, nullptr)));
    f.san = sanText(names.get());
    f.sha1 = fingerprint(der, length, EVP_sha1());
    f.sha256 = fingerprint(der, length, EVP_sha256());
    const uint32_t flags = X509_get_extension_flags(cert.get());
    f.isCa = (flags & EXFLAG_CA) != 0;
    f.pathLength = static_cast<int>(X509_get_pathlen(cert.get()));
    f.canSign = (flags & EXFLAG_KUSAGE) == 0 || (X509_get_key_usage(cert.get()) & KU_KEY_CERT_SIGN) != 0;
    ERR_clear_error();
    return f;
}

std::optional<CertFacts> requestFacts(const uint8_t* der, size_t length) {
    const unsigned char* p = der;
    ReqPtr req(d2i_X509_REQ(nullptr, &p, static_cast<long>(length)));
    if (!req) {
        BioPtr bio(BIO_new_mem_buf(der, static_cast<int>(length)));
        req.reset(bio ? PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    }
    ERR_clear_error();
    if (!req) return std::nullopt;
    CertFacts f;
    f.subject = nameText(X509_REQ_get_subject_name(req.get()));
    ExtensionsPtr exts(X509_REQ_get_extensions(req.get()));
    for (int i = 0; exts && i < sk_X509_EXTENSION_num(exts.get()); ++i) {
        X509_EXTENSION* ext = sk_X509_EXTENSION_value(exts.get(), i);
        if (OBJ_obj2nid(X509_EXTENSION_get_object(ext)) != NID_subject_alt_name) continue;
        NamesPtr names(static_cast<GENERAL_NAMES*>(X509V3_EXT_d2i(ext)));
        f.san = sanText(names.get());
    }
    f.sha1 = fingerprint(der, length, EVP_sha1());
    f.sha256 = fingerprint(der, length, EVP_sha256());
    ERR_clear_error();
    return f;
}

Json showCert(const ZAVKM_CertItem& cert) {
    X509Ptr x509 = decodeCert(cert.der, cert.derLength);
    std::optional<CertFacts> f = certFacts(cert.der, cert.derLength);
    if (!x509 || !f) throw Failure{"decode a certificate", ZAVKM_ERR_ASN, ""};
    return {{"subject", f->subject},
            {"issuer", f->issuer},
            {"serial", f->serial},
            {"not_before", isoTime(f->notBefore)},
            {"not_after", isoTime(f->notAfter)},
            {"version", cert.shortValue1},
            {"signature", cert.sigAlgIdOIDName ? cert.sigAlgIdOIDName : ""},
            {"san", f->san},
            {"sha1", f->sha1},
            {"sha256", f->sha256},
            {"extensions", extensions(x509.get())}};
}

ZAVKM_DNItem subjectOf(const std::string& subject, std::vector<std::string>& texts) {
    std::vector<NamePart> parts = nameParts(subject);
    texts.clear();
    texts.reserve(parts.size());  // the record points into these
    ZAVKM_DNItem dn{};
    char** further[] = {&dn.optionalField1, &dn.optionalField2, &dn.optionalField3,
                        &dn.optionalField4};
    size_t used = 0;
    for (const NamePart& part : parts) {
        const Field* field = std::find_if(std::begin(fields), std::end(fields), [&](const Field& f) {
            return OBJ_txt2nid(f.name) == part.nid;
        });
        if (field != std::end(fields) && dn.*(field->text) == nullptr) {
            texts.push_back(part.value);
            dn.*(field->text) = texts.back().data();
            continue;
        }
        if (used == std::size(further))
            throw UsageError{"--subject: at most four parts beyond one each of CN OU O L ST "
                             "postalCode C"};
        texts.push_back(std::string(OBJ_nid2sn(part.nid)) + "=" + part.value);
        *further[used++] = texts.back().data();
    }
    return dn;
}

Bytes extensionsDer(const std::vector<ExtensionArg>& args) {
    ExtensionsPtr list(sk_X509_EXTENSION_new_null());
    for (const ExtensionArg& a : args) {
        if (a.value.empty()) continue;
        ExtPtr ext(X509V3_EXT_nconf(nullptr, nullptr, a.name.c_str(), a.value.c_str()));
        ERR_clear_error();
        if (!ext) throw UsageError{a.option + ": cannot read \"" + a.value + "\"; " + a.hint};
        if (!list || sk_X509_EXTENSION_push(list.get(), ext.get()) <= 0)
            throw Failure{"list the extensions", ZAVKM_ERR_MEMORY_ALLOCATE, ""};
        ext.release();
    }
    if (!list || sk_X509_EXTENSION_num(list.get()) == 0) return {};
    unsigned char* der = nullptr;
    int n = i2d_X509_EXTENSIONS(list.get(), &der);
    Bytes bytes(der, der + std::max(n, 0));
    OPENSSL_free(der);
    return bytes;
}

std::vector<Bytes> certificates(const Bytes& data, const std::string& what) {
    zavkm::CertItemListPtr list;
    check(ZAVKM_ExtractCertListFromPKCS7Data(data.data(), static_cast<uint32_t>(data.size()), out(list)),
          "read the certificates of " + what);
    std::vector<Bytes> certs;
    for (const ZAVKM_CertItemList* node = list.get(); node && node->cert; node = node->next)
        certs.emplace_back(node->cert->der, node->cert->der + node->cert->derLength);
    return certs;
}

std::string pem(const char* type, const uint8_t* der, size_t length) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio(bio.get(), type, "", der, static_cast<long>(length));
    return drain(bio.get());
}

}  // namespace tolvik
