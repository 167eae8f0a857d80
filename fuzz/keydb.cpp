// keydb.cpp - a key database file and its rows: opened with its password, every entry read.
#include "connpool.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zavkm::closeIdleConnections();  // the file is new each time
    const std::string file = fuzz::asFile(data, size, "in.kdb");
    for (const char* side : {"-wal", "-shm"}) ::unlink((file + side).c_str());
    ZAVKM_KeyDbHandle h = 0;
    if (ZAVKM_OpenKeyDb(file.c_str(), fuzz::kPassword, &h) != ZAVKM_OK) return 0;
    ZAVKM_LabelList* labels = nullptr;
    if (ZAVKM_GetKeyDbLabelList(h, &labels) == ZAVKM_OK) {
        for (ZAVKM_LabelList* l = labels; l != nullptr && l->label != nullptr; l = l->next) {
            ZAVKM_KeyItem* key = nullptr;
            if (ZAVKM_GetKeyItemByLabel(h, l->label, &key) == ZAVKM_OK) ZAVKM_FreeKeyItem(key);
        }
        ZAVKM_FreeLabelList(labels);
    }
    if (ZAVKM_GetReqKeyDbLabelList(h, &labels) == ZAVKM_OK) {
        for (ZAVKM_LabelList* l = labels; l != nullptr && l->label != nullptr; l = l->next) {
            ZAVKM_ReqKeyItem* req = nullptr;
            if (ZAVKM_GetReqKeyItemByLabel(h, l->label, &req) == ZAVKM_OK) ZAVKM_FreeReqKeyItem(req);
        }
        ZAVKM_FreeLabelList(labels);
    }
    ZAVKM_CloseKeyDb(h);
    return 0;
}
