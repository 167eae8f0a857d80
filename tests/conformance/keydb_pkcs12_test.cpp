// CMSKeyDatabase, PKCS#12 files: the export of the keys named by a label list that the bridge
// builds itself, and the import of a whole file.
#include <gmock/gmock.h>

#include <optional>

#include "com_norvex_zav_tolvik_basic_CMSKeyDatabase.h"
#include "java_calls.h"
#include "keydb_rows.h"

namespace {

using harness::Context;
using harness::rc;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::Scripted;
using keydb::newDb;
using keydb::str;

const std::vector<std::string> pfxTrace = {keydb::fileLine, keydb::pwdLine,
                                           "JNI_DEBUG......cPfxFileName = p.p12",
                                           "JNI_DEBUG......cPfxPwd = ppw"};

// A Java String[] of labels (a null entry stays a null element); nullopt gives a null array.
jobjectArray labelArray(const std::optional<std::vector<const char*>>& labels) {
    if (!labels) return nullptr;
    JNIEnv* env = harness::java();
    jobjectArray array = env->NewObjectArray(static_cast<jsize>(labels->size()),
                                             harness::findClass("java/lang/String"), nullptr);
    for (size_t i = 0; i < labels->size(); ++i) {
        env->SetObjectArrayElement(array, static_cast<jsize>(i), str((*labels)[i]));
    }
    return array;
}

// The list reached the library's release whole: every label copy and every node of the list
// that the bridge made went back through ZAVKM_FreeLabelList.
std::function<void(Context&, const Returned&)> listReleased(size_t nodes) {
    return [nodes](Context&, const Returned&) {
        size_t nodesReleased = 0;
        for (const fake::Block& block : fake::released()) {
            EXPECT_EQ(block.releasedBy, "ZAVKM_FreeLabelList") << block.origin;
            if (block.origin == "untracked") ++nodesReleased;
        }
        EXPECT_EQ(nodesReleased, nodes);
    };
}

// c_ExportToPFXFile of `labels` to "p.p12": the journal runs from the label copies to the
// release of the list (between them `opened`, the open and what follows it).
Row exportRow(const char* name, std::optional<std::vector<const char*>> labels,
              std::vector<Scripted> script, std::vector<std::string> opened,
              std::vector<std::string> trace, Returned expected) {
    std::vector<std::string> journal;
    size_t nodes = 0;
    if (labels) {
        for (const char* label : *labels) {
            if (label != nullptr) journal.push_back(std::string("ZAVKM_Strdup(\"") + label + "\")");
        }
        journal.insert(journal.end(), opened.begin(), opened.end());
        journal.push_back("ZAVKM_FreeLabelList(non-null)");
        nodes = labels->empty() ? 1 : labels->size();
    }
    Row row = {
        name,
        std::move(script),
        [labels](Context& c) {
            return returned(KEYDB_NATIVE(ExportToPFXFile)(
                c.env, newDb(), str("k.kdb"), str("pw"), str("p.p12"), str("ppw"),
                labelArray(labels)));
        },
        journal,
        keydb::join({pfxTrace, trace}),
        expected,
        listReleased(nodes)};
    // Each label's text goes back as soon as it is copied, the four strings at the end.
    if (labels && !labels->empty()) {
        row.givenBack.assign(labels->begin(), labels->end());
        for (const char* text : {"k.kdb", "pw", "p.p12", "ppw"}) row.givenBack.push_back(text);
    }
    return row;
}

std::string exportCall(const char* labels) {
    return std::string(R"(ZAVKM_ExportKeys(7, 1, "p.p12", "ppw", )") + labels + ")";
}

// c_ImportFromPFXFile of "p.p12" with pfxPwd `pfxPwd`.
Row importRow(const char* name, const char* pfxPwd, std::vector<Scripted> script,
              std::vector<std::string> journal, Returned expected) {
    std::vector<std::string> trace = pfxTrace;
    trace.back() = std::string("JNI_DEBUG......cPfxPwd = ") + (pfxPwd ? pfxPwd : "null");
    return {
        name,
        std::move(script),
        [pfxPwd](Context& c) {
            return returned(KEYDB_NATIVE(ImportFromPFXFile)(
                c.env, newDb(), str("k.kdb"), str("pw"), str("p.p12"), str(pfxPwd)));
        },
        std::move(journal),
        std::move(trace),
        expected};
}

const std::string importCall = R"(ZAVKM_ImportKeysFromPFXFile(7, "p.p12", "ppw"))";

const std::vector<Row> pkcs12Rows = {
    exportRow("ExportThreeLabelsInArrayOrder", std::vector<const char*>{"a", "b", "c"},
              {keydb::opened()}, keydb::whileOpen({exportCall(R"(labels{"a", "b", "c"})")}),
              {"JNI_DEBUG......exportLabel = b", "JNI_DEBUG......exportLabel = c"}, rc(0)),
    exportRow("ExportOneLabelTracesNoExportLabel", std::vector<const char*>{"only"},
              {keydb::opened()}, keydb::whileOpen({exportCall(R"(labels{"only"})")}), {}, rc(0)),
    exportRow("ExportEmptyArrayGivesOneNodeWithoutLabel", std::vector<const char*>{},
              {keydb::opened()}, keydb::whileOpen({exportCall("labels{null}")}), {}, rc(0)),
    exportRow("ExportFailsAndStillCloses", std::vector<const char*>{"a", "b"},
              {keydb::opened(), {"ZAVKM_ExportKeys", fake::returns(ZAVKM_ERR_EXPORT_TYPE)}},
              keydb::whileOpen({exportCall(R"(labels{"a", "b"})")}),
              {"JNI_DEBUG......exportLabel = b"}, rc(ZAVKM_ERR_EXPORT_TYPE)),
    // A wrong password: the open's code, no export, and the list is still released.
    exportRow("ExportWrongPasswordStillFreesTheList", std::vector<const char*>{"a", "b"},
              {keydb::openFails(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)}, {keydb::openCall},
              {"JNI_DEBUG......exportLabel = b"}, rc(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)),
    // No array: 65 once the four strings are taken (and given back); nothing is opened.
    exportRow("ExportNullArray", std::nullopt, {}, {}, {}, rc(ZAVKM_ERR_PARAMETER)),
    keydb::nullThis("ExportWithoutThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(ExportToPFXFile)(env, self, str("k.kdb"), str("pw"),
            str("p.p12"), str("ppw"), labelArray(std::vector<const char*>{"a"})));
    }, rc(ZAVKM_ERR_PARAMETER)),
    importRow("ImportMain", "ppw", {keydb::opened()}, keydb::whileOpen({importCall}), rc(0)),
    importRow("ImportFailsAndStillCloses", "ppw",
              {keydb::opened(),
               {"ZAVKM_ImportKeysFromPFXFile", fake::returns(ZAVKM_ERR_PKCS12_PWD_CORRUPTION)}},
              keydb::whileOpen({importCall}), rc(ZAVKM_ERR_PKCS12_PWD_CORRUPTION)),
    importRow("ImportOpenFails", "ppw", {keydb::openFails(ZAVKM_ERR_DATABASE_OPEN)},
              {keydb::openCall}, rc(ZAVKM_ERR_DATABASE_OPEN)),
    // A missing PKCS#12 password is not taken: 65, nothing opened.
    importRow("ImportNullPfxPassword", nullptr, {}, {}, rc(ZAVKM_ERR_PARAMETER)),
    keydb::nullEnv("ImportWithoutEnv", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(ImportFromPFXFile)(env, self, str("k.kdb"), str("pw"),
            str("p.p12"), str("ppw")));
    }, rc(ZAVKM_ERR_PARAMETER)),
};

CONFORMANCE_ROWS(KeyDbPkcs12Rows, pkcs12Rows);

using namespace javacalls;

const std::vector<JavaCall> javaCalls = {
    {"c_ExportToPFXFile", "(SSSS[Ljava/lang/String;)I",
     [] {
         return std::vector{s("k.kdb"), s("pw"), s("p.p12"), s("ppw"),
                            o(labelArray(std::vector<const char*>{"a", "b"}))};
     },
     {{"ZAVKM_ExportKeys", fake::returns(ZAVKM_ERR_EXPORT_TYPE)}}, ZAVKM_ERR_EXPORT_TYPE,
     {"ZAVKM_Strdup", "ZAVKM_Strdup", "ZAVKM_OpenKeyDb", "ZAVKM_ExportKeys",
         "ZAVKM_FreeLabelList"}},
    {"c_ImportFromPFXFile", "(SSSS)I", [] { return std::vector{s("k.kdb"), s("pw"), s("p.p12"),
        s("ppw")}; },
     {{"ZAVKM_ImportKeysFromPFXFile", fake::returns(ZAVKM_ERR_INVALID_PKCS12_DATA)}},
     ZAVKM_ERR_INVALID_PKCS12_DATA, {"ZAVKM_OpenKeyDb", "ZAVKM_ImportKeysFromPFXFile"}},
};
JAVA_CALLS(KeyDbPkcs12Java, keydb::dbClass, javaCalls);

}  // namespace
