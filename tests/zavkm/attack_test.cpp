// attack_test.cpp - someone who can write a key database file but does not know its password
// edits it with SQLite (or its bytes), then the owner runs an ordinary operation: one row an
// attack, the operation and the code the library must answer. Every row starts from the same
// file; the rows are grouped by what the attacker changes.
#include <sqlite3.h>

#include <functional>

#include "store/file/connpool.h"
#include "support.h"
#include "zavkm_ext.h"

namespace zavkm_test {
namespace {

constexpr const char* kOld = "first pw";   // the password before the change
constexpr const char* kPw = "second pw";   // the password now

// Files made once: the owner's database (pristine.kdb) and copies of it taken along its life.
//   s1.kdb   "off" still trusted, "gone" still there            (password kOld)
//   s2.kdb   "off" untrusted, "gone" deleted, before the change (password kOld)
//   s3.kdb   after the change, "late" still trusted, "temp" still there (password kPw)
//   pristine then "late" untrusted, "temp" deleted, "latekey" (personal) added (password kPw)
//   evil.kdb another file: a CA "evil" and a leaf it issued
struct World {
    ScratchDir dir;
    std::vector<uint8_t> caLeaf, offLeaf, evilLeaf;  // leaves issued by ca, off, evil
    std::string path(const std::string& name) const { return dir.path(name); }
};

std::vector<uint8_t> file(const World& w, const std::string& name) { return readBytes(w.path(name)); }

// selfSigned - a CA "label" in h, its certificate written to label.der.
void selfSigned(World& w, ZAVKM_KeyDbHandle h, const char* label, uint8_t makeDefault) {
    ZAVKM_DNItem name = dn(label);
    ASSERT_EQ(ZAVKM_CreateSelfSignedCert(h, label, makeDefault, 3, 256, &name, 30,
                                         w.path(std::string(label) + ".der").c_str(), 0), ZAVKM_OK);
}

// issued - a leaf certificate for a fresh request, issued by issuer in h.
std::vector<uint8_t> issued(World& w, ZAVKM_KeyDbHandle h, const char* issuer, const char* leaf) {
    ZAVKM_DNItem name = dn(leaf);
    const std::string csr = w.path(std::string(leaf) + ".csr"), der = w.path(std::string(leaf) + ".der");
    EXPECT_EQ(ZAVKM_CreateNewCertReq(h, leaf, 256, &name, csr.c_str(), nullptr, nullptr), ZAVKM_OK);
    uint8_t* req = nullptr;
    uint32_t n = 0;
    EXPECT_EQ(ZAVKM_Base64DecodeFileToBuf(csr.c_str(), &req, &n), ZAVKM_OK);
    EXPECT_EQ(ZAVKM_IssueCert(h, req, n, issuer, 3, "", 30, der.c_str(), 0, nullptr, nullptr), ZAVKM_OK);
    ZAVKM_Free(req);
    return readBytes(der);
}

void store(ZAVKM_KeyDbHandle h, const std::vector<uint8_t>& cert, const char* label) {
    ASSERT_EQ(ZAVKM_StoreCACert(h, cert.data(), size(cert), label), ZAVKM_OK);
}

void copyFile(World& w, const char* from, const char* to) {
    zavkm::closeIdleConnections();  // the file alone holds the database
    writeBytes(w.path(to), file(w, from));
}

void makeWorld(World& w) {
    ZAVKM_KeyDbHandle evil = 0, oth = 0, h = 0;
    ASSERT_EQ(ZAVKM_CreateNewKeyDb(w.path("evil.kdb").c_str(), kOld, 0, &evil), ZAVKM_OK);
    selfSigned(w, evil, "evil", 0);
    w.evilLeaf = issued(w, evil, "evil", "evil-leaf");
    ZAVKM_CloseKeyDb(evil);
    ASSERT_EQ(ZAVKM_CreateNewKeyDb(w.path("oth.kdb").c_str(), kOld, 0, &oth), ZAVKM_OK);
    selfSigned(w, oth, "other", 0);
    selfSigned(w, oth, "off", 0);
    selfSigned(w, oth, "gone", 0);
    w.offLeaf = issued(w, oth, "off", "off-leaf");
    ZAVKM_CloseKeyDb(oth);

    ASSERT_EQ(ZAVKM_CreateNewKeyDb(w.path("pristine.kdb").c_str(), kOld, 0, &h), ZAVKM_OK);
    selfSigned(w, h, "ca", 1);
    for (const char* signer : {"other", "off", "gone"}) store(h, file(w, std::string(signer) + ".der"), signer);
    w.caLeaf = issued(w, h, "ca", "srv");  // the request "srv" ...
    ASSERT_EQ(ZAVKM_ReceiveCert(h, w.caLeaf.data(), size(w.caLeaf), 0), ZAVKM_OK);  // ... received
    ZAVKM_DNItem req = dn("req");
    ASSERT_EQ(ZAVKM_CreateNewCertReq(h, "req", 256, &req, w.path("req.csr").c_str(), nullptr, nullptr), ZAVKM_OK);
    ZAVKM_CloseKeyDb(h);
    copyFile(w, "pristine.kdb", "s1.kdb");
    ASSERT_EQ(ZAVKM_OpenKeyDb(w.path("pristine.kdb").c_str(), kOld, &h), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_SetTrustStatus(h, "off", 0), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_DeleteKey(h, "gone"), ZAVKM_OK);
    ZAVKM_CloseKeyDb(h);
    copyFile(w, "pristine.kdb", "s2.kdb");
    ASSERT_EQ(ZAVKM_ChangeKeyDbPwd(w.path("pristine.kdb").c_str(), kOld, kPw, 86400 * 365), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_OpenKeyDb(w.path("pristine.kdb").c_str(), kPw, &h), ZAVKM_OK);
    store(h, file(w, "evil.der"), "late");
    store(h, file(w, "gone.der"), "temp");
    ZAVKM_CloseKeyDb(h);
    copyFile(w, "pristine.kdb", "s3.kdb");
    ASSERT_EQ(ZAVKM_OpenKeyDb(w.path("pristine.kdb").c_str(), kPw, &h), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_SetTrustStatus(h, "late", 0), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_DeleteKey(h, "temp"), ZAVKM_OK);
    selfSigned(w, h, "latekey", 0);
    ZAVKM_CloseKeyDb(h);
    zavkm::closeIdleConnections();
}

// ---- the operations run after an attack; each opens the file as the owner does ----

using Op = std::function<ZAVKM_ReturnCode(World&, const std::string&)>;

// on - fn(handle) on the file opened with password; the open's failure is the answer.
template <class Fn>
ZAVKM_ReturnCode on(const std::string& f, const char* password, Fn fn) {
    OpenDb db(f, password);
    return db.rc != ZAVKM_OK ? db.rc : fn(db.h);
}

Op openIt(const char* password = kPw) {
    return [=](World&, const std::string& f) { return on(f, password, [](ZAVKM_KeyDbHandle) { return ZAVKM_OK; }); };
}
Op keyItem(const char* label, const char* password = kPw) {
    return [=](World&, const std::string& f) {
        return on(f, password, [&](ZAVKM_KeyDbHandle h) {
            ZAVKM_KeyItem* key = nullptr;
            ZAVKM_ReturnCode rc = ZAVKM_GetKeyItemByLabel(h, label, &key);
            ZAVKM_FreeKeyItem(key);
            return rc;
        });
    };
}
Op requestItem(const char* label) {
    return [=](World&, const std::string& f) {
        return on(f, kPw, [&](ZAVKM_KeyDbHandle h) {
            ZAVKM_ReqKeyItem* key = nullptr;
            ZAVKM_ReturnCode rc = ZAVKM_GetReqKeyItemByLabel(h, label, &key);
            ZAVKM_FreeReqKeyItem(key);
            return rc;
        });
    };
}
Op byPublicKey(const char* label) {  // the public key of the certificate label.der
    return [=](World& w, const std::string& f) {
        return on(f, kPw, [&](ZAVKM_KeyDbHandle h) {
            const std::vector<uint8_t> der = file(w, std::string(label) + ".der");
            ZAVKM_CertItemList* certs = nullptr;
            ZAVKM_ReturnCode rc = ZAVKM_ExtractCertListFromPKCS7Data(der.data(), size(der), &certs);
            ZAVKM_KeyItemList* list = nullptr;
            if (rc == ZAVKM_OK)
                rc = ZAVKM_GetKeyItemsByPublicKey(h, certs->cert->spkiLength, certs->cert->spki, &list);
            ZAVKM_FreeCertItemList(certs);
            ZAVKM_FreeKeyItemList(list);
            return rc;
        });
    };
}
Op defaultKey() {
    return [](World&, const std::string& f) {
        return on(f, kPw, [](ZAVKM_KeyDbHandle h) {
            ZAVKM_KeyItem* key = nullptr;
            ZAVKM_ReturnCode rc = ZAVKM_GetDefaultKeyItem(h, &key);
            ZAVKM_FreeKeyItem(key);
            return rc;
        });
    };
}
Op labelList() {
    return [](World&, const std::string& f) {
        return on(f, kPw, [](ZAVKM_KeyDbHandle h) {
            ZAVKM_LabelList* list = nullptr;
            ZAVKM_ReturnCode rc = ZAVKM_GetKeyDbLabelList(h, &list);
            ZAVKM_FreeLabelList(list);
            return rc;
        });
    };
}
Op listing() {
    return [](World&, const std::string& f) {
        return on(f, kPw, [](ZAVKM_KeyDbHandle h) {
            ZAVKM_Entry* entries = nullptr;
            uint32_t count = 0;
            ZAVKM_ReturnCode rc = ZAVKM_ListEntries(h, &entries, &count);
            ZAVKM_FreeEntries(entries, count);
            return rc;
        });
    };
}
// partialListing - ListEntriesX lists the sound rows: 0 when exactly `damaged` rows are counted
// and every listed row is sound (none of labels `gone`), else the count itself.
Op partialListing(uint32_t expected, bool der = false) {
    return [=](World&, const std::string& f) {
        return on(f, kPw, [&](ZAVKM_KeyDbHandle h) {
            ZAVKM_Entry* entries = nullptr;
            uint32_t count = 0, damaged = 0;
            ZAVKM_ReturnCode rc = ZAVKM_ListEntriesX(h, der ? ZAVKM_LIST_DER : 0, &entries, &count, &damaged);
            bool fine = rc == ZAVKM_OK && damaged == expected && count >= 5;
            for (uint32_t i = 0; fine && i < count; ++i) fine = !der || entries[i].der != nullptr;
            ZAVKM_FreeEntries(entries, count);
            return rc != ZAVKM_OK ? rc : fine ? ZAVKM_OK : static_cast<ZAVKM_ReturnCode>(1000 + damaged);
        });
    };
}
Op validate(std::vector<uint8_t> World::*leaf) {
    return [=](World& w, const std::string& f) {
        return on(f, kPw, [&](ZAVKM_KeyDbHandle h) {
            uint8_t valid = 0;
            const std::vector<uint8_t>& cert = w.*leaf;
            ZAVKM_ReturnCode rc = ZAVKM_ValidateCertChain(h, cert.data(), size(cert), &valid);
            return rc == ZAVKM_OK && valid != 1 ? ZAVKM_ERR_VALIDATION : rc;
        });
    };
}
Op exportAll() {
    return [](World& w, const std::string& f) {
        return on(f, kPw, [&](ZAVKM_KeyDbHandle h) {
            return ZAVKM_ExportKeys(h, 1, w.path("all.p12").c_str(), "p12 pw", nullptr);
        });
    };
}
Op toKeyring() {
    return [](World& w, const std::string& f) {
        return ZAVKM_Kdb2Kyr(f.c_str(), kPw, w.path("ring.p12").c_str(), "ring pw");
    };
}
Op addCa() {  // an ordinary write
    return [](World& w, const std::string& f) {
        return on(f, kPw, [&](ZAVKM_KeyDbHandle h) {
            const std::vector<uint8_t> cert = file(w, "evil.der");
            return ZAVKM_StoreCACert(h, cert.data(), size(cert), "new");
        });
    };
}
Op setTrust(const char* label) {
    return [=](World&, const std::string& f) {
        return on(f, kPw, [&](ZAVKM_KeyDbHandle h) { return ZAVKM_SetTrustStatus(h, label, 1); });
    };
}
Op changePassword() {
    return [](World&, const std::string& f) { return ZAVKM_ChangeKeyDbPwd(f.c_str(), kPw, "third pw", 0); };
}
// info - GetKeyDbInfo answers, with the generation of the file.
Op info(int64_t* generation = nullptr) {
    return [=](World&, const std::string& f) {
        return on(f, kPw, [&](ZAVKM_KeyDbHandle h) {
            ZAVKM_KeyDbInfo i{};
            ZAVKM_ReturnCode rc = ZAVKM_GetKeyDbInfo(h, &i);
            if (generation != nullptr) *generation = i.generation;
            return rc;
        });
    };
}
// verifiedAndRepaired - VerifyKeyDb names the damaged row label for reason (0 when it does), then
// RepairKeyDb removes it and leaves a file whose every listing is whole again.
Op verifiedAndRepaired(const char* label, int32_t reason) {
    return [=](World&, const std::string& f) {
        return on(f, kPw, [&](ZAVKM_KeyDbHandle h) {
            ZAVKM_Damage* damage = nullptr;
            uint32_t count = 0, removed = 0;
            ZAVKM_ReturnCode rc = ZAVKM_VerifyKeyDb(h, &damage, &count);
            bool named = false;
            for (uint32_t i = 0; i < count; ++i)
                named = named || (damage[i].reason == reason &&
                                  (label == nullptr ? damage[i].label == nullptr
                                                    : damage[i].label != nullptr && std::string(damage[i].label) == label));
            ZAVKM_FreeDamage(damage, count);
            if (rc != ZAVKM_OK || !named) return rc != ZAVKM_OK ? rc : ZAVKM_ERR_VALIDATION;
            if ((rc = ZAVKM_RepairKeyDb(h, &removed)) != ZAVKM_OK) return rc;
            if ((rc = ZAVKM_VerifyKeyDb(h, &damage, &count)) != ZAVKM_OK) return rc;
            ZAVKM_FreeDamage(damage, count);
            ZAVKM_LabelList* list = nullptr;
            rc = ZAVKM_GetKeyDbLabelList(h, &list);
            ZAVKM_FreeLabelList(list);
            return rc == ZAVKM_OK && (count != 0 || removed == 0) ? ZAVKM_ERR_VALIDATION : rc;
        });
    };
}

// ---- the attacks: SQL run on the file with its older copies and another file attached ----

struct Attack {
    const char* name;
    std::string sql;  // run with s1, s2, s3 (older copies) and evil attached
};

int run(const World& w, const std::string& f, const std::string& sql) {
    sqlite3* db = nullptr;
    sqlite3_open(f.c_str(), &db);
    std::string all;
    for (const char* other : {"s1", "s2", "s3", "evil"})
        all += "ATTACH '" + w.path(std::string(other) + ".kdb") + "' AS " + other + "; ";
    all += sql;
    char* error = nullptr;
    int rc = sqlite3_exec(db, all.c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) ADD_FAILURE() << "the attack does not run: " << (error ? error : "") << "\n" << sql;
    sqlite3_free(error);
    sqlite3_close(db);
    return rc;
}

const std::string kColumns = "id, label, flags, key_type, key_bits, not_before, not_after, body_hash, mac, cert, spki, subject, private_key";
// put - a row of another copy put in whole in place of (or beside) the owner's.
std::string put(const char* from, const char* label, const char* as = nullptr) {
    return std::string(as == nullptr ? "DELETE FROM keys WHERE label = '" + std::string(label) + "'; " : "") +
           "INSERT INTO keys(" + kColumns + ") SELECT " +
           (as == nullptr ? std::string("id") : std::string(as)) + ", " +
           kColumns.substr(kColumns.find(',') + 2) + " FROM " + from + ".keys WHERE label = '" + label + "'";
}

struct Row {
    Attack attack;
    const char* operation;
    Op op;
    ZAVKM_ReturnCode expected;
};

const Attack kNothing{"(nothing: the owner's file as it is)", ""};
const Attack kTrigger{"a trigger planted to forge rows on the owner's next write",
                      "CREATE TRIGGER forge AFTER INSERT ON keys BEGIN "
                      "UPDATE keys SET flags = flags | 1; END"};
const Attack kLabelEdit{"a label changed", "UPDATE keys SET label = 'ca2' WHERE label = 'ca'"};
const Attack kTrustEdit{"a signer the owner turned off trusted again", "UPDATE keys SET flags = flags | 1 WHERE label = 'off'"};
const Attack kForged{"a trusted CA inserted with a copied hash and MAC",
                     "INSERT INTO keys(" + kColumns + ") SELECT 900, 'evil', 1, e.key_type, e.key_bits, "
                     "e.not_before, e.not_after, o.body_hash, o.mac, e.cert, e.spki, e.subject, NULL "
                     "FROM evil.keys e, keys o WHERE e.label = 'evil' AND o.label = 'other'"};
const Attack kCertSwap{"a certificate replaced",
                       "UPDATE keys SET cert = (SELECT cert FROM evil.keys WHERE label = 'evil') WHERE label = 'other'"};
const Attack kDeleted{"a signer deleted", "DELETE FROM keys WHERE label = 'other'"};
const Attack kReplayed{"an older row put back (trusted, before the owner turned it off)", put("s3", "late")};
const Attack kUndeleted{"a deleted row put back", put("s3", "temp")};

// A listing repeated in one process may be answered from the last one while the file is
// unchanged; a change by any connection in between must be seen.
enum class Keep { Handle, Pool };  // the handle stays open, or closes and its connection waits

using Between = std::function<void(World&, const std::string&)>;
Between attacked(const Attack& a) {
    return [sql = a.sql](World& w, const std::string& f) { run(w, f, sql); };
}
const Between kOwnerAdds = [](World& w, const std::string& f) {
    OpenDb db(f, kPw);
    EXPECT_EQ(ZAVKM_StoreCACert(db.h, w.evilLeaf.data(), size(w.evilLeaf), "new"), ZAVKM_OK);
};

// listedAround - the key and request labels, then `between`, then both again: the second list's
// code, or ZAVKM_ERR_VALIDATION when a list is sound but lacks the request "req" (or the second
// one the key mustHold).
Op listedAround(Keep keep, Between between, const char* mustHold = nullptr) {
    return [=](World& w, const std::string& f) {
        auto listed = [&](ZAVKM_KeyDbHandle h, const char* want) {
            ZAVKM_LabelList* keys = nullptr;
            ZAVKM_LabelList* requests = nullptr;
            ZAVKM_ReturnCode rc = ZAVKM_GetKeyDbLabelList(h, &keys);
            if (rc == ZAVKM_OK) rc = ZAVKM_GetReqKeyDbLabelList(h, &requests);
            bool held = want == nullptr;
            for (ZAVKM_LabelList* n = keys; n != nullptr && n->label != nullptr; n = n->next)
                held = held || std::string(n->label) == want;
            held = held && requests != nullptr && std::string(requests->label) == "req" && requests->next == nullptr;
            ZAVKM_FreeLabelList(keys);
            ZAVKM_FreeLabelList(requests);
            return rc == ZAVKM_OK && !held ? ZAVKM_ERR_VALIDATION : rc;
        };
        ZAVKM_KeyDbHandle h = 0;
        if (ZAVKM_ReturnCode rc = ZAVKM_OpenKeyDb(f.c_str(), kPw, &h); rc != ZAVKM_OK) return rc;
        ZAVKM_ReturnCode rc = listed(h, nullptr);
        if (rc == ZAVKM_OK && keep == Keep::Pool) {
            ZAVKM_CloseKeyDb(h);
            between(w, f);
            if ((rc = ZAVKM_OpenKeyDb(f.c_str(), kPw, &h)) != ZAVKM_OK) return rc;
        } else if (rc == ZAVKM_OK) {
            between(w, f);
        }
        if (rc == ZAVKM_OK) rc = listed(h, mustHold);
        ZAVKM_CloseKeyDb(h);
        return rc;
    };
}

const std::vector<Row>& rows() {
    static const std::vector<Row> table = {
        // The schema and the format.
        {kNothing, "a key item", keyItem("latekey"), ZAVKM_OK},
        {kNothing, "validation", validate(&World::caLeaf), ZAVKM_OK},
        {kNothing, "listing", listing(), ZAVKM_OK},
        {{"a downgrade to the format before row MACs", "PRAGMA user_version = 1"}, "open", openIt(), ZAVKM_ERR_DATABASE_INVALID_VERSION},
        {{"a downgrade to the previous format", "PRAGMA user_version = 2"}, "open", openIt(), ZAVKM_ERR_DATABASE_INVALID_VERSION},
        {kTrigger, "an ordinary write", addCa(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kTrigger, "open", openIt(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a view planted", "CREATE VIEW keys2 AS SELECT * FROM keys"}, "open", openIt(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"an index planted", "CREATE INDEX spy ON keys(cert)"}, "open", openIt(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a table planted", "CREATE TABLE extra(x)"}, "open", openIt(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"planner statistics planted", "ANALYZE"}, "open", openIt(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"an index of ours dropped", "DROP INDEX keys_label"}, "open", openIt(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        // One row edited in place.
        {kLabelEdit, "lookup of the old label", keyItem("ca"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kLabelEdit, "lookup of the new label", keyItem("ca2"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kLabelEdit, "the default key", defaultKey(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kTrustEdit, "lookup", keyItem("off"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kTrustEdit, "validation of a leaf it issued", validate(&World::offLeaf), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kTrustEdit, "a change of the row", setTrust("off"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kCertSwap, "lookup", keyItem("other"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kCertSwap, "validation of a leaf it would issue", validate(&World::evilLeaf), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kCertSwap, "partial listing with certificates", partialListing(1, true), ZAVKM_OK},
        {{"a certificate's subject changed", "UPDATE keys SET subject = X'3000' WHERE label = 'other'"},
         "lookup by public key", byPublicKey("other"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a sealed private key changed", "UPDATE keys SET private_key = substr(private_key, 1, 20) || zeroblob(length(private_key) - 20) WHERE label = 'ca'"},
         "lookup", keyItem("ca"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a request key relabelled", "UPDATE requests SET label = 'req2' WHERE label = 'req'"}, "lookup", requestItem("req"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a row's hash of its large columns changed", "UPDATE keys SET body_hash = zeroblob(32) WHERE label = 'other'"},
         "lookup", keyItem("other"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        // Rows put in.
        {kForged, "validation of a leaf it issued", validate(&World::evilLeaf), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kForged, "lookup", keyItem("evil"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kForged, "label list", labelList(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a row of another file moved in whole", put("evil", "evil", "901")}, "partial listing", partialListing(1), ZAVKM_OK},
        {{"a row of another file moved in whole", put("evil", "evil", "902")}, "export of everything", exportAll(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        // Rows taken out, moved.
        {kDeleted, "lookup", keyItem("other"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kDeleted, "label list", labelList(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kDeleted, "listing", listing(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kDeleted, "partial listing", partialListing(1), ZAVKM_OK},
        {kNothing, "label lists, a label edited by another connection, again (handle open)",
         listedAround(Keep::Handle, attacked(kLabelEdit)), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kNothing, "label lists, a signer deleted, again (connection pooled)",
         listedAround(Keep::Pool, attacked(kDeleted)), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kNothing, "label lists, the owner adds a CA on another handle, again",
         listedAround(Keep::Handle, kOwnerAdds, "new"), ZAVKM_OK},
        {kNothing, "label lists, the owner adds a CA on the pooled connection, again",
         listedAround(Keep::Pool, kOwnerAdds, "new"), ZAVKM_OK},
        {kDeleted, "lookup by public key", byPublicKey("other"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"an issuer deleted", "DELETE FROM keys WHERE label = 'ca'"}, "a key item's chain through it", keyItem("srv"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"the default key deleted", "DELETE FROM keys WHERE label = 'ca'"}, "the default key", defaultKey(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a request deleted", "DELETE FROM requests"}, "lookup", requestItem("req"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a row given another id", "UPDATE keys SET id = 700 WHERE label = 'other'"}, "lookup", keyItem("other"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"two rows' ids swapped", "CREATE TEMP TABLE ids AS SELECT label, id FROM keys WHERE label IN ('other', 'off'); "
                                   "UPDATE keys SET id = -id WHERE label IN ('other', 'off'); "
                                   "UPDATE keys SET id = (SELECT id FROM ids WHERE label = 'off') WHERE label = 'other'; "
                                   "UPDATE keys SET id = (SELECT id FROM ids WHERE label = 'other') WHERE label = 'off'"},
         "listing", listing(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        // Older rows replayed.
        {kReplayed, "lookup", keyItem("late"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kReplayed, "validation of a leaf it issued", validate(&World::evilLeaf), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kUndeleted, "lookup", keyItem("temp"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kUndeleted, "label list", labelList(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kUndeleted, "validation", validate(&World::caLeaf), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a row from before the password change put back", put("s1", "off")}, "lookup", keyItem("off"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a private key from before the password change put back", put("s2", "ca")}, "lookup", keyItem("ca"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a row deleted before the password change put back", put("s1", "gone")}, "lookup", keyItem("gone"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"an older node of the index put back", "DELETE FROM nodes; INSERT INTO nodes SELECT * FROM s2.nodes"},
         "lookup", keyItem("ca"), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"a node of the index changed", "UPDATE nodes SET data = zeroblob(length(data)) WHERE id = (SELECT max(id) FROM nodes)"},
         "listing", listing(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        // The meta row.
        {{"the password's lifetime set (an expired file made to open)", "UPDATE meta SET expire_seconds = 0, password_time = 0"}, "open", openIt(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"the KDF iterations lowered", "UPDATE meta SET kdf_iterations = 1000"}, "open", openIt(), ZAVKM_ERR_DATABASE_INVALID_PASSWORD},
        {{"the KDF salt changed", "UPDATE meta SET kdf_salt = zeroblob(16)"}, "open", openIt(), ZAVKM_ERR_DATABASE_INVALID_PASSWORD},
        {{"the generation set back", "UPDATE meta SET generation = 1"}, "open", openIt(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"the index root of an older copy", "UPDATE meta SET page_root = (SELECT page_root FROM s2.meta)"}, "open", openIt(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"the default key moved", "UPDATE meta SET default_key = (SELECT id FROM keys WHERE label = 'other')"}, "open", openIt(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"the meta row of before the password change put back", "DELETE FROM meta; INSERT INTO meta SELECT * FROM s2.meta"},
         "the old password and a key added after", keyItem("latekey", kOld), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {{"the meta row of before the password change put back", "DELETE FROM meta; INSERT INTO meta SELECT * FROM s2.meta"},
         "the old password and a key from before", keyItem("ca", kOld), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        // What the damage does elsewhere, and the way out.
        {kTrustEdit, "listing", listing(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kTrustEdit, "partial listing", partialListing(1), ZAVKM_OK},
        {kTrustEdit, "partial listing with certificates", partialListing(1, true), ZAVKM_OK},
        {kTrustEdit, "information (the generation)", info(), ZAVKM_OK},
        {kTrustEdit, "export of everything", exportAll(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kTrustEdit, "to a keyring", toKeyring(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kTrustEdit, "validation of another leaf", validate(&World::caLeaf), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kTrustEdit, "password change", changePassword(), ZAVKM_ERR_DATABASE_KEY_INTEGRITY},
        {kTrustEdit, "verify names it, repair removes it", verifiedAndRepaired("off", ZAVKM_DAMAGE_MAC), ZAVKM_OK},
        {kReplayed, "verify names it, repair removes it", verifiedAndRepaired("late", ZAVKM_DAMAGE_STALE), ZAVKM_OK},
        {kDeleted, "verify names it, repair removes it", verifiedAndRepaired(nullptr, ZAVKM_DAMAGE_MISSING), ZAVKM_OK},
        {kNothing, "verify finds nothing, repair removes nothing", [](World&, const std::string& f) {
             return on(f, kPw, [](ZAVKM_KeyDbHandle h) {
                 ZAVKM_Damage* damage = nullptr;
                 uint32_t count = 0, removed = 0;
                 ZAVKM_ReturnCode rc = ZAVKM_VerifyKeyDb(h, &damage, &count);
                 if (rc == ZAVKM_OK) rc = ZAVKM_RepairKeyDb(h, &removed);
                 return rc == ZAVKM_OK && (damage != nullptr || count + removed != 0) ? ZAVKM_ERR_VALIDATION : rc;
             });
         }, ZAVKM_OK},
    };
    return table;
}

TEST(Attack, EveryEditOfTheFileIsCaughtByTheOperationItWouldChange) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    World w;
    makeWorld(w);
    if (::testing::Test::HasFatalFailure()) return;
    int n = 0;
    for (const Row& row : rows()) {
        SCOPED_TRACE(std::string(row.attack.name) + " / " + row.operation);
        const std::string f = w.path("attacked" + std::to_string(n++) + ".kdb");
        zavkm::closeIdleConnections();
        writeBytes(f, file(w, "pristine.kdb"));
        if (!row.attack.sql.empty() && run(w, f, row.attack.sql) != SQLITE_OK) continue;
        EXPECT_EQ(row.op(w, f), row.expected);
    }
    ZAVKM_CleanAll();
}

// A rollback of the whole file to an earlier state of its own is the one edit that passes; the
// generation shows it.
TEST(Attack, AWholeFileRolledBackOpensWithAnOlderGeneration) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    World w;
    makeWorld(w);
    if (::testing::Test::HasFatalFailure()) return;
    int64_t now = 0, then = 0;
    ASSERT_EQ(info(&now)(w, w.path("pristine.kdb")), ZAVKM_OK);
    copyFile(w, "s2.kdb", "rolled.kdb");
    ASSERT_EQ(on(w.path("rolled.kdb"), kOld, [&](ZAVKM_KeyDbHandle h) {
                  ZAVKM_KeyDbInfo i{};
                  ZAVKM_ReturnCode rc = ZAVKM_GetKeyDbInfo(h, &i);
                  then = i.generation;
                  return rc;
              }), ZAVKM_OK);
    EXPECT_LT(then, now);
    ZAVKM_CleanAll();
}

}  // namespace
}  // namespace zavkm_test
