/*
 * zavkm_ext.h - operations of the key-management library beyond those of zavkm.h, for the
 * tolvik command and other C callers; the JNI bridge does not use them.
 *
 * ZAVKM_ListEntries lists every entry of an open key database in one read: no private key is
 * unsealed, no certificate decoded in full and no chain built, so a listing costs microseconds
 * per entry. Entries come in the order of the label lists: keys, then requests. On a token
 * handle it gives ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT.
 *
 * ZAVKM_GetPasswordExpiry gives when the password of an open key database expires, in seconds
 * since 1970 (0: it never does), as the database held it when the handle was opened.
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
    int32_t keyType;  /* as a key item's shortValue1: 1 RSA, 2 EC */
    int32_t keyBits;
    uint8_t isDefault;
    uint8_t trusted;
    int64_t notAfter; /* the certificate's notAfter in seconds since 1970, 0 for a request */
} ZAVKM_Entry;

#define ZAVKM_EXT_OPERATIONS(X)                                                                   \
    X(ZAVKM_ReturnCode, ZAVKM_ListEntries,                                                        \
      (ZAVKM_KeyDbHandle handle, ZAVKM_Entry** entries, uint32_t* count),                         \
      (handle, entries, count))                                                                   \
    X(void, ZAVKM_FreeEntries, (ZAVKM_Entry* entries, uint32_t count), (entries, count))         \
    X(ZAVKM_ReturnCode, ZAVKM_GetPasswordExpiry, (ZAVKM_KeyDbHandle handle, int64_t* expiresAt),  \
      (handle, expiresAt))

#define ZAVKM_EXT_DECLARE_(ret, name, params, args) ZAVKM_API ret name params ZAVKM_NOEXCEPT;
ZAVKM_EXT_OPERATIONS(ZAVKM_EXT_DECLARE_)
#undef ZAVKM_EXT_DECLARE_

#ifdef __cplusplus
}
#endif

#endif /* ZAVKM_EXT_H */
