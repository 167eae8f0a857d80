/*
 * zavkm.h - the C ABI of the key-management library libzav7km_gcc295.so.
 *
 * This is the only declaration of that ABI: the JNI bridge, the library itself and the
 * recording test fake all include it. Every integer field is 32 bits wide; byte data is a
 * pointer followed by an unsigned 32-bit length. On 32-bit x86 every record offset is fixed
 * (pinned by tests/layout/layout_m32.cpp); on x86-64 pointers widen and the field order stays.
 *
 * Memory that crosses the ABI is malloc-compatible: ZAVKM_Malloc, ZAVKM_Realloc and ZAVKM_Free
 * are malloc, realloc and free, and every release operation accepts nodes and texts that the
 * caller made with malloc or ZAVKM_Strdup.
 */
#ifndef ZAVKM_H
#define ZAVKM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ZAVKM_NOEXCEPT noexcept
extern "C" {
#else
#define ZAVKM_NOEXCEPT
#endif

#define ZAVKM_API __attribute__((visibility("default")))

/* A return code: 0 is success, 1 to 151 are the named errors below. */
typedef int32_t ZAVKM_ReturnCode;

/* An open key store; 0 names none. It never outlives the call of the client that opened it. */
typedef uint32_t ZAVKM_KeyDbHandle;

/* The named return codes, in code order: X(code, name). */
#define ZAVKM_RETURN_CODES(X)                                                                     \
    X(1, ZAVKM_ERR_UNKNOWN)                                                                       \
    X(2, ZAVKM_ERR_ASN)                                                                           \
    X(3, ZAVKM_ERR_ASN_INITIALIZATION)                                                            \
    X(4, ZAVKM_ERR_ASN_PARAMETER)                                                                 \
    X(5, ZAVKM_ERR_DATABASE)                                                                      \
    X(6, ZAVKM_ERR_DATABASE_OPEN)                                                                 \
    X(7, ZAVKM_ERR_DATABASE_RE_OPEN)                                                              \
    X(8, ZAVKM_ERR_DATABASE_CREATE)                                                               \
    X(9, ZAVKM_ERR_DATABASE_ALREADY_EXISTS)                                                       \
    X(10, ZAVKM_ERR_DATABASE_DELETE)                                                              \
    X(11, ZAVKM_ERR_DATABASE_NOT_OPENED)                                                          \
    X(12, ZAVKM_ERR_DATABASE_READ)                                                                \
    X(13, ZAVKM_ERR_DATABASE_WRITE)                                                               \
    X(14, ZAVKM_ERR_DATABASE_VALIDATION)                                                          \
    X(15, ZAVKM_ERR_DATABASE_INVALID_VERSION)                                                     \
    X(16, ZAVKM_ERR_DATABASE_INVALID_PASSWORD)                                                    \
    X(17, ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE)                                                   \
    X(18, ZAVKM_ERR_DATABASE_CORRUPTION)                                                          \
    X(19, ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION)                                                 \
    X(20, ZAVKM_ERR_DATABASE_KEY_INTEGRITY)                                                       \
    X(21, ZAVKM_ERR_DATABASE_DUPLICATE_KEY)                                                       \
    X(22, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_RECORD_ID)                                             \
    X(23, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL)                                                 \
    X(24, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_SIGNATURE)                                             \
    X(25, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_UNSIGNED_CERTIFICATE)                                  \
    X(26, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_ISSUER_AND_SERIAL_NUMBER)                              \
    X(27, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_SUBJECT_PUBLIC_KEY_INFO)                               \
    X(28, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_UNSIGNED_CRL)                                          \
    X(29, ZAVKM_ERR_DATABASE_DUPLICATE_LABEL)                                                     \
    X(30, ZAVKM_ERR_DATABASE_PASSWORD_ENCRYPTION)                                                 \
    X(31, ZAVKM_ERR_DATABASE_LDAP)                                                                \
    X(32, ZAVKM_ERR_CRYPTO)                                                                       \
    X(33, ZAVKM_ERR_CRYPTO_ENGINE)                                                                \
    X(34, ZAVKM_ERR_CRYPTO_ALGORITHM)                                                             \
    X(35, ZAVKM_ERR_CRYPTO_SIGN)                                                                  \
    X(36, ZAVKM_ERR_CRYPTO_VERIFY)                                                                \
    X(37, ZAVKM_ERR_CRYPTO_DIGEST)                                                                \
    X(38, ZAVKM_ERR_CRYPTO_PARAMETER)                                                             \
    X(39, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM)                                                 \
    X(40, ZAVKM_ERR_CRYPTO_INPUT_GREATER_THAN_MODULUS)                                            \
    X(41, ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE)                                              \
    X(42, ZAVKM_ERR_VALIDATION)                                                                   \
    X(43, ZAVKM_ERR_VALIDATION_KEY)                                                               \
    X(44, ZAVKM_ERR_VALIDATION_DUPLICATE_EXTENSIONS)                                              \
    X(45, ZAVKM_ERR_VALIDATION_KEY_WRONG_VERSION)                                                 \
    X(46, ZAVKM_ERR_VALIDATION_KEY_EXTENSIONS_REQUIRED)                                           \
    X(47, ZAVKM_ERR_VALIDATION_KEY_VALIDITY)                                                      \
    X(48, ZAVKM_ERR_VALIDATION_KEY_VALIDITY_PERIOD)                                               \
    X(49, ZAVKM_ERR_VALIDATION_KEY_VALIDITY_PRIVATE_KEY_USAGE)                                    \
    X(50, ZAVKM_ERR_VALIDATION_KEY_ISSUER_NOT_FOUND)                                              \
    X(51, ZAVKM_ERR_VALIDATION_KEY_MISSING_REQUIRED_EXTENSIONS)                                   \
    X(52, ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS)                                             \
    X(53, ZAVKM_ERR_VALIDATION_KEY_SIGNATURE)                                                     \
    X(54, ZAVKM_ERR_VALIDATION_KEY_ROOT_KEY_NOT_TRUSTED)                                          \
    X(55, ZAVKM_ERR_VALIDATION_KEY_IS_REVOKED)                                                    \
    X(56, ZAVKM_ERR_VALIDATION_KEY_AUTHORITY_KEY_IDENTIFIER)                                      \
    X(57, ZAVKM_ERR_VALIDATION_KEY_PRIVATE_KEY_USAGE_PERIOD)                                      \
    X(58, ZAVKM_ERR_VALIDATION_SUBJECT_ALTERNATIVE_NAME)                                          \
    X(59, ZAVKM_ERR_VALIDATION_ISSUER_ALTERNATIVE_NAME)                                           \
    X(60, ZAVKM_ERR_VALIDATION_KEY_USAGE)                                                         \
    X(61, ZAVKM_ERR_VALIDATION_KEY_UNKNOWN_CRITICAL_EXTENSION)                                    \
    X(62, ZAVKM_ERR_VALIDATION_KEY_PAIR)                                                          \
    X(63, ZAVKM_ERR_VALIDATION_CRL)                                                               \
    X(64, ZAVKM_ERR_MUTEX)                                                                        \
    X(65, ZAVKM_ERR_PARAMETER)                                                                    \
    X(66, ZAVKM_ERR_NULL_PARAMETER)                                                               \
    X(67, ZAVKM_ERR_NUMBER_SIZE)                                                                  \
    X(68, ZAVKM_ERR_OLD_PASSWORD)                                                                 \
    X(69, ZAVKM_ERR_NEW_PASSWORD)                                                                 \
    X(70, ZAVKM_ERR_PASSWORD_EXPIRATION_TIME)                                                     \
    X(71, ZAVKM_ERR_THREAD)                                                                       \
    X(72, ZAVKM_ERR_THREAD_CREATE)                                                                \
    X(73, ZAVKM_ERR_THREAD_WAIT_FOR_EXIT)                                                         \
    X(74, ZAVKM_ERR_IO)                                                                           \
    X(75, ZAVKM_ERR_LOAD)                                                                         \
    X(76, ZAVKM_ERR_PKCS11)                                                                       \
    X(77, ZAVKM_ERR_NOT_INITIALIZED)                                                              \
    X(78, ZAVKM_ERR_DB_TABLE_CORRUPTED)                                                           \
    X(79, ZAVKM_ERR_MEMORY_ALLOCATE)                                                              \
    X(80, ZAVKM_ERR_UNSUPPORTED_OPTION)                                                           \
    X(81, ZAVKM_ERR_GET_TIME)                                                                     \
    X(82, ZAVKM_ERR_CREATE_MUTEX)                                                                 \
    X(83, ZAVKM_ERR_CMDCAT_OPEN)                                                                  \
    X(84, ZAVKM_ERR_ERRCAT_OPEN)                                                                  \
    X(85, ZAVKM_ERR_FILENAME_NULL)                                                                \
    X(86, ZAVKM_ERR_FILE_OPEN)                                                                    \
    X(87, ZAVKM_ERR_FILE_OPEN_TO_READ)                                                            \
    X(88, ZAVKM_ERR_FILE_OPEN_TO_WRITE)                                                           \
    X(89, ZAVKM_ERR_FILE_OPEN_NOT_EXIST)                                                          \
    X(90, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED)                                                        \
    X(91, ZAVKM_ERR_FILE_WRITE)                                                                   \
    X(92, ZAVKM_ERR_FILE_REMOVE)                                                                  \
    X(93, ZAVKM_ERR_BASE64_INVALID_DATA)                                                          \
    X(94, ZAVKM_ERR_BASE64_INVALID_MSGTYPE)                                                       \
    X(95, ZAVKM_ERR_BASE64_ENCODING)                                                              \
    X(96, ZAVKM_ERR_BASE64_DECODING)                                                              \
    X(97, ZAVKM_ERR_DN_TAG_NULL)                                                                  \
    X(98, ZAVKM_ERR_DN_CN_NULL)                                                                   \
    X(99, ZAVKM_ERR_DN_C_NULL)                                                                    \
    X(100, ZAVKM_ERR_INVALID_DB_HANDLE)                                                           \
    X(101, ZAVKM_ERR_KEYDB_NOT_EXIST)                                                             \
    X(102, ZAVKM_ERR_KEYPAIRDB_NOT_EXIST)                                                         \
    X(103, ZAVKM_ERR_PWDFILE_NOT_EXIST)                                                           \
    X(104, ZAVKM_ERR_PASSWORD_CHANGE_MATCH)                                                       \
    X(105, ZAVKM_ERR_KEYDB_NULL)                                                                  \
    X(106, ZAVKM_ERR_REQKEYDB_NULL)                                                               \
    X(107, ZAVKM_ERR_KEYDB_TRUSTCA_NULL)                                                          \
    X(108, ZAVKM_ERR_REQKEY_FOR_CERT_NULL)                                                        \
    X(109, ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL)                                                      \
    X(110, ZAVKM_ERR_KEYDB_DEFAULT_KEY_NULL)                                                      \
    X(111, ZAVKM_ERR_KEYREC_PRIVATE_KEY_NULL)                                                     \
    X(112, ZAVKM_ERR_KEYREC_CERTIFICATE_NULL)                                                     \
    X(113, ZAVKM_ERR_CRLS_NULL)                                                                   \
    X(114, ZAVKM_ERR_INVALID_KEYDB_NAME)                                                          \
    X(115, ZAVKM_ERR_UNDEFINED_KEY_TYPE)                                                          \
    X(116, ZAVKM_ERR_INVALID_DN_INPUT)                                                            \
    X(117, ZAVKM_ERR_KEY_GET_BY_LABEL)                                                            \
    X(118, ZAVKM_ERR_LABEL_LIST_CORRUPT)                                                          \
    X(119, ZAVKM_ERR_INVALID_PKCS12_DATA)                                                         \
    X(120, ZAVKM_ERR_PKCS12_PWD_CORRUPTION)                                                       \
    X(121, ZAVKM_ERR_EXPORT_TYPE)                                                                 \
    X(122, ZAVKM_ERR_PBE_ALG_UNSUPPORT)                                                           \
    X(123, ZAVKM_ERR_KYR2KDB)                                                                     \
    X(124, ZAVKM_ERR_KDB2KYR)                                                                     \
    X(125, ZAVKM_ERR_ISSUING_CERTIFICATE)                                                         \
    X(126, ZAVKM_ERR_FIND_ISSUER_CHAIN)                                                           \
    X(127, ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT)                                                       \
    X(128, ZAVKM_ERR_WEBDB_NOTHING_TO_WRITE)                                                      \
    X(129, ZAVKM_ERR_EXPIRE_DAYS_TOO_LARGE)                                                       \
    X(130, ZAVKM_ERR_PWD_TOO_SHORT)                                                               \
    X(131, ZAVKM_ERR_PWD_NO_NUMBER)                                                               \
    X(132, ZAVKM_ERR_PWD_NO_CONTROL_KEY)                                                          \
    X(133, ZAVKM_ERR_SIGNATURE_ALGORITHM)                                                         \
    X(134, ZAVKM_ERR_INVALID_DATABASE_TYPE)                                                       \
    X(135, ZAVKM_ERR_SECONDARY_KEYDB_TO_OTHER)                                                    \
    X(136, ZAVKM_ERR_NO_SECONDARY_KEYDB)                                                          \
    X(137, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST)                                         \
    X(138, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED)                                       \
    X(139, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_NOT_REQUIRED)                                   \
    X(140, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED)                                      \
    X(141, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT)                                             \
    X(142, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_FUNCTION_FAILED)                                         \
    X(143, ZAVKM_ERR_LDAP_USER_NOT_FOUND)                                                         \
    X(144, ZAVKM_ERR_LDAP_INVALID_PASSWORD)                                                       \
    X(145, ZAVKM_ERR_LDAP_QUERY_ENTRY_FAILED)                                                     \
    X(146, ZAVKM_ERR_INVALID_CERT_CHAIN)                                                          \
    X(147, ZAVKM_ERR_CERT_ROOT_NOT_TRUSTED)                                                       \
    X(148, ZAVKM_ERR_CERT_REVOKED)                                                                \
    X(149, ZAVKM_ERR_CRYPTOGRAPHIC_OBJECT_FUNCTION_FAILED)                                        \
    X(150, ZAVKM_ERR_NO_AVAILABLE_CRL_DATASOURCE)                                                 \
    X(151, ZAVKM_ERR_NO_TOKEN_PRESENT)

#define ZAVKM_ENUM_ENTRY_(code, name) name = code,
enum ZAVKM_ErrorCode { ZAVKM_OK = 0, ZAVKM_RETURN_CODES(ZAVKM_ENUM_ENTRY_) };
#undef ZAVKM_ENUM_ENTRY_

#define ZAVKM_ERROR_COUNT 151

/* ---- Records -------------------------------------------------------------------------- */

/* A singly linked list of labels (key labels, token labels or provider names). */
typedef struct ZAVKM_LabelList {
    char* label;                  /* zero-terminated; a null label ends a walk */
    struct ZAVKM_LabelList* next; /* null at the end */
} ZAVKM_LabelList;

/* A distinguished name. Names made by clients carry only the seven named parts. */
typedef struct ZAVKM_DNItem {
    char* cn;
    char* ou;
    char* o;
    char* l;
    char* s;  /* state or province */
    char* pc; /* postal code */
    char* c;
    char* optionalField1; /* further name parts, "TYPE=value" */
    char* optionalField2;
    char* optionalField3;
    char* optionalField4;
    uint8_t* der; /* the whole name, DER */
    uint32_t derLength;
} ZAVKM_DNItem;

/* A decoded certificate. With serialNumber null only der is meaningful. */
typedef struct ZAVKM_CertItem {
    uint8_t* der;
    uint32_t derLength;
    int32_t shortValue1; /* X.509 version as people count it (3 for v3) */
    int32_t shortValue2; /* public key size in bits */
    char* serialNumber;  /* uppercase hexadecimal, two digits a byte */
    ZAVKM_DNItem* issuer;
    ZAVKM_DNItem* subject;
    int32_t effectTime; /* seconds since 1970, clamped to 32 bits */
    int32_t expireTime;
    uint8_t* signature; /* signature value without the BIT STRING's unused-bits byte */
    uint32_t signatureLength;
    uint8_t* sigAlgId; /* DER AlgorithmIdentifier */
    uint32_t sigAlgIdLength;
    char* sigAlgIdOID;
    char* sigAlgIdOIDName;
    void* reserved1;
    void* reserved2;
    void* reserved3;
    uint8_t* spki; /* DER SubjectPublicKeyInfo */
    uint32_t spkiLength;
    uint8_t* extensions; /* DER Extensions, or null */
    uint32_t extensionsLength;
} ZAVKM_CertItem;

typedef struct ZAVKM_CertItemList {
    ZAVKM_CertItem* cert; /* a null certificate ends a walk */
    struct ZAVKM_CertItemList* next;
} ZAVKM_CertItemList;

/* The information part of a PKCS#10 request. */
typedef struct ZAVKM_CertReqInfoItem {
    uint8_t* der;
    uint32_t derLength;
    int32_t keySize;
    ZAVKM_DNItem* subjectName;
    uint8_t* spki;
    uint32_t spkiLength;
    uint8_t* attributes; /* DER of the attributes; only meaningful with a non-zero length */
    uint32_t attributesLength;
} ZAVKM_CertReqInfoItem;

/* A PKCS#10 certificate request. */
typedef struct ZAVKM_CertReqItem {
    uint8_t* der;
    uint32_t derLength;
    uint8_t* sig;
    uint32_t sigLength;
    uint8_t* sigAlgId;
    uint32_t sigAlgIdLength;
    char* sigAlgIdOID;
    char* sigAlgIdOIDName;
    ZAVKM_CertReqInfoItem* certReqInfoItem;
} ZAVKM_CertReqItem;

/* A PKCS#8 EncryptedPrivateKeyInfo. */
typedef struct ZAVKM_EPKIItem {
    uint8_t* der;
    uint32_t derLength;
} ZAVKM_EPKIItem;

/* A PKCS#8 PrivateKeyInfo. */
typedef struct ZAVKM_PrivKeyInfoItem {
    uint8_t* der;
    uint32_t derLength;
} ZAVKM_PrivKeyInfoItem;

/* A key with its certificate and chain. */
typedef struct ZAVKM_KeyItem {
    int32_t shortValue1; /* key algorithm: 1 RSA, 2 EC, 3 Ed25519, 4 Ed448 */
    char* label;
    int32_t keySize; /* bits */
    int32_t hasPrivateKey;
    int32_t hasCertList;
    int32_t hasKeyBer;
    int32_t keyFlag1; /* default key */
    int32_t keyFlag2; /* trusted */
    ZAVKM_EPKIItem* epki;
    uint8_t* keyBer; /* DER SubjectPublicKeyInfo */
    uint32_t keyBerLength;
    ZAVKM_CertItemList* certList; /* the certificate, then its issuers */
} ZAVKM_KeyItem;

/* A key pair waiting for its certificate, with its request. */
typedef struct ZAVKM_ReqKeyItem {
    int32_t shortValue1;
    char* label;
    int32_t keySize;
    int32_t hasKeyBer;
    ZAVKM_CertReqItem* certReq;
    ZAVKM_EPKIItem* epki;
    uint8_t* keyBer;
    uint32_t keyBerLength;
} ZAVKM_ReqKeyItem;

typedef struct ZAVKM_KeyItemList {
    ZAVKM_KeyItem* key; /* may be null; the list goes on */
    struct ZAVKM_KeyItemList* next;
} ZAVKM_KeyItemList;

/* Store types of a KeyStoreDescriptor. */
enum KeyStoreType {
    KeyDbFile = 1,   /* key database file: keyDbFileName, password when opening */
    CryptoToken = 2, /* PKCS#11 token: cryptoModuleName, tokenLabel, password, newPassword */
    WebDbFile = 3,   /* WEBDB (PKCS#12) file: keyDbFileName */
    MSCertStore = 4  /* platform certificate store: tokenLabel = provider name, password */
};

/*
 * KeyStoreDescriptor - 512 zero-filled bytes that name a store to open or probe. The pointers
 * are borrowed: the descriptor owns and frees nothing. password sits at byte 256 on every
 * pointer width.
 */
typedef struct KeyStoreDescriptor {
    uint32_t storeType;
    const char* keyDbFileName;
    const char* cryptoModuleName;
    const char* tokenLabel;
    uint8_t reserved1[256 - 4 * sizeof(void*)];
    const char* password;
    const char* newPassword;
    uint8_t reserved2[256 - 2 * sizeof(void*)];
} KeyStoreDescriptor;

/* ---- Operations ------------------------------------------------------------------------ */

/*
 * Every operation, once: X(return type, name, (parameters), (argument names)).
 * Parameter order is context (handle), outputs last where the clients place them, as the
 * clients pass them. Texts are zero-terminated and borrowed; out-records belong to the caller
 * and are released with the release operation of their type.
 */
#define ZAVKM_OPERATIONS(X)                                                                       \
    /* library services */                                                                        \
    X(ZAVKM_ReturnCode, ZAVKM_Init, (void), ())                                                   \
    X(ZAVKM_ReturnCode, ZAVKM_CleanAll, (void), ())                                               \
    X(ZAVKM_ReturnCode, ZAVKM_StartTrace,                                                         \
      (const char* tag, const char* fileName, int32_t level, int32_t size),                       \
      (tag, fileName, level, size))                                                               \
    X(uint32_t, ZAVKM_GetMaxCryptoKeySize, (int32_t keyType), (keyType))                          \
    X(ZAVKM_ReturnCode, ZAVKM_SetCryptoInfo, (void* cryptoInfo), (cryptoInfo))                    \
    /* memory */                                                                                  \
    X(void*, ZAVKM_Malloc, (uint32_t size), (size))                                               \
    X(void*, ZAVKM_Realloc, (void* block, uint32_t size), (block, size))                          \
    X(void, ZAVKM_Free, (void* block), (block))                                                   \
    X(char*, ZAVKM_Strdup, (const char* text), (text))                                            \
    /* records */                                                                                 \
    X(ZAVKM_ReturnCode, ZAVKM_InitDNItem, (ZAVKM_DNItem** dn), (dn))                              \
    X(void, ZAVKM_FreeDNItem, (ZAVKM_DNItem* dn), (dn))                                           \
    X(ZAVKM_ReturnCode, ZAVKM_InitEPKIItem, (ZAVKM_EPKIItem** epki), (epki))                      \
    X(void, ZAVKM_FreeEPKIItem, (ZAVKM_EPKIItem* epki), (epki))                                   \
    X(void, ZAVKM_FreePrivKeyInfoItem, (ZAVKM_PrivKeyInfoItem* pki), (pki))                       \
    X(void, ZAVKM_FreeLabelList, (ZAVKM_LabelList* list), (list))                                 \
    X(void, ZAVKM_FreeCertItemList, (ZAVKM_CertItemList* list), (list))                           \
    X(void, ZAVKM_FreeKeyItem, (ZAVKM_KeyItem* key), (key))                                       \
    X(void, ZAVKM_FreeReqKeyItem, (ZAVKM_ReqKeyItem* key), (key))                                 \
    X(void, ZAVKM_FreeKeyItemList, (ZAVKM_KeyItemList* list), (list))                             \
    /* opening and closing stores */                                                              \
    X(ZAVKM_ReturnCode, ZAVKM_CreateNewKeyDb,                                                     \
      (const char* fileName, const char* password, int32_t expireSeconds,                         \
       ZAVKM_KeyDbHandle* handle),                                                                \
      (fileName, password, expireSeconds, handle))                                                \
    X(ZAVKM_ReturnCode, ZAVKM_OpenKeyDb,                                                          \
      (const char* fileName, const char* password, ZAVKM_KeyDbHandle* handle),                    \
      (fileName, password, handle))                                                               \
    X(ZAVKM_ReturnCode, ZAVKM_OpenKeyDbX,                                                         \
      (const KeyStoreDescriptor* descriptor, ZAVKM_KeyDbHandle* handle), (descriptor, handle))    \
    X(ZAVKM_ReturnCode, ZAVKM_CloseKeyDb, (ZAVKM_KeyDbHandle handle), (handle))                   \
    X(ZAVKM_ReturnCode, ZAVKM_ChangeKeyDbPwd,                                                     \
      (const char* fileName, const char* oldPassword, const char* newPassword,                    \
       int32_t expireSeconds),                                                                    \
      (fileName, oldPassword, newPassword, expireSeconds))                                        \
    X(ZAVKM_ReturnCode, ZAVKM_ChangeKeyDbPwdX, (const KeyStoreDescriptor* descriptor),            \
      (descriptor))                                                                               \
    X(ZAVKM_ReturnCode, ZAVKM_StashKeyDbPwd, (const char* fileName, const char* password),        \
      (fileName, password))                                                                       \
    X(ZAVKM_ReturnCode, ZAVKM_IsPasswordRequired,                                                 \
      (const KeyStoreDescriptor* descriptor, uint8_t* required), (descriptor, required))          \
    X(ZAVKM_ReturnCode, ZAVKM_SetSecondaryKeyDb,                                                  \
      (ZAVKM_KeyDbHandle token, ZAVKM_KeyDbHandle secondary), (token, secondary))                 \
    X(ZAVKM_ReturnCode, ZAVKM_UnsetSecondaryKeyDb, (ZAVKM_KeyDbHandle token), (token))            \
    X(ZAVKM_ReturnCode, ZAVKM_GetCryptoTokenLabelList,                                            \
      (const char* moduleName, ZAVKM_LabelList** list), (moduleName, list))                       \
    /* labels and lookup */                                                                       \
    X(ZAVKM_ReturnCode, ZAVKM_GetKeyDbLabelList,                                                  \
      (ZAVKM_KeyDbHandle handle, ZAVKM_LabelList** list), (handle, list))                         \
    X(ZAVKM_ReturnCode, ZAVKM_GetReqKeyDbLabelList,                                               \
      (ZAVKM_KeyDbHandle handle, ZAVKM_LabelList** list), (handle, list))                         \
    X(ZAVKM_ReturnCode, ZAVKM_GetKeyItemByLabel,                                                  \
      (ZAVKM_KeyDbHandle handle, const char* label, ZAVKM_KeyItem** key), (handle, label, key))   \
    X(ZAVKM_ReturnCode, ZAVKM_GetReqKeyItemByLabel,                                               \
      (ZAVKM_KeyDbHandle handle, const char* label, ZAVKM_ReqKeyItem** key),                      \
      (handle, label, key))                                                                       \
    X(ZAVKM_ReturnCode, ZAVKM_GetKeyItemListByLabel,                                              \
      (ZAVKM_KeyDbHandle handle, const char* label, ZAVKM_KeyItemList** list),                    \
      (handle, label, list))                                                                      \
    X(ZAVKM_ReturnCode, ZAVKM_IsPrivateKeyPresent,                                                \
      (ZAVKM_KeyDbHandle handle, const char* label, uint8_t* present), (handle, label, present))  \
    X(ZAVKM_ReturnCode, ZAVKM_GetDefaultKeyItem, (ZAVKM_KeyDbHandle handle, ZAVKM_KeyItem** key), \
      (handle, key))                                                                              \
    X(ZAVKM_ReturnCode, ZAVKM_GetKeyItemsByPublicKey,                                             \
      (ZAVKM_KeyDbHandle handle, uint32_t publicKeyLength, const uint8_t* publicKey,              \
       ZAVKM_KeyItemList** list),                                                                 \
      (handle, publicKeyLength, publicKey, list))                                                 \
    /* certificates and requests */                                                               \
    X(ZAVKM_ReturnCode, ZAVKM_CreateSelfSignedCert,                                               \
      (ZAVKM_KeyDbHandle handle, const char* label, uint8_t makeDefault, int32_t version,         \
       int32_t keySize, const ZAVKM_DNItem* subject, int32_t validityDays,                        \
       const char* certFileName, uint8_t isBase64),                                               \
      (handle, label, makeDefault, version, keySize, subject, validityDays, certFileName,         \
       isBase64))                                                                                 \
    X(ZAVKM_ReturnCode, ZAVKM_CreateSelfSignedCertSigExt,                                         \
      (ZAVKM_KeyDbHandle handle, const char* label, uint8_t makeDefault, int32_t version,         \
       int32_t keySize, const ZAVKM_DNItem* subject, int32_t validityDays,                        \
       int32_t signatureAlgorithm, const uint8_t* extensions, uint32_t extensionsLength,          \
       const char* certFileName, uint8_t isBase64),                                               \
      (handle, label, makeDefault, version, keySize, subject, validityDays, signatureAlgorithm,   \
       extensions, extensionsLength, certFileName, isBase64))                                     \
    X(ZAVKM_ReturnCode, ZAVKM_CreateNewCertReq,                                                   \
      (ZAVKM_KeyDbHandle handle, const char* label, int32_t keySize, const ZAVKM_DNItem* subject, \
       const char* certReqFileName, const void* reserved1, const void* reserved2),                \
      (handle, label, keySize, subject, certReqFileName, reserved1, reserved2))                   \
    X(ZAVKM_ReturnCode, ZAVKM_CreateNewCertReqSigExt,                                             \
      (ZAVKM_KeyDbHandle handle, const char* label, int32_t keySize, const ZAVKM_DNItem* subject, \
       int32_t signatureAlgorithm, const uint8_t* extensions, uint32_t extensionsLength,          \
       const char* certReqFileName, const void* reserved1, const void* reserved2),                \
      (handle, label, keySize, subject, signatureAlgorithm, extensions, extensionsLength,         \
       certReqFileName, reserved1, reserved2))                                                    \
    X(ZAVKM_ReturnCode, ZAVKM_ReCreateCertReq,                                                    \
      (ZAVKM_KeyDbHandle handle, const char* label, const char* certReqFileName,                  \
       const void* reserved1, const void* reserved2),                                             \
      (handle, label, certReqFileName, reserved1, reserved2))                                     \
    X(ZAVKM_ReturnCode, ZAVKM_ReCreateCertReqSig,                                                 \
      (ZAVKM_KeyDbHandle handle, const char* label, int32_t signatureAlgorithm,                   \
       const char* certReqFileName, const void* reserved1, const void* reserved2),                \
      (handle, label, signatureAlgorithm, certReqFileName, reserved1, reserved2))                 \
    X(ZAVKM_ReturnCode, ZAVKM_Base64DecodeFileToBuf,                                              \
      (const char* fileName, uint8_t** data, uint32_t* length), (fileName, data, length))         \
    X(ZAVKM_ReturnCode, ZAVKM_IssueCert,                                                          \
      (ZAVKM_KeyDbHandle handle, const uint8_t* request, uint32_t requestLength,                  \
       const char* issuerLabel, int32_t version, const char* serialNumber, int32_t validityDays,   \
       const char* certFileName, uint8_t isBase64, const void* reserved1, const void* reserved2), \
      (handle, request, requestLength, issuerLabel, version, serialNumber, validityDays,          \
       certFileName, isBase64, reserved1, reserved2))                                             \
    X(ZAVKM_ReturnCode, ZAVKM_IssueCertSig,                                                       \
      (ZAVKM_KeyDbHandle handle, const uint8_t* request, uint32_t requestLength,                  \
       const char* issuerLabel, int32_t version, const char* serialNumber, int32_t validityDays,   \
       int32_t signatureAlgorithm, const char* certFileName, uint8_t isBase64,                    \
       const void* reserved1, const void* reserved2),                                             \
      (handle, request, requestLength, issuerLabel, version, serialNumber, validityDays,          \
       signatureAlgorithm, certFileName, isBase64, reserved1, reserved2))                         \
    X(ZAVKM_ReturnCode, ZAVKM_GetUnsignedCertFromCert,                                            \
      (const uint8_t* der, uint32_t derLength, uint8_t** tbs, uint32_t* tbsLength),               \
      (der, derLength, tbs, tbsLength))                                                           \
    /* key records */                                                                             \
    X(ZAVKM_ReturnCode, ZAVKM_DeleteKey, (ZAVKM_KeyDbHandle handle, const char* label),           \
      (handle, label))                                                                            \
    X(ZAVKM_ReturnCode, ZAVKM_DeleteRequestKeyPair,                                               \
      (ZAVKM_KeyDbHandle handle, const char* label), (handle, label))                             \
    X(ZAVKM_ReturnCode, ZAVKM_InsertKey,                                                          \
      (ZAVKM_KeyDbHandle handle, const char* label, uint32_t certLength, const uint8_t* cert,     \
       uint32_t keyLength, const uint8_t* key, uint8_t makeDefault, uint8_t trusted),             \
      (handle, label, certLength, cert, keyLength, key, makeDefault, trusted))                    \
    X(ZAVKM_ReturnCode, ZAVKM_InsertReqKey,                                                       \
      (ZAVKM_KeyDbHandle handle, const char* label, uint32_t requestLength,                       \
       const uint8_t* request, uint32_t keyLength, const uint8_t* key),                           \
      (handle, label, requestLength, request, keyLength, key))                                    \
    X(ZAVKM_ReturnCode, ZAVKM_SetDefaultKeyByLabel,                                               \
      (ZAVKM_KeyDbHandle handle, const char* label), (handle, label))                             \
    X(ZAVKM_ReturnCode, ZAVKM_SetTrustStatus,                                                     \
      (ZAVKM_KeyDbHandle handle, const char* label, uint8_t trusted), (handle, label, trusted))   \
    X(ZAVKM_ReturnCode, ZAVKM_GetEPKIItemFromPrivateKey,                                          \
      (const uint8_t* privateKey, uint32_t privateKeyLength, const char* password,                \
       ZAVKM_EPKIItem** epki),                                                                    \
      (privateKey, privateKeyLength, password, epki))                                             \
    X(ZAVKM_ReturnCode, ZAVKM_GetPrivKeyInfoItemFromEPKIItem,                                     \
      (const ZAVKM_EPKIItem* epki, const char* password, ZAVKM_PrivKeyInfoItem** pki),            \
      (epki, password, pki))                                                                      \
    /* PKCS#12 and keyring files */                                                               \
    X(ZAVKM_ReturnCode, ZAVKM_ExportKeys,                                                         \
      (ZAVKM_KeyDbHandle handle, int32_t exportType, const char* pfxFileName,                     \
       const char* pfxPassword, const ZAVKM_LabelList* labels),                                   \
      (handle, exportType, pfxFileName, pfxPassword, labels))                                     \
    X(ZAVKM_ReturnCode, ZAVKM_ImportKeysFromPFXFile,                                              \
      (ZAVKM_KeyDbHandle handle, const char* pfxFileName, const char* pfxPassword),               \
      (handle, pfxFileName, pfxPassword))                                                         \
    X(ZAVKM_ReturnCode, ZAVKM_Kyr2Kdb,                                                            \
      (const char* kyrFileName, const char* kyrPassword, const char* keyDbFileName,               \
       const char* keyDbPassword),                                                                \
      (kyrFileName, kyrPassword, keyDbFileName, keyDbPassword))                                   \
    X(ZAVKM_ReturnCode, ZAVKM_Kdb2Kyr,                                                            \
      (const char* keyDbFileName, const char* keyDbPassword, const char* kyrFileName,             \
       const char* kyrPassword),                                                                  \
      (keyDbFileName, keyDbPassword, kyrFileName, kyrPassword))                                   \
    /* receiving, exporting, renewing and validating certificates */                              \
    X(ZAVKM_ReturnCode, ZAVKM_ReceiveCert,                                                        \
      (ZAVKM_KeyDbHandle handle, const uint8_t* cert, uint32_t certLength, uint8_t makeDefault),  \
      (handle, cert, certLength, makeDefault))                                                    \
    X(ZAVKM_ReturnCode, ZAVKM_StoreCACert,                                                        \
      (ZAVKM_KeyDbHandle handle, const uint8_t* cert, uint32_t certLength, const char* label),    \
      (handle, cert, certLength, label))                                                          \
    X(ZAVKM_ReturnCode, ZAVKM_ExportCert,                                                         \
      (ZAVKM_KeyDbHandle handle, const char* label, const char* certFileName, uint8_t isBase64),  \
      (handle, label, certFileName, isBase64))                                                    \
    X(ZAVKM_ReturnCode, ZAVKM_ExtractCertListFromPKCS7Data,                                       \
      (const uint8_t* data, uint32_t length, ZAVKM_CertItemList** list), (data, length, list))    \
    X(ZAVKM_ReturnCode, ZAVKM_CheckCertAsRenewal,                                                 \
      (ZAVKM_KeyDbHandle handle, const uint8_t* cert, uint32_t certLength, uint8_t* isRenewal),   \
      (handle, cert, certLength, isRenewal))                                                      \
    X(ZAVKM_ReturnCode, ZAVKM_RenewCert,                                                          \
      (ZAVKM_KeyDbHandle handle, const uint8_t* cert, uint32_t certLength),                       \
      (handle, cert, certLength))                                                                 \
    X(ZAVKM_ReturnCode, ZAVKM_ValidateCertChain,                                                  \
      (ZAVKM_KeyDbHandle handle, const uint8_t* cert, uint32_t certLength, uint8_t* isValid),     \
      (handle, cert, certLength, isValid))

#define ZAVKM_DECLARE_(ret, name, params, args) ZAVKM_API ret name params ZAVKM_NOEXCEPT;
ZAVKM_OPERATIONS(ZAVKM_DECLARE_)
#undef ZAVKM_DECLARE_

#ifdef __cplusplus
}
#endif

#endif /* ZAVKM_H */
