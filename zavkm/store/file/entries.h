// entries.h - the rows of a key database: keys (personal keys and signer certificates, one
// label space) and request keys (another label space).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "keydb.h"

namespace zavkm {

// KeyRow - a personal key (privateKey sealed, non-empty) or a signer certificate (empty).
struct KeyRow {
    int64_t id = 0;
    std::string label;
    Bytes cert;
    Bytes spki;
    Bytes subject;  // DER of the certificate's subject, for finding issuers
    int32_t keyType = 0;
    int32_t keyBits = 0;
    Bytes privateKey;
    bool isDefault = false;
    bool trusted = false;
};

// RequestRow - a key pair waiting for its certificate, with its PKCS#10 request.
struct RequestRow {
    int64_t id = 0;
    std::string label;
    Bytes request;
    Bytes spki;
    int32_t keyType = 0;
    int32_t keyBits = 0;
    Bytes privateKey;
};

// Each lookup returns ZAVKM_OK and fills out (found true/false), or a database error code.
Rc findKey(sqlite3* db, const std::string& label, std::optional<KeyRow>& out);
Rc findDefaultKey(sqlite3* db, std::optional<KeyRow>& out);
Rc findKeysBySpki(sqlite3* db, const Bytes& spki, std::vector<KeyRow>& out);
Rc findKeysBySubject(sqlite3* db, const Bytes& subject, std::vector<KeyRow>& out);
Rc allKeys(sqlite3* db, std::vector<KeyRow>& out);
Rc findRequest(sqlite3* db, const std::string& label, std::optional<RequestRow>& out);
Rc findRequestsBySpki(sqlite3* db, const Bytes& spki, std::vector<RequestRow>& out);

// EntryRow - what a listing shows of an entry; kind 1 personal, 2 signer, 3 request.
struct EntryRow {
    std::string label;
    int32_t kind = 0;
    int32_t keyType = 0;
    int32_t keyBits = 0;
    bool isDefault = false;
    bool trusted = false;
    int64_t notAfter = 0;  // of the certificate; 0 for a request
};
// listEntries - every key, then every request, in one read transaction's two queries.
Rc listEntries(sqlite3* db, std::vector<EntryRow>& out);

Rc keyLabels(sqlite3* db, std::vector<std::string>& out);
Rc requestLabels(sqlite3* db, std::vector<std::string>& out);

// insertKey / insertRequest - ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL when the label is taken.
// A default key clears the flag of every other key. Call inside a WriteTransaction.
Rc insertKey(sqlite3* db, const KeyRow& row);
Rc insertRequest(sqlite3* db, const RequestRow& row);

// The changes: ZAVKM_ERR_KEY_GET_BY_LABEL when the label (or id) is not there.
Rc deleteKey(sqlite3* db, const std::string& label);
Rc deleteRequest(sqlite3* db, const std::string& label);
Rc setDefaultKey(sqlite3* db, const std::string& label);
Rc setTrusted(sqlite3* db, const std::string& label, bool trusted);
Rc replaceCertificate(sqlite3* db, int64_t id, const Bytes& cert, const Bytes& subject);
Rc updateRequest(sqlite3* db, int64_t id, const Bytes& request);

// checkRequestLabelFree - a new request key needs a label that neither a request key nor a
// personal key holds, or its certificate could never be received under it:
// ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL otherwise.
Rc checkRequestLabelFree(sqlite3* db, const std::string& label);

// checkLabel - a new label is canonical text of 1 to 255 bytes without control characters
// (checkLabelText, utf.h): ZAVKM_ERR_PARAMETER otherwise.
Rc checkLabel(const char* label) noexcept;

}  // namespace zavkm
