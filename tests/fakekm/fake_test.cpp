// The recording fake itself: its journal lines, its scripts and its block accounting.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "fake.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Fake : public ::testing::Test {
protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override { fake::reset(); }
};

// A plausible argument of each type: texts "t", lengths and integers 2, buffers two bytes.
template <class A>
A sample() {
    static const uint8_t buffer[] = {0xab, 0xcd};
    if constexpr (std::is_same_v<A, const char*>) return "t";
    else if constexpr (std::is_same_v<A, const uint8_t*>) return buffer;
    else if constexpr (std::is_pointer_v<A>) return nullptr;
    else return A{2};
}

template <class R, class... A>
void callWithSamples(R (*operation)(A...) noexcept) {
    operation(sample<A>()...);
}

TEST_F(Fake, EveryOperationJournalsOneLineWithItsBuffersShown) {
#define FAKE_TEST_CALL_(ret, name, params, args) callWithSamples(&name);
    ZAVKM_OPERATIONS(FAKE_TEST_CALL_)
#undef FAKE_TEST_CALL_
    std::vector<std::string> journal = fake::journal();
    std::vector<std::string> names = fake::operationNames();
    ASSERT_EQ(journal.size(), names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(journal[i].rfind(names[i] + "(", 0), 0u) << journal[i];
        EXPECT_EQ(journal[i].find("[?]"), std::string::npos) << journal[i];
    }
    EXPECT_THAT(fake::errors(), IsEmpty());
}

struct LineCase {
    const char* name;
    std::function<void()> call;
    const char* line;
};

const LineCase lineCases[] = {
    {"TextsQuotedIntegersDecimal", [] { ZAVKM_StartTrace("jnidump", nullptr, -1, 6144); },
     R"(ZAVKM_StartTrace("jnidump", null, -1, 6144))"},
    {"QuotesEscaped", [] { ZAVKM_Strdup("a\"b\\c\n"); }, R"(ZAVKM_Strdup("a\"b\\c\x0a"))"},
    {"BuffersWithTheirLengths",
     [] {
         const uint8_t cert[] = {1, 2, 3};
         ZAVKM_InsertKey(7, "k", 3, cert, 0, nullptr, 1, 0);
     },
     R"(ZAVKM_InsertKey(7, "k", 3, [010203], 0, null, 1, 0))"},
    {"EmptyBuffer",
     [] {
         const uint8_t data[] = {9};
         ZAVKM_ExtractCertListFromPKCS7Data(data, 0, nullptr);
     },
     "ZAVKM_ExtractCertListFromPKCS7Data([], 0, null)"},
    {"DescriptorFieldsThatAreSet",
     [] {
         KeyStoreDescriptor d = {};
         d.storeType = CryptoToken;
         d.cryptoModuleName = "/m.so";
         d.tokenLabel = "tok";
         d.password = "pw";
         ZAVKM_IsPasswordRequired(&d, nullptr);
     },
     R"(ZAVKM_IsPasswordRequired(KeyStoreDescriptor{type=2, cryptoModuleName="/m.so", tokenLabel="tok", password="pw"}, null))"},
    {"DescriptorWithStrayBytes",
     [] {
         KeyStoreDescriptor d = {};
         d.storeType = KeyDbFile;
         d.reserved2[3] = 1;
         ZAVKM_OpenKeyDbX(&d, nullptr);
     },
     "ZAVKM_OpenKeyDbX(KeyStoreDescriptor{type=1, other bytes NOT zero}, null)"},
    {"LabelListIn",
     [] { ZAVKM_ExportKeys(3, 1, "f.p12", "pw", fake::labelList({"a", "b"})); },
     R"(ZAVKM_ExportKeys(3, 1, "f.p12", "pw", labels{"a", "b"}))"},
    {"DNIn",
     [] {
         ZAVKM_CreateNewCertReq(1, "k", 2048, fake::dnItem({.cn = "C", .c = "US"}), "r.csr",
                                nullptr, nullptr);
     },
     R"(ZAVKM_CreateNewCertReq(1, "k", 2048, DN{cn="C", c="US", der=[]}, "r.csr", null, null))"},
};

class FakeLines : public Fake, public ::testing::WithParamInterface<LineCase> {};

TEST_P(FakeLines, Journal) {
    GetParam().call();
    EXPECT_THAT(fake::journal(), ElementsAre(GetParam().line));
    EXPECT_THAT(fake::errors(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Shown, FakeLines, ::testing::ValuesIn(lineCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Fake, ScriptedStepsAnswerInOrderThenTheDefault) {
    fake::script("ZAVKM_OpenKeyDb", fake::returns(0).out(2, ZAVKM_KeyDbHandle{7}));
    fake::script("ZAVKM_OpenKeyDb", fake::returns(16));
    ZAVKM_KeyDbHandle handle = 0;
    EXPECT_EQ(ZAVKM_OpenKeyDb("f", "p", &handle), 0);
    EXPECT_EQ(handle, 7u);
    EXPECT_EQ(ZAVKM_OpenKeyDb("f", "p", &handle), 16);
    EXPECT_EQ(ZAVKM_OpenKeyDb("f", "p", &handle), 0);
    EXPECT_THAT(fake::unusedScripts(), IsEmpty());
    EXPECT_THROW(fake::script("ZAVKM_NoSuchThing", fake::returns(0)), std::invalid_argument);
}

TEST_F(Fake, AnOutPlaceOfAnotherTypeIsAnErrorNotACrash) {
    fake::script("ZAVKM_OpenKeyDb", fake::returns(0).out(2, 7));  // int, not ZAVKM_KeyDbHandle
    ZAVKM_KeyDbHandle handle = 0;
    ZAVKM_OpenKeyDb("f", "p", &handle);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(fake::errors().size(), 1u);
}

TEST_F(Fake, MemoryOperationsHandOutTrackedBlocksOrScriptedNull) {
    fake::script("ZAVKM_Malloc", fake::returnsNull());
    EXPECT_EQ(ZAVKM_Malloc(16), nullptr);
    void* block = ZAVKM_Malloc(16);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(static_cast<uint8_t*>(block)[15], 0xa5) << "the library's blocks are not zeroed";
    block = ZAVKM_Realloc(block, 64);
    char* copy = ZAVKM_Strdup("x");
    EXPECT_EQ(fake::outstanding().size(), 2u);
    ZAVKM_Free(block);
    ZAVKM_Free(copy);
    EXPECT_THAT(fake::outstanding(), IsEmpty());
    EXPECT_EQ(fake::releasedBy(copy), "ZAVKM_Free");
    ZAVKM_Free(copy);
    EXPECT_EQ(fake::errors().size(), 1u) << "a second release is reported";
}

TEST_F(Fake, ReleaseOperationsFreeWholeRecordsAndSayWhoDid) {
    auto* cert = fake::record<ZAVKM_CertItem>();
    fake::setBytes(cert->der, cert->derLength, {0x30, 0});
    cert->serialNumber = fake::text("01");
    cert->issuer = fake::dnItem({.cn = "CA"});
    auto* key = fake::record<ZAVKM_KeyItem>();
    key->label = fake::text("k");
    key->epki = fake::epkiItem({1, 2});
    key->certList = fake::certList({cert, nullptr});
    ZAVKM_FreeKeyItem(key);
    EXPECT_THAT(fake::outstanding(), IsEmpty());
    EXPECT_EQ(fake::releasedBy(cert), "ZAVKM_FreeKeyItem");

    ZAVKM_LabelList* labels = fake::labelList({"a", nullptr, "c"});
    ZAVKM_FreeLabelList(labels);
    EXPECT_THAT(fake::outstanding(), IsEmpty());
    EXPECT_EQ(fake::releasedBy(labels), "ZAVKM_FreeLabelList");
}

TEST_F(Fake, SetCryptoInfoAdoptsItsBlock) {
    void* block = ZAVKM_Malloc(256);
    ZAVKM_SetCryptoInfo(block);
    EXPECT_THAT(fake::outstanding(), IsEmpty());
    ASSERT_EQ(fake::adopted().size(), 1u);
    EXPECT_EQ(fake::adopted()[0].size, 256u);
    EXPECT_EQ(fake::releasedBy(block), "ZAVKM_SetCryptoInfo");
    EXPECT_THAT(fake::journal(), ElementsAre("ZAVKM_Malloc(256)", "ZAVKM_SetCryptoInfo(block(256))"));
}

}  // namespace
