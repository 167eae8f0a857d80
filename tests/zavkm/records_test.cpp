// records_test.cpp - the records handed to the caller: the meanings a client relies on that
// are easy to get subtly wrong (serial digits, version counting, chain order, flags, the
// encrypted private key travelling between databases).
#include <climits>

#include "support.h"

namespace zavkm_test {
namespace {

constexpr const char* kPassword = "records pw";

using RecordsTest = LibraryTest;

struct Issued {
    std::string serial;
    std::vector<uint8_t> der;
};

// issueFor - a request for label (EC P-256), issued by "ca" with serial and validity.
Issued issueFor(ZAVKM_KeyDbHandle h, ScratchDir& dir, const std::string& label, const char* serial,
                int32_t days) {
    ZAVKM_DNItem subject = dn(label.c_str());
    std::string csr = dir.path(label + ".csr"), crt = dir.path(label + ".crt");
    EXPECT_EQ(
        ZAVKM_CreateNewCertReq(h, label.c_str(), 256, &subject, csr.c_str(), nullptr, nullptr),
        ZAVKM_OK);
    uint8_t* req = nullptr;
    uint32_t n = 0;
    EXPECT_EQ(ZAVKM_Base64DecodeFileToBuf(csr.c_str(), &req, &n), ZAVKM_OK);
    EXPECT_EQ(ZAVKM_IssueCert(h, req, n, "ca", 3, serial, days, crt.c_str(), 0, nullptr, nullptr),
              ZAVKM_OK);
    ZAVKM_Free(req);
    return {serial, readBytes(crt)};
}

TEST_F(RecordsTest, SerialNumbersAreUppercaseWholeBytesWithoutLeadingZero) {
    std::string file = dir.path("r.kdb");
    ASSERT_EQ(createDb(file, kPassword), ZAVKM_OK);
    OpenDb db(file, kPassword);
    ASSERT_FALSE(selfSigned(db.h, "ca", dir).empty());
    const struct {
        const char* given;
        const char* shown;
    } rows[] = {{"1234", "04D2"}, {"255", "FF"}, {"0x80", "80"}, {"0xff00", "FF00"}, {"1", "01"}};
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.given);
        Issued cert = issueFor(db.h, dir, "s" + std::to_string(n++), row.given, 10);
        ZAVKM_CertItemList* list = nullptr;
        ASSERT_EQ(ZAVKM_ExtractCertListFromPKCS7Data(cert.der.data(),
                                                     static_cast<uint32_t>(cert.der.size()), &list),
                  ZAVKM_OK);
        ASSERT_NE(list, nullptr);
        EXPECT_STREQ(list->cert->serialNumber, row.shown);
        EXPECT_EQ(list->cert->shortValue1, 3) << "v3 counted as people count it";
        ZAVKM_FreeCertItemList(list);
    }
}

TEST_F(RecordsTest, KeyItemCarriesFlagsChainAndAKeyThatMovesToAnotherDatabase) {
    std::string file = dir.path("a.kdb");
    ASSERT_EQ(createDb(file, kPassword), ZAVKM_OK);
    OpenDb db(file, kPassword);
    ASSERT_FALSE(selfSigned(db.h, "ca", dir).empty());
    Issued server = issueFor(db.h, dir, "server", "", 9999);
    ASSERT_EQ(
        ZAVKM_ReceiveCert(db.h, server.der.data(), static_cast<uint32_t>(server.der.size()), 1),
        ZAVKM_OK);
    ZAVKM_LabelList* requests = nullptr;
    ASSERT_EQ(ZAVKM_GetReqKeyDbLabelList(db.h, &requests), ZAVKM_OK);
    EXPECT_EQ(requests, nullptr) << "the request key became a personal key";

    ZAVKM_KeyItem* key = nullptr;
    ASSERT_EQ(ZAVKM_GetKeyItemByLabel(db.h, "server", &key), ZAVKM_OK);
    EXPECT_EQ(key->shortValue1, 2) << "EC";
    EXPECT_EQ(key->keySize, 256);
    EXPECT_EQ(key->keyFlag1, 1) << "received as the default key";
    EXPECT_EQ(key->keyFlag2, 0) << "a received certificate is no trust anchor until marked";
    ASSERT_TRUE(key->hasPrivateKey && key->epki != nullptr);
    ASSERT_NE(key->certList, nullptr);
    ASSERT_NE(key->certList->next, nullptr) << "the certificate, then its issuer";
    ZAVKM_CertItem* leaf = key->certList->cert;
    EXPECT_STREQ(leaf->subject->cn, "server");
    EXPECT_STREQ(key->certList->next->cert->subject->cn, "ca");
    EXPECT_EQ(key->certList->next->next, nullptr);
    EXPECT_EQ(leaf->expireTime, INT32_MAX) << "9999 days ahead is past 2038: clamped";
    EXPECT_STREQ(leaf->sigAlgIdOID, "1.2.840.10045.4.3.2");
    EXPECT_EQ(leaf->signature[0], 0x30) << "the ECDSA value itself, no unused-bits byte";
    EXPECT_EQ(key->keyBerLength, leaf->spkiLength);
    EXPECT_EQ(std::vector<uint8_t>(key->keyBer, key->keyBer + key->keyBerLength),
              std::vector<uint8_t>(leaf->spki, leaf->spki + leaf->spkiLength));

    ZAVKM_PrivKeyInfoItem* pki = nullptr;
    EXPECT_EQ(ZAVKM_GetPrivKeyInfoItemFromEPKIItem(key->epki, kPassword, &pki), ZAVKM_OK)
        << "the encrypted key opens with the database password";
    ZAVKM_FreePrivKeyInfoItem(pki);

    // Another database with the same password takes the key item as it is.
    std::string other = dir.path("b.kdb");
    ASSERT_EQ(createDb(other, kPassword), ZAVKM_OK);
    {
        OpenDb b(other, kPassword);
        EXPECT_EQ(ZAVKM_InsertKey(b.h, "moved", leaf->derLength, leaf->der, key->epki->derLength,
                                  key->epki->der, 0, 1),
                  ZAVKM_OK);
        uint8_t present = 0;
        EXPECT_EQ(ZAVKM_IsPrivateKeyPresent(b.h, "moved", &present), ZAVKM_OK);
        EXPECT_EQ(present, 1);
    }
    ZAVKM_FreeKeyItem(key);
}

}  // namespace
}  // namespace zavkm_test
