// text_test.cpp - labels and passwords as text: one text is one label and one password whether it
// came as UTF-8 (tolvik) or as Java's modified UTF-8 (the bridge), what is not text or holds a
// control character is refused, and each caller reads labels back in its own form.
#include <functional>

#include "store/file/epki.h"
#include "store/file/keydb.h"
#include "support.h"
#include "zavkm_ext.h"

namespace zavkm_test {
namespace {

constexpr const char* kPw = "text pw";
// "t" and U+1F511 (a key): UTF-8, and as Java hands it over (a surrogate pair).
const std::string kKeyUtf8 = "t\xF0\x9F\x94\x91";
const std::string kKeyJava = "t\xED\xA0\xBD\xED\xB4\x91";

struct LabelRow {
    const char* what;
    std::string given;
    std::string stored;  // as listed in UTF-8; empty: refused with 65
    std::string java;    // as the label list (for Java) gives it; empty: as stored
};
const LabelRow kLabels[] = {
    {"a character beyond U+FFFF in UTF-8", kKeyUtf8, kKeyUtf8, kKeyJava},
    {"the same character as Java hands it over", "u\xED\xA0\xBD\xED\xB4\x91", "u\xF0\x9F\x94\x91", "u\xED\xA0\xBD\xED\xB4\x91"},
    {"two-byte and three-byte characters", "\xC3\xA9\xE2\x82\xAC\xC2\xA0", "\xC3\xA9\xE2\x82\xAC\xC2\xA0", ""},
    {"the largest character", "\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF", "\xED\xAF\xBF\xED\xBF\xBF"},
    {"a lone high surrogate", "a\xED\xA0\xBD", "", ""},
    {"a lone low surrogate", "a\xED\xB4\x91", "", ""},
    {"a pair in the wrong order", "a\xED\xB4\x91\xED\xA0\xBD", "", ""},
    {"an overlong slash", "a\xC0\xAF", "", ""},
    {"U+0000 as Java hands it over", "a\xC0\x80" "b", "", ""},
    {"a surrogate written in four bytes", "a\xF0\x8D\xA0\xBD", "", ""},
    {"a code point above U+10FFFF", "a\xF4\x90\x80\x80", "", ""},
    {"a byte that starts no character", "a\xFF", "", ""},
    {"a sequence cut short", "a\xE2\x82", "", ""},
    {"ESC and a newline", "ok\x1B[32m trusted\n", "", ""},
    {"DEL", "a\x7F", "", ""},
    {"a C1 control character", "a\xC2\x9B" "1m", "", ""},
    {"U+0085, the C1 line break", "a\xC2\x85", "", ""},
};

std::vector<std::string> javaLabels(ZAVKM_KeyDbHandle h) { return labels(h); }
std::vector<std::string> listed(ZAVKM_KeyDbHandle h) {
    ZAVKM_Entry* entries = nullptr;
    uint32_t n = 0;
    std::vector<std::string> out;
    if (ZAVKM_ListEntries(h, &entries, &n) != ZAVKM_OK) return out;
    for (uint32_t i = 0; i < n; ++i) out.emplace_back(entries[i].label);
    ZAVKM_FreeEntries(entries, n);
    return out;
}

TEST(Text, LabelsAreOneTextWhicheverWayTheyCameAndControlCharactersAreRefused) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir dir;
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_DNItem ca = dn("ca");
    ASSERT_EQ(ZAVKM_CreateNewKeyDb(dir.path("t.kdb").c_str(), kPw, 0, &h), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateSelfSignedCert(h, "ca", 0, 3, 256, &ca, 30, dir.path("ca.der").c_str(), 0), ZAVKM_OK);
    const auto cert = readBytes(dir.path("ca.der"));
    std::vector<std::string> stored = {"ca"}, java = {"ca"};
    for (const LabelRow& row : kLabels) {
        SCOPED_TRACE(row.what);
        const ZAVKM_ReturnCode rc = ZAVKM_StoreCACert(h, cert.data(), size(cert), row.given.c_str());
        EXPECT_EQ(rc, row.stored.empty() ? ZAVKM_ERR_PARAMETER : ZAVKM_OK);
        if (rc != ZAVKM_OK) continue;
        stored.push_back(row.stored);
        java.push_back(row.java.empty() ? row.stored : row.java);
        for (const std::string& form : {row.stored, java.back()}) {  // found by either form
            ZAVKM_KeyItem* key = nullptr;
            EXPECT_EQ(ZAVKM_GetKeyItemByLabel(h, form.c_str(), &key), ZAVKM_OK);
            EXPECT_EQ(key != nullptr ? std::string(key->label) : "", java.back()) << "a key item is read by Java";
            ZAVKM_FreeKeyItem(key);
            EXPECT_EQ(ZAVKM_StoreCACert(h, cert.data(), size(cert), form.c_str()), ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL);
        }
    }
    EXPECT_EQ(listed(h), stored) << "C callers read UTF-8";
    EXPECT_EQ(javaLabels(h), java) << "Java reads modified UTF-8";
    ZAVKM_KeyItem* key = nullptr;
    EXPECT_EQ(ZAVKM_GetKeyItemByLabel(h, "a\xED\xA0\xBD", &key), ZAVKM_ERR_KEY_GET_BY_LABEL) << "a lookup of no text finds nothing";
    ZAVKM_CloseKeyDb(h);
    ZAVKM_CleanAll();
}

// A password given one way opens a database made with it given the other way; a database made
// from Java before passwords were made canonical (its key derived from the modified form) opens
// with either form.
struct PasswordRow {
    const char* what;
    std::function<ZAVKM_ReturnCode(const std::string& dir)> call;
    ZAVKM_ReturnCode expected;
};
ZAVKM_ReturnCode create(const std::string& file, const std::string& pw) {
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_ReturnCode rc = ZAVKM_CreateNewKeyDb(file.c_str(), pw.c_str(), 0, &h);
    if (rc == ZAVKM_OK) ZAVKM_CloseKeyDb(h);
    return rc;
}
ZAVKM_ReturnCode createThenOpen(const std::string& file, const std::string& made, const std::string& given) {
    ZAVKM_ReturnCode rc = create(file, made);
    return rc == ZAVKM_OK ? OpenDb(file, given.c_str()).rc : rc;
}
const std::string kPwUtf8 = "key\xF0\x9F\x94\x91pass", kPwJava = "key\xED\xA0\xBD\xED\xB4\x91pass";

const PasswordRow kPasswords[] = {
    {"made from tolvik, opened from Java", [](const std::string& d) { return createThenOpen(d + "/a.kdb", kPwUtf8, kPwJava); }, ZAVKM_OK},
    {"made from Java, opened from tolvik", [](const std::string& d) { return createThenOpen(d + "/b.kdb", kPwJava, kPwUtf8); }, ZAVKM_OK},
    {"made from Java before, opened from tolvik", [](const std::string& d) {
         std::unique_ptr<zavkm::KeyDb> old;
         ZAVKM_ReturnCode rc = zavkm::createKeyDb((d + "/old.kdb").c_str(), kPwJava, 0, old);  // the key of the old bytes
         old.reset();
         return rc == ZAVKM_OK ? OpenDb(d + "/old.kdb", kPwUtf8.c_str()).rc : rc;
     }, ZAVKM_OK},
    {"(made from Java before, opened from Java)", [](const std::string& d) { return OpenDb(d + "/old.kdb", kPwJava.c_str()).rc; }, ZAVKM_OK},
    {"made from Java before, stashed from tolvik", [](const std::string& d) {
         ZAVKM_ReturnCode rc = ZAVKM_StashKeyDbPwd((d + "/old.kdb").c_str(), kPwUtf8.c_str());
         return rc == ZAVKM_OK ? OpenDb(d + "/old.kdb", "").rc : rc;
     }, ZAVKM_OK},
    {"made from Java before, password changed from tolvik", [](const std::string& d) {
         ZAVKM_ReturnCode rc = ZAVKM_ChangeKeyDbPwd((d + "/old.kdb").c_str(), kPwUtf8.c_str(), "new pw", 0);
         return rc == ZAVKM_OK ? OpenDb(d + "/old.kdb", "new pw").rc : rc;
     }, ZAVKM_OK},
    {"a change to the same password given the other way", [](const std::string& d) {
         return ZAVKM_ChangeKeyDbPwd((d + "/a.kdb").c_str(), kPwUtf8.c_str(), kPwJava.c_str(), 0);
     }, ZAVKM_ERR_PASSWORD_CHANGE_MATCH},
    {"a wrong password is still wrong", [](const std::string& d) { return OpenDb(d + "/a.kdb", "key\xF0\x9F\x94\x92pass").rc; }, ZAVKM_ERR_DATABASE_INVALID_PASSWORD},
    {"a password with a lone surrogate", [](const std::string& d) { return create(d + "/c.kdb", "key\xED\xA0\xBDpass"); }, ZAVKM_ERR_PARAMETER},
    {"(U+0000 in a password from Java)", [](const std::string& d) { return createThenOpen(d + "/d.kdb", "a\xC0\x80" "b", "a\xC0\x80" "b"); }, ZAVKM_OK},
    {"a PKCS#12 file's password given the other way", [](const std::string& d) {
         OpenDb db(d + "/a.kdb", kPwUtf8.c_str());
         ZAVKM_DNItem name = dn("k");
         ZAVKM_ReturnCode rc = ZAVKM_CreateSelfSignedCert(db.h, "k", 0, 3, 256, &name, 30, nullptr, 0);
         if (rc == ZAVKM_OK) rc = ZAVKM_ExportKeys(db.h, 1, (d + "/k.p12").c_str(), kPwJava.c_str(), nullptr);
         OpenDb other(d + "/b.kdb", kPwUtf8.c_str());
         return rc == ZAVKM_OK ? ZAVKM_ImportKeysFromPFXFile(other.h, (d + "/k.p12").c_str(), kPwUtf8.c_str()) : rc;
     }, ZAVKM_OK},
    {"a private key encrypted from Java before, decrypted from tolvik", [](const std::string& d) {
         OpenDb db(d + "/b.kdb", kPwUtf8.c_str());
         ZAVKM_KeyItem* key = nullptr;
         ZAVKM_PrivKeyInfoItem* plain = nullptr;
         ZAVKM_ReturnCode rc = ZAVKM_GetKeyItemByLabel(db.h, "k", &key);
         if (rc == ZAVKM_OK) rc = ZAVKM_GetPrivKeyInfoItemFromEPKIItem(key->epki, kPwJava.c_str(), &plain);
         ZAVKM_FreeKeyItem(key);
         zavkm::Bytes old;  // as Java's bytes reached the key derivation before
         if (rc == ZAVKM_OK) rc = zavkm::epkiWithPassword(kPwJava, zavkm::SecretBytes(plain->der, plain->derLength), old);
         ZAVKM_FreePrivKeyInfoItem(plain);
         plain = nullptr;
         ZAVKM_EPKIItem epki{old.data(), static_cast<uint32_t>(old.size())};
         if (rc == ZAVKM_OK) rc = ZAVKM_GetPrivKeyInfoItemFromEPKIItem(&epki, kPwUtf8.c_str(), &plain);
         ZAVKM_FreePrivKeyInfoItem(plain);
         return rc;
     }, ZAVKM_OK},
};

TEST(Text, APasswordIsOneTextWhicheverWayItCame) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir dir;
    for (const PasswordRow& row : kPasswords) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(row.call(dir.path("").substr(0, dir.path("").size() - 1)), row.expected);
    }
    ZAVKM_CleanAll();
}

}  // namespace
}  // namespace zavkm_test
