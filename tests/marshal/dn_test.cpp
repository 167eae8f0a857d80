// Distinguished names: Java DNItem to the library's record (seven named parts) and the record
// to DNItem (with its DER and further parts).
#include <gmock/gmock.h>

#include "counting.h"
#include "marshal/records.h"
#include "records.h"
#include "rows.h"

namespace {

using harness::Blocks;
using harness::Context;
using harness::nothing;
using harness::nullObject;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::someObject;
using records::dnTrace;
using ::testing::ElementsAre;

const char* const dnItemClass = "com/norvex/zav/tolvik/basic/DNItem";
const char* const dnItemCtor =
    "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
    "Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;[B)V";

// ---- JavaDNItem2CDN ------------------------------------------------------------------------

struct Parts {
    const char* cn;
    const char* ou;
    const char* o;
    const char* l;
    const char* s;
    const char* pc;
    const char* c;
};

// The text of a record field as "null" or the text.
std::string shown(const char* text) { return text != nullptr ? text : "null"; }

// Converts a Java DNItem of `parts`, checks the record against them, then releases it with
// ZAVKM_FreeDNItem as the natives do. Returns true when a record came back.
std::function<Returned(Context&)> toRecord(Parts parts, bool failMalloc = false) {
    return [parts, failMalloc](Context& c) {
        jobject item = harness::newObject(
            dnItemClass, dnItemCtor, harness::str(parts.cn), harness::str(parts.ou),
            harness::str(parts.o), harness::str(parts.l), harness::str(parts.s),
            harness::str(parts.pc), harness::str(parts.c), harness::str("extra"),
            harness::byteArray({0x30}));
        ZAVKM_DNItem* record = reinterpret_cast<ZAVKM_DNItem*>(&c);  // must be overwritten
        if (failMalloc) counting::failNextMalloc();
        zavkjni::JavaDNItem2CDN(c.env, item, &record);
        if (record == nullptr) return returned(jboolean{JNI_FALSE});
        EXPECT_EQ(shown(record->cn), shown(parts.cn));
        EXPECT_EQ(shown(record->ou), shown(parts.ou));
        EXPECT_EQ(shown(record->o), shown(parts.o));
        EXPECT_EQ(shown(record->l), shown(parts.l));
        EXPECT_EQ(shown(record->s), shown(parts.s));
        EXPECT_EQ(shown(record->pc), shown(parts.pc));
        EXPECT_EQ(shown(record->c), shown(parts.c));
        // Names made from Java never carry further parts or DER.
        EXPECT_EQ(record->optionalField1, nullptr);
        EXPECT_EQ(record->optionalField4, nullptr);
        EXPECT_EQ(record->der, nullptr);
        EXPECT_EQ(record->derLength, 0u);
        ZAVKM_FreeDNItem(record);
        return returned(jboolean{JNI_TRUE});
    };
}

std::vector<std::string> partsTrace(Parts parts) {
    return {"JNI_DEBUG......ccn = " + shown(parts.cn), "JNI_DEBUG......cou = " + shown(parts.ou),
            "JNI_DEBUG......co = " + shown(parts.o),   "JNI_DEBUG......cl = " + shown(parts.l),
            "JNI_DEBUG......cs = " + shown(parts.s),   "JNI_DEBUG......cpc = " + shown(parts.pc),
            "JNI_DEBUG......cc = " + shown(parts.c)};
}

const Parts noParts = {};
const Parts cnAndC = {"Common Name", nullptr, nullptr, nullptr, nullptr, nullptr, "US"};
const Parts allParts = {"cn", "ou", "o", "l", "100%s", "pc", "c"};

const std::vector<Row> toRecordRows = {
    {"AllPartsNull", {}, toRecord(noParts), {"ZAVKM_InitDNItem(non-null)", "ZAVKM_FreeDNItem(non-null)"},
     partsTrace(noParts), harness::yes},
    {"CnAndCOnly", {}, toRecord(cnAndC),
     {"ZAVKM_InitDNItem(non-null)", R"(ZAVKM_Strdup("Common Name"))", R"(ZAVKM_Strdup("US"))",
      "ZAVKM_FreeDNItem(non-null)"},
     partsTrace(cnAndC), harness::yes},
    {"AllParts", {}, toRecord(allParts),
     {"ZAVKM_InitDNItem(non-null)", R"(ZAVKM_Strdup("cn"))", R"(ZAVKM_Strdup("ou"))",
      R"(ZAVKM_Strdup("o"))", R"(ZAVKM_Strdup("l"))", R"(ZAVKM_Strdup("100%s"))",
      R"(ZAVKM_Strdup("pc"))", R"(ZAVKM_Strdup("c"))", "ZAVKM_FreeDNItem(non-null)"},
     partsTrace(allParts), harness::yes,
     [](Context& c, const Returned&) {
         EXPECT_EQ(c.ledger.count("GetFieldID"), 7u);
         EXPECT_EQ(c.ledger.lookups().front(), "GetFieldID cn Ljava/lang/String;");
         EXPECT_EQ(c.ledger.lookups().back(), "GetFieldID c Ljava/lang/String;");
     }},
    {"NoMemoryForTheRecord", {}, toRecord(cnAndC, true), {}, {}, harness::no},
    {"NullDNItem", {},
     [](Context& c) {
         ZAVKM_DNItem* record = reinterpret_cast<ZAVKM_DNItem*>(&c);
         zavkjni::JavaDNItem2CDN(c.env, nullptr, &record);
         return returned(jboolean(record != nullptr));
     },
     {}, {}, harness::no},
    {"NullOutPlace", {},
     [](Context& c) {
         zavkjni::JavaDNItem2CDN(c.env, harness::newObject(dnItemClass, dnItemCtor, nullptr, nullptr,
                                                           nullptr, nullptr, nullptr, nullptr,
                                                           nullptr, nullptr, nullptr),
                                 nullptr);
         return harness::returnedNothing();
     },
     {}, {}, nothing},
};

// ---- getJavaDNItem ---------------------------------------------------------------------------

std::function<void(Context&, const Returned&)> dnItemHolds(fake::DN dn,
                                                           std::vector<std::string> further) {
    return [dn, further](Context& c, const Returned& got) {
        jobject item = got.object;
        EXPECT_EQ(harness::callString(item, "getCommonName"), dn.cn ? std::optional<std::string>(dn.cn) : std::nullopt);
        EXPECT_EQ(harness::callString(item, "getCountry"), dn.c ? std::optional<std::string>(dn.c) : std::nullopt);
        EXPECT_EQ(harness::callString(item, "getOrganizationalUnit"), dn.ou ? std::optional<std::string>(dn.ou) : std::nullopt);
        EXPECT_EQ(harness::callString(item, "getExtraPart"), std::nullopt) << "the eighth string is null";
        EXPECT_EQ(harness::callBytes(item, "getDer"), dn.der) << "an empty DER is an empty array";
        EXPECT_THAT(harness::listOfStrings(harness::callObject(item, "getOptionalFields", "()Ljava/util/List;")),
                    ::testing::ElementsAreArray(further));
        // Further parts go through DNItem's own method, looked up only when there are any.
        EXPECT_EQ(c.ledger.count("CallNonvirtualVoidMethod"), further.size());
        EXPECT_EQ(c.ledger.count("GetMethodID"), further.empty() ? 1u : 2u);
    };
}

std::function<Returned(Context&)> fromRecord(fake::DN dn) {
    return [dn](Context& c) { return returned(zavkjni::getJavaDNItem(c.env, fake::dnItem(dn))); };
}

const fake::DN fullName = {.cn = "Leaf",
                           .ou = "Unit",
                           .o = "Org",
                           .l = "Town",
                           .s = "State",
                           .pc = "0150",
                           .c = "NO",
                           .optionalField2 = "2.5.4.5=42",
                           .optionalField4 = "EMAIL=a@b",
                           .der = {0x30, 0x02, 0x31, 0x00}};

const std::vector<Row> fromRecordRows = {
    {"AllPartsAndTwoFurther", {}, fromRecord(fullName), {}, {dnTrace}, someObject,
     dnItemHolds(fullName, {"2.5.4.5=42", "EMAIL=a@b"}), harness::Channels::Both, Blocks::CallerKeeps},
    {"EmptyDerNoFurther", {}, fromRecord({.cn = "x"}), {}, {dnTrace}, someObject,
     dnItemHolds({.cn = "x"}, {}), harness::Channels::Both, Blocks::CallerKeeps},
    {"NullDerPointer", {},
     [](Context& c) {
         ZAVKM_DNItem* dn = fake::dnItem({.c = "SE"});
         dn->der = nullptr;
         return returned(zavkjni::getJavaDNItem(c.env, dn));
     },
     {}, {dnTrace}, someObject, dnItemHolds({.c = "SE"}, {}), harness::Channels::Both,
     Blocks::CallerKeeps},
    {"NullRecord", {}, [](Context& c) { return returned(zavkjni::getJavaDNItem(c.env, nullptr)); },
     {}, {}, nullObject},
};

}  // namespace

CONFORMANCE_ROWS(JavaDNToRecordRows, toRecordRows);
CONFORMANCE_ROWS(RecordToJavaDNRows, fromRecordRows);
