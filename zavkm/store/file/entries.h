// entries.h - the rows of a key database: keys (personal keys and signer certificates, one
// label space) and request keys (another label space), read and changed in a checked view.
//
// Every row read is checked before it is used: its large columns against their hash, its head
// against the MAC its page lists, the page against the index. A lookup by label, public key or
// subject learns from the index every row it must find; a row missing, changed, replayed from an
// older state or put in behind the library answers ZAVKM_ERR_DATABASE_KEY_INTEGRITY, never a
// partial or forged result. A label the index does not list is truly absent.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <openssl/x509.h>

#include "store/file/index.h"
#include "store/file/rowcode.h"

namespace zavkm {

// Each lookup returns ZAVKM_OK and fills out (found or not), ZAVKM_ERR_DATABASE_KEY_INTEGRITY
// when a row it must read is damaged, or a database error code.
Rc findKey(View& v, const std::string& label, std::optional<KeyRow>& out);
Rc findDefaultKey(View& v, std::optional<KeyRow>& out);
Rc findKeysBySpki(View& v, const Bytes& spki, std::vector<KeyRow>& out);
Rc findKeysBySubject(View& v, const Bytes& subject, std::vector<KeyRow>& out);
Rc findRequest(View& v, const std::string& label, std::optional<RequestRow>& out);
Rc findRequestsBySpki(View& v, const Bytes& spki, std::vector<RequestRow>& out);
// allKeys - every key row in the order they were added; ZAVKM_ERR_DATABASE_KEY_INTEGRITY when any
// key row is damaged or missing (a whole answer or none).
Rc allKeys(View& v, std::vector<KeyRow>& out);
// allRequests - every request row, the same way.
Rc allRequests(View& v, std::vector<RequestRow>& out);

// EntryRow - what a listing shows of an entry; kind 1 personal, 2 signer, 3 request.
struct EntryRow {
    std::string label;
    int32_t kind = 0;
    int32_t keyType = 0;
    int32_t keyBits = 0;
    bool isDefault = false;
    bool trusted = false;
    int64_t notBefore = 0;  // of the certificate; 0 for a request
    int64_t notAfter = 0;
    int64_t rowId = 0;
    Bytes der;  // with withDer: the certificate, or the request
};
// EntrySink - where a listing goes as it is read: start(n) first, n at least the number of rows
// to come, then take(row) for each one.
struct EntrySink {
    std::function<void(size_t)> start;
    std::function<void(EntryRow&&)> take;
};
// listEntries - every sound key, then every sound request, in the order they were added; the
// damaged and missing rows are counted in damaged, not listed.
Rc listEntries(View& v, bool withDer, const EntrySink& out, uint32_t& damaged);

// keyLabels / requestLabels - the labels of a label space in the order they were added;
// ZAVKM_ERR_DATABASE_KEY_INTEGRITY when any row of it is damaged or missing.
Rc keyLabels(View& v, std::vector<std::string>& out);
Rc requestLabels(View& v, std::vector<std::string>& out);

// The changes, in a write view; commitChange makes them the file's. insertKey / insertRequest
// give the row its id; ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL when the label is taken. cert,
// when given, is row.cert decoded (spares decoding it again). A default
// key becomes the file's only default. A change that would touch a damaged row or page answers
// ZAVKM_ERR_DATABASE_KEY_INTEGRITY rather than seal it anew; ZAVKM_ERR_KEY_GET_BY_LABEL when the
// label is not there.
Rc insertKey(View& v, KeyRow& row, X509* cert = nullptr);
Rc insertRequest(View& v, RequestRow& row);
Rc deleteKey(View& v, const std::string& label);
Rc deleteRequest(View& v, const std::string& label);
Rc setDefaultKey(View& v, const std::string& label);
Rc setTrusted(View& v, const std::string& label, bool trusted);
// replaceCertificate - row (as found in v) with another certificate for its key.
Rc replaceCertificate(View& v, const KeyRow& row, const Bytes& cert, const Bytes& subject);
// updateRequest - row (as found in v) with another request for its key.
Rc updateRequest(View& v, const RequestRow& row, const Bytes& request);
// renameEntry - a key or request key under a new label in its own label space.
Rc renameEntry(View& v, const std::string& label, const std::string& newLabel);
// commitChange - seals the pages the changes touched, then writes the index and meta and
// commits (View::finish).
Rc commitChange(View& v);

// readView / writeView - fn(View&) in a read view of kdb, or in a write view committed
// (commitChange) when fn succeeds; a view that cannot start gives its code.
template <class Fn>
Rc readView(KeyDb& kdb, Fn&& fn) {
    View v(kdb, false);
    if (v.status() != ZAVKM_OK) return v.status();
    return fn(v);
}
template <class Fn>
Rc writeView(KeyDb& kdb, Fn&& fn) {
    View v(kdb, true);
    if (v.status() != ZAVKM_OK) return v.status();
    if (Rc rc = fn(v); rc != ZAVKM_OK) return rc;
    return commitChange(v);
}

// checkRequestLabelFree - a new request key needs a label that neither a request key nor a
// personal key holds, or its certificate could never be received under it:
// ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL otherwise.
Rc checkRequestLabelFree(View& v, const std::string& label);

// checkLabel - a new label is canonical text of 1 to 255 bytes without control characters
// (checkLabelText, utf.h): ZAVKM_ERR_PARAMETER otherwise.
Rc checkLabel(const char* label) noexcept;

// Damage - one damaged row (ZAVKM_DAMAGE_... of zavkm_ext.h as reason).
struct Damage {
    std::string label;  // empty when unknown
    int32_t kind = 0;   // 1 personal, 2 signer, 3 request, 0 unknown
    int32_t reason = 0;
    int64_t rowId = 0;
};
// verifyKeyDb - every row, the index and both trees checked; each damaged row or part of the
// index in out (empty for a sound file).
Rc verifyKeyDb(View& v, std::vector<Damage>& out);

// Rebuild - how rebuild() rewrites a file's rows and index.
struct Rebuild {
    KeyDb* to = nullptr;       // new secrets: every private key, MAC and tag under them
    bool dropDamaged = false;  // remove damaged rows (else they are refused)
    uint32_t removed = 0;      // out: rows removed, and missing rows forgotten
};
// rebuild - every sound row kept (re-sealed under plan.to when given) and the index built anew
// from them, in the write view v; the caller finishes v. Damaged rows are refused with
// ZAVKM_ERR_DATABASE_KEY_INTEGRITY, or removed with dropDamaged: a row is kept when the index
// vouches for it, or, where the index itself is damaged, when it carries a valid MAC of this
// file (of two such rows with one label, the later one).
Rc rebuild(View& v, Rebuild& plan);

}  // namespace zavkm
