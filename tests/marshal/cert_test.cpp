// Certificates, certificate lists and certificate requests to Java objects.
#include <gmock/gmock.h>

#include "marshal/records.h"
#include "records.h"
#include "rows.h"

namespace {

using harness::Blocks;
using harness::Channels;
using harness::Context;
using harness::nullObject;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::someObject;
using records::berTrace;
using records::concat;
using records::dnTrace;

using Bytes = std::optional<std::vector<uint8_t>>;

// A conversion row: the record is made when the row plays, the test keeps it.
Row conversion(std::string name, std::vector<harness::Scripted> script,
               std::function<jobject(JNIEnv*)> convert, std::vector<std::string> journal,
               std::vector<std::string> trace, Returned returns,
               std::function<void(jobject)> check = nullptr) {
    return {std::move(name),
            std::move(script),
            [convert](Context& c) { return returned(convert(c.env)); },
            std::move(journal),
            std::move(trace),
            returns,
            [check](Context&, const Returned& got) {
                if (check) check(got.object);
            },
            Channels::Both,
            Blocks::CallerKeeps};
}

// ---- getJavaCertItem -------------------------------------------------------------------------

void isDecodedCert(jobject item) {
    EXPECT_TRUE(harness::callBoolean(item, "isDecoded", "()Z"));
    EXPECT_EQ(harness::callShort(item, "getVersion", "()S"), 3) << "low 16 bits";
    EXPECT_EQ(harness::callShort(item, "getKeySize", "()S"), 2048) << "low 16 bits";
    EXPECT_EQ(harness::callString(item, "getSerialNumber"), "0A1B");
    EXPECT_EQ(harness::callLong(item, "getEffectTime", "()J"), -2147483648LL) << "sign-extended";
    EXPECT_EQ(harness::callLong(item, "getExpireTime", "()J"), 2147483647LL);
    const char* const dnSig = "()Lcom/norvex/zav/tolvik/basic/DNItem;";
    EXPECT_EQ(harness::callString(harness::callObject(item, "getIssuer", dnSig), "getCommonName"),
              "Issuer CA");
    EXPECT_EQ(harness::callString(harness::callObject(item, "getSubject", dnSig), "getCountry"), "NO");
    const char* const berSig = "()Lcom/norvex/zav/tolvik/basic/BERObject;";
    EXPECT_EQ(harness::callBytes(harness::callObject(item, "getSubjectPublicKeyInfo", berSig), "getBytes"),
              (Bytes{{0x30, 0x59}}));
    EXPECT_EQ(harness::callObject(item, "getExtensions", berSig), nullptr) << "never converted";
    EXPECT_EQ(harness::callBytes(item, "getSignature"), (Bytes{{0xaa, 0xbb}}));
    EXPECT_EQ(harness::callBytes(harness::callObject(item, "getSignatureAlgorithm", berSig), "getBytes"),
              (Bytes{{0x30, 0x0d}}));
    EXPECT_EQ(harness::callString(item, "getSignatureAlgorithmOid"), "1.2.840.113549.1.1.11");
    EXPECT_EQ(harness::callString(item, "getSignatureAlgorithmName"), "sha256WithRSAEncryption");
    EXPECT_EQ(harness::callBytes(item, "getTbsCertificate"), (Bytes{{0x30, 0x01, 0x02}}));
    EXPECT_EQ(harness::callBytes(item, "getDer"), (Bytes{{0x30, 0x82, 0x01}}));
    // The unsigned certificate is the one buffer given back with the C library's free.
    for (const fake::Block& block : fake::released()) {
        if (block.origin == "ZAVKM_GetUnsignedCertFromCert") {
            EXPECT_EQ(block.releasedBy, "free");
        }
    }
}

void isDerOnlyCert(jobject item) {
    EXPECT_FALSE(harness::callBoolean(item, "isDecoded", "()Z"));
    EXPECT_EQ(harness::callBytes(item, "getDer"), (Bytes{{0x30, 0x01}}));
    EXPECT_EQ(harness::callString(item, "getSerialNumber"), std::nullopt);
}

// Converts decodedCert() after `change`.
std::function<jobject(JNIEnv*)> cert(void (*change)(ZAVKM_CertItem*)) {
    return [change](JNIEnv* env) {
        ZAVKM_CertItem* record = records::decodedCert();
        change(record);
        return zavkjni::getJavaCertItem(env, record);
    };
}

// The lines of decodedCert() up to the first BER object that cannot be made.
std::vector<std::string> decodedTraceUpTo(size_t lines) {
    std::vector<std::string> all = records::decodedCertTrace();
    all.resize(lines);
    return all;
}

const std::vector<Row> certRows = {
    conversion("Decoded", {{"ZAVKM_GetUnsignedCertFromCert", records::unsignedCert()}},
               cert([](ZAVKM_CertItem*) {}), {records::unsignedCertCall},
               records::decodedCertTrace(), someObject, isDecodedCert),
    // Without a serial number only the DER counts, whatever else the record holds.
    conversion("NotDecoded", {},
               cert([](ZAVKM_CertItem* c) {
                   c->serialNumber = nullptr;
                   fake::setBytes(c->der, c->derLength, {0x30, 0x01});
               }),
               {}, records::derOnlyCertTrace(), someObject, isDerOnlyCert),
    conversion("NoPublicKeyInfo", {}, cert([](ZAVKM_CertItem* c) { c->spkiLength = 0; }), {},
               decodedTraceUpTo(4), nullObject),
    conversion("NoSignatureAlgorithm", {}, cert([](ZAVKM_CertItem* c) { c->sigAlgId = nullptr; }),
               {}, decodedTraceUpTo(5), nullObject),
    conversion("EmptySignatureIsAnEmptyArray",
               {{"ZAVKM_GetUnsignedCertFromCert", records::unsignedCert()}},
               cert([](ZAVKM_CertItem* c) {
                   c->signature = nullptr;
                   c->signatureLength = 0;
               }),
               {records::unsignedCertCall}, records::decodedCertTrace(), someObject,
               [](jobject item) {
                   EXPECT_EQ(harness::callBytes(item, "getSignature"), Bytes{std::vector<uint8_t>{}});
               }),
    conversion("NoUnsignedCertificate", {{"ZAVKM_GetUnsignedCertFromCert", fake::returns(93)}},
               cert([](ZAVKM_CertItem*) {}), {records::unsignedCertCall},
               decodedTraceUpTo(6), nullObject),
    conversion("NullRecord", {}, [](JNIEnv* env) { return zavkjni::getJavaCertItem(env, nullptr); },
               {}, {}, nullObject),
};

// ---- getJavaCertItemArray --------------------------------------------------------------------

std::function<jobject(JNIEnv*)> certArray(std::vector<bool> present) {
    return [present](JNIEnv* env) {
        std::vector<ZAVKM_CertItem*> certs;
        for (bool is : present) certs.push_back(is ? records::derOnlyCert() : nullptr);
        return zavkjni::getJavaCertItemArray(env, fake::certList(certs));
    };
}

std::function<void(jobject)> arrayOf(size_t length) {
    return [length](jobject array) {
        std::vector<jobject> items = harness::objects(static_cast<jobjectArray>(array));
        ASSERT_EQ(items.size(), length);
        for (jobject item : items) isDerOnlyCert(item);
    };
}

const std::vector<Row> certArrayRows = {
    conversion("TwoCertificates", {}, certArray({true, true}), {},
               records::certArrayTrace(2, concat({records::derOnlyCertTrace(),
                                                  records::derOnlyCertTrace()})),
               someObject, arrayOf(2)),
    // A certificate list ends at the first node without a certificate.
    conversion("StopsAtNodeWithoutCertificate", {}, certArray({true, false, true}), {},
               records::certArrayTrace(1, records::derOnlyCertTrace()), someObject, arrayOf(1)),
    conversion("FirstNodeWithoutCertificate", {}, certArray({false, true}), {},
               records::certArrayTrace(0, {}), someObject, arrayOf(0)),
    conversion("EmptyList", {}, certArray({}), {}, {}, nullObject),
};

// ---- getJavaCertReqItem ----------------------------------------------------------------------

ZAVKM_CertReqItem* request() {
    auto* info = fake::record<ZAVKM_CertReqInfoItem>();
    fake::setBytes(info->der, info->derLength, {0x30, 0x0a});
    info->keySize = 0x12345;  // low 16 bits: 0x2345
    info->subjectName = fake::dnItem({.cn = "Requester"});
    fake::setBytes(info->spki, info->spkiLength, {0x30, 0x59});
    fake::setBytes(info->attributes, info->attributesLength, {0xa0, 0x00});
    info->attributesLength = 0;  // set pointer, no length: no attributes
    auto* req = fake::record<ZAVKM_CertReqItem>();
    fake::setBytes(req->der, req->derLength, {0x30, 0x0b});
    fake::setBytes(req->sig, req->sigLength, {0x01});
    fake::setBytes(req->sigAlgId, req->sigAlgIdLength, {0x30, 0x0d});
    req->sigAlgIdOID = fake::text("1.2.840.10045.4.3.2");
    req->sigAlgIdOIDName = fake::text("ecdsa-with-SHA256");
    req->certReqInfoItem = info;
    return req;
}

std::function<jobject(JNIEnv*)> certReq(void (*change)(ZAVKM_CertReqItem*)) {
    return [change](JNIEnv* env) {
        ZAVKM_CertReqItem* record = request();
        change(record);
        return zavkjni::getJavaCertReqItem(env, record);
    };
}

std::vector<std::string> requestTrace(bool withAttributes) {
    std::vector<std::string> trace = {dnTrace, berTrace};
    if (withAttributes) trace.push_back(berTrace);
    trace.push_back(berTrace);  // the signature algorithm
    for (const char* produced :
         {"certReqItem->certReqInfoItem->keySize = 0x12345", "jSubjectName = 0x{ref}",
          "jSPKI = 0x{ref}", "jSig = 0x{ref}", "jSigAlgId = 0x{ref}", "jSigAlgIdOID = 0x{ref}",
          "jsigAlgIdOIDName = 0x{ref}", "jBerData = 0x{ref}"}) {
        trace.push_back(std::string("JNI_DEBUG......getJavaCertReqItem(): produced ") + produced);
    }
    trace.push_back("JNI_DEBUG......jCertReqItemClass = 0x{ref}, retObj = 0x{ref}");
    return trace;
}

void isRequest(jobject item, Bytes attributes) {
    const char* const berSig = "()Lcom/norvex/zav/tolvik/basic/BERObject;";
    EXPECT_EQ(harness::callShort(item, "getKeySize", "()S"), 0x2345) << "low 16 bits";
    EXPECT_EQ(harness::callString(harness::callObject(item, "getSubject",
                                                      "()Lcom/norvex/zav/tolvik/basic/DNItem;"),
                                  "getCommonName"),
              "Requester");
    EXPECT_EQ(harness::callBytes(harness::callObject(item, "getSubjectPublicKeyInfo", berSig), "getBytes"),
              (Bytes{{0x30, 0x59}}));
    jobject attributeObject = harness::callObject(item, "getAttributes", berSig);
    EXPECT_EQ(attributeObject != nullptr ? harness::callBytes(attributeObject, "getBytes") : std::nullopt,
              attributes);
    EXPECT_EQ(harness::callBytes(item, "getSignature"), (Bytes{{0x01}}));
    EXPECT_EQ(harness::callString(item, "getSignatureAlgorithmName"), "ecdsa-with-SHA256");
    EXPECT_EQ(harness::callBytes(item, "getDer"), (Bytes{{0x30, 0x0b}}));
    EXPECT_EQ(harness::callBytes(item, "getCertificationRequestInfo"), (Bytes{{0x30, 0x0a}}));
}

const std::vector<Row> certReqRows = {
    // Attributes with a pointer but no length are no attributes.
    conversion("WithoutAttributes", {}, certReq([](ZAVKM_CertReqItem*) {}), {}, requestTrace(false),
               someObject, [](jobject item) { isRequest(item, std::nullopt); }),
    conversion("WithAttributes", {},
               certReq([](ZAVKM_CertReqItem* r) { r->certReqInfoItem->attributesLength = 2; }), {},
               requestTrace(true), someObject,
               [](jobject item) { isRequest(item, Bytes{{0xa0, 0x00}}); }),
    conversion("NoPublicKeyInfo", {},
               certReq([](ZAVKM_CertReqItem* r) { r->certReqInfoItem->spki = nullptr; }), {},
               {dnTrace}, nullObject),
    conversion("NullRecord", {}, [](JNIEnv* env) { return zavkjni::getJavaCertReqItem(env, nullptr); },
               {}, {}, nullObject),
};

}  // namespace

CONFORMANCE_ROWS(CertItemRows, certRows);
CONFORMANCE_ROWS(CertItemArrayRows, certArrayRows);
CONFORMANCE_ROWS(CertReqItemRows, certReqRows);
