// rowmac.cpp - the MAC of key database rows, as an SQL function and triggers.
#include "rowmac.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <memory>
#include <string>
#include <utility>

#include "kdf.h"
#include "ossl.h"
#include "sql.h"

namespace zavkm {
namespace {

// MacState - an HMAC-SHA256 context keyed once; each row's MAC starts it again with that key
// (a connection serves one thread at a time).
struct MacState {
    EVP_MAC_CTX* keyed = nullptr;
    ~MacState() { EVP_MAC_CTX_free(keyed); }
};

void freeState(void* p) { delete static_cast<MacState*>(p); }

void putLength(EVP_MAC_CTX* ctx, uint8_t type, uint64_t n) {
    uint8_t head[9] = {type};
    for (int i = 0; i < 8; ++i) head[1 + i] = static_cast<uint8_t>(n >> (56 - 8 * i));
    EVP_MAC_update(ctx, head, sizeof head);
}

// rowMac - zavkm_rowmac(...): every argument as its type, its length and its bytes.
void rowMac(sqlite3_context* sql, int argc, sqlite3_value** argv) {
    auto* state = static_cast<MacState*>(sqlite3_user_data(sql));
    EVP_MAC_CTX* ctx = state->keyed;
    if (EVP_MAC_init(ctx, nullptr, 0, nullptr) != 1) {
        clearSslErrors();
        sqlite3_result_error(sql, "row MAC failed", -1);
        return;
    }
    for (int i = 0; i < argc; ++i) {
        sqlite3_value* v = argv[i];
        switch (sqlite3_value_type(v)) {
            case SQLITE_NULL:
                putLength(ctx, 0, 0);
                break;
            case SQLITE_INTEGER:
                putLength(ctx, 1, static_cast<uint64_t>(sqlite3_value_int64(v)));
                break;
            default: {  // text and blobs alike, by their bytes
                const void* p = sqlite3_value_blob(v);
                const int n = sqlite3_value_bytes(v);
                putLength(ctx, 2, static_cast<uint64_t>(n));
                if (n > 0) EVP_MAC_update(ctx, static_cast<const uint8_t*>(p), static_cast<size_t>(n));
            }
        }
    }
    uint8_t mac[32];
    size_t length = 0;
    if (EVP_MAC_final(ctx, mac, &length, sizeof mac) != 1) {
        clearSslErrors();
        sqlite3_result_error(sql, "row MAC failed", -1);
        return;
    }
    sqlite3_result_blob(sql, mac, static_cast<int>(length), SQLITE_TRANSIENT);
}

constexpr char kKeyColumns[] =
    "label, cert, spki, subject, key_type, key_bits, private_key, is_default, trusted";
constexpr char kRequestColumns[] = "label, request, spki, key_type, key_bits, private_key";

std::string macOver(const char* table, const std::string& columns, const std::string& prefix) {
    std::string sql = std::string("zavkm_rowmac('") + table + "'";
    for (size_t at = 0; at < columns.size();) {
        size_t end = columns.find(", ", at);
        if (end == std::string::npos) end = columns.size();
        sql += ", " + prefix + columns.substr(at, end - at);
        at = end + 2;
    }
    return sql + ")";
}

// triggers - keep the mac of every row inserted or changed through an armed connection current.
std::string triggers() {
    std::string sql;
    for (auto [table, columns] : {std::pair{"keys", kKeyColumns}, std::pair{"requests", kRequestColumns}}) {
        const std::string body = std::string(" BEGIN UPDATE ") + table + " SET mac = " +
                                 macOver(table, columns, "NEW.") + " WHERE id = NEW.id; END;";
        sql += std::string("CREATE TEMP TRIGGER IF NOT EXISTS ") + table + "_mac_insert AFTER INSERT ON main." +
               table + body + "CREATE TEMP TRIGGER IF NOT EXISTS " + table + "_mac_update AFTER UPDATE OF " +
               columns + " ON main." + table + body;
    }
    return sql;
}

}  // namespace

std::string keyRowMac(const std::string& prefix) { return macOver("keys", kKeyColumns, prefix); }
std::string requestRowMac(const std::string& prefix) {
    return macOver("requests", kRequestColumns, prefix);
}

Rc armRowMacs(sqlite3* db, const SecretBytes& dataKey) noexcept {
    return guarded([&]() -> Rc {
        SecretBytes key;
        if (Rc rc = hkdfKey(dataKey, "zavkm row mac v1", key); rc != ZAVKM_OK) return rc;
        auto state = std::make_unique<MacState>();
        EVP_MAC* hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
        if (hmac != nullptr) state->keyed = EVP_MAC_CTX_new(hmac);
        EVP_MAC_free(hmac);
        char digest[] = "SHA256";
        OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                               OSSL_PARAM_construct_end()};
        if (state->keyed == nullptr || EVP_MAC_init(state->keyed, key.data(), key.size(), params) != 1)
            return sslError(ZAVKM_ERR_CRYPTO);
        // The previous key of a pooled connection is released by SQLite when this one replaces it.
        int code = sqlite3_create_function_v2(db, "zavkm_rowmac", -1, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                                              state.get(), rowMac, nullptr, nullptr, freeState);
        if (code != SQLITE_OK) return sqlRc(db, code, ZAVKM_ERR_DATABASE_OPEN);
        state.release();
        code = exec(db, triggers().c_str());
        return code == SQLITE_OK ? ZAVKM_OK : sqlRc(db, code, ZAVKM_ERR_DATABASE_OPEN);
    });
}

Rc sealAllRows(sqlite3* db) noexcept {
    return guarded([&]() -> Rc {
        const std::string sql = "UPDATE keys SET mac = " + keyRowMac() +
                                "; UPDATE requests SET mac = " + requestRowMac() + ";";
        int code = exec(db, sql.c_str());
        return code == SQLITE_OK ? ZAVKM_OK : sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
    });
}

}  // namespace zavkm
