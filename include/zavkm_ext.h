/*
 * zavkm_ext.h - operations of the key-management library beyond those of zavkm.h, for the
 * tolvik command and other C callers; the JNI bridge does not use them.
 *
 * ZAVKM_ListEntries lists every entry of an open key database in one read: no private key is
 * unsealed, no certificate decoded in full and no chain built, so a listing costs microseconds
 * per entry. Entries come in the order of the label lists: keys, then requests. A damaged row
 * makes it answer ZAVKM_ERR_DATABASE_KEY_INTEGRITY. On a token handle it gives
 * ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT.
 *
 * ZAVKM_ListEntriesX lists the same way, but lists what is sound when rows are damaged and
 * counts the damaged ones in *damaged (0 for a whole listing): a caller must show that the
 * listing is partial. flags: ZAVKM_LIST_DER. On a token or platform-store handle it lists the
 * token's certificates (personal when the token holds their private key; default and trusted as
 * the token's flags object marks them, else trusted as the token marks its anchors) and request
 * keys, with exact times; rowId is 0 there.
 *
 * ZAVKM_GetPasswordExpiry gives when the password of an open key database expires, in seconds
 * since 1970 (0: it never does), as the database held it when the handle was opened.
 *
 * ZAVKM_GetKeyDbInfo fills *info for an open key database.
 *
 * ZAVKM_VerifyKeyDb checks every row and the file's index of them, and lists each damaged row
 * (a null list and 0 when the file is sound); release it with ZAVKM_FreeDamage.
 * ZAVKM_RepairKeyDb removes every damaged row and vouches for the rest anew, in one transaction;
 * *removed is how many rows went.
 *
 * ZAVKM_RenameEntry gives a personal key, signer certificate or request key a new label in its
 * own label space: ZAVKM_ERR_KEY_GET_BY_LABEL when label is not there,
 * ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL when newLabel is taken, ZAVKM_ERR_PARAMETER for a
 * label that is not valid text.
 *
 * ZAVKM_WriteFile writes data to fileName the way the library writes every output: a regular
 * file (or a new name) is replaced whole through a temporary file beside it (its mode kept when
 * it existed); a FIFO or character device is written straight through; a symbolic link is
 * followed only when it belongs to the caller or to root; the open key databases, their
 * companions and anything else are refused. flags: ZAVKM_WRITE_...
 *
 * ZAVKM_IssueCertX issues a v3 certificate for a PKCS#10 request as ZAVKM_IssueCertSig does, on
 * key databases and tokens alike, and hands it back as DER in *cert (release it with
 * ZAVKM_Free). extensions (DER Extensions, null with length 0 for none) replace those of the
 * same type the library adds (basicConstraints CA:FALSE, the key identifiers, the request's
 * subject alternative names). The issuer must be a CA (basicConstraints CA:TRUE, keyCertSign
 * when it has a key usage) and may issue a CA certificate only within its path length:
 * ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS otherwise. Extensions null with a length:
 * ZAVKM_ERR_PARAMETER; not DER: ZAVKM_ERR_ASN; one type twice:
 * ZAVKM_ERR_VALIDATION_DUPLICATE_EXTENSIONS.
 *
 * ZAVKM_ValidateCertChainX validates the first certificate of PEM, DER or PKCS#7 data as
 * ZAVKM_ValidateCertChain does; the other certificates of the data may stand in the chain as
 * intermediates but are never trust anchors. Data that holds no certificate gives ZAVKM_ERR_ASN.
 */
#ifndef ZAVKM_EXT_H
#define ZAVKM_EXT_H

#include "zavkm.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ZAVKM_ENTRY_PERSONAL = 1, /* a key with its certificate and private key */
    ZAVKM_ENTRY_SIGNER = 2,   /* a certificate alone */
    ZAVKM_ENTRY_REQUEST = 3   /* a key pair waiting for its certificate */
};

typedef struct ZAVKM_Entry {
    char* label;      /* UTF-8 */
    int32_t kind;     /* ZAVKM_ENTRY_... */
    int32_t keyType;  /* as a key item's shortValue1: 1 RSA, 2 EC, 3 Ed25519, 4 Ed448 */
    int32_t keyBits;
    uint8_t isDefault;
    uint8_t trusted;
    int64_t notAfter; /* the certificate's notAfter in seconds since 1970, 0 for a request */
    int64_t notBefore; /* the certificate's notBefore, 0 for a request */
    int64_t rowId;     /* the entry's row in its table: stable while the entry lives */
    uint8_t* der;      /* with ZAVKM_LIST_DER: the certificate (the request for a request key) */
    uint32_t derLength;
} ZAVKM_Entry;

/* Flags of ZAVKM_ListEntriesX. */
enum {
    ZAVKM_LIST_DER = 1 /* fill der/derLength */
};

/* Why a row of a key database is damaged (ZAVKM_VerifyKeyDb). */
enum {
    ZAVKM_DAMAGE_MAC = 1,      /* the row fails its MAC: changed or forged */
    ZAVKM_DAMAGE_STALE = 2,    /* the row is sound in itself but the file does not vouch for it:
                                  inserted, moved or replayed */
    ZAVKM_DAMAGE_MISSING = 3,  /* the file vouches for a row that is gone */
    ZAVKM_DAMAGE_INDEX = 4     /* the file's own index of its rows is damaged */
};

typedef struct ZAVKM_Damage {
    char* label;     /* the label as stored, null when unknown (a missing row) */
    int32_t kind;    /* ZAVKM_ENTRY_..., 0 when unknown */
    int32_t reason;  /* ZAVKM_DAMAGE_... */
    int64_t rowId;   /* 0 when unknown */
} ZAVKM_Damage;

/* What ZAVKM_GetKeyDbInfo tells of an open key database. */
typedef struct ZAVKM_KeyDbInfo {
    int64_t generation;      /* counts every committed change; grows by one a change */
    int64_t passwordTime;    /* when the password was set, seconds since 1970 */
    int64_t passwordExpiry;  /* when it expires, 0: never */
    uint32_t kdfIterations;
    uint32_t entries;        /* personal keys, signers and requests */
    uint8_t fileId[16];      /* random, fixed when the file is created */
} ZAVKM_KeyDbInfo;

/* Flags of ZAVKM_WriteFile. */
enum {
    ZAVKM_WRITE_PRIVATE = 1,    /* a new file gets mode 0600 (else 0644 before the umask) */
    ZAVKM_WRITE_NO_REPLACE = 2  /* an existing file is refused with ZAVKM_ERR_DATABASE_ALREADY_EXISTS */
};

#define ZAVKM_EXT_OPERATIONS(X)                                                                   \
    X(ZAVKM_ReturnCode, ZAVKM_ListEntries,                                                        \
      (ZAVKM_KeyDbHandle handle, ZAVKM_Entry** entries, uint32_t* count),                         \
      (handle, entries, count))                                                                   \
    X(ZAVKM_ReturnCode, ZAVKM_ListEntriesX,                                                       \
      (ZAVKM_KeyDbHandle handle, uint32_t flags, ZAVKM_Entry** entries, uint32_t* count,          \
       uint32_t* damaged),                                                                        \
      (handle, flags, entries, count, damaged))                                                   \
    X(void, ZAVKM_FreeEntries, (ZAVKM_Entry* entries, uint32_t count), (entries, count))         \
    X(ZAVKM_ReturnCode, ZAVKM_GetPasswordExpiry, (ZAVKM_KeyDbHandle handle, int64_t* expiresAt),  \
      (handle, expiresAt))                                                                        \
    X(ZAVKM_ReturnCode, ZAVKM_GetKeyDbInfo, (ZAVKM_KeyDbHandle handle, ZAVKM_KeyDbInfo* info),    \
      (handle, info))                                                                             \
    X(ZAVKM_ReturnCode, ZAVKM_VerifyKeyDb,                                                        \
      (ZAVKM_KeyDbHandle handle, ZAVKM_Damage** damage, uint32_t* count),                         \
      (handle, damage, count))                                                                    \
    X(void, ZAVKM_FreeDamage, (ZAVKM_Damage* damage, uint32_t count), (damage, count))           \
    X(ZAVKM_ReturnCode, ZAVKM_RepairKeyDb, (ZAVKM_KeyDbHandle handle, uint32_t* removed),         \
      (handle, removed))                                                                          \
    X(ZAVKM_ReturnCode, ZAVKM_RenameEntry,                                                        \
      (ZAVKM_KeyDbHandle handle, const char* label, const char* newLabel),                        \
      (handle, label, newLabel))                                                                  \
    X(ZAVKM_ReturnCode, ZAVKM_WriteFile,                                                          \
      (const char* fileName, const uint8_t* data, uint32_t length, uint32_t flags),               \
      (fileName, data, length, flags))                                                            \
    X(ZAVKM_ReturnCode, ZAVKM_IssueCertX,                                                         \
      (ZAVKM_KeyDbHandle handle, const uint8_t* request, uint32_t requestLength,                  \
       const char* issuerLabel, const char* serialNumber, int32_t validityDays,                   \
       int32_t signatureAlgorithm, const uint8_t* extensions, uint32_t extensionsLength,          \
       uint8_t** cert, uint32_t* certLength),                                                     \
      (handle, request, requestLength, issuerLabel, serialNumber, validityDays,                   \
       signatureAlgorithm, extensions, extensionsLength, cert, certLength))                       \
    X(ZAVKM_ReturnCode, ZAVKM_ValidateCertChainX,                                                 \
      (ZAVKM_KeyDbHandle handle, const uint8_t* certs, uint32_t length, uint8_t* isValid),        \
      (handle, certs, length, isValid))

#define ZAVKM_EXT_DECLARE_(ret, name, params, args) ZAVKM_API ret name params ZAVKM_NOEXCEPT;
ZAVKM_EXT_OPERATIONS(ZAVKM_EXT_DECLARE_)
#undef ZAVKM_EXT_DECLARE_

#ifdef __cplusplus
}
#endif

#endif /* ZAVKM_EXT_H */
