// api_keys.cpp - label lists, key lookups, inserting, deleting and flagging keys, and private
// keys under a password.
#include "store/file/epki.h"
#include "store/file/filestore.h"
#include "api/session.h"
#include "store/token/keyflags.h"
#include "store/token/tokenkeys.h"
#include "store/keystore/keyops.h"
#include "base/sizes.h"
#include "pki/x509util.h"

using namespace zavkm;

namespace {

// decodeKeyData - the private key of keyData, an EncryptedPrivateKeyInfo under password (the
// database's, with kdb; a token's PIN) or a plain private key. The decrypted PrivateKeyInfo is
// wiped when done.
Rc decodeKeyData(const SecretBytes& secret, const KeyDb* kdb, const uint8_t* key,
                 uint32_t keyLength, PkeyPtr& out) {
    if (Rc rc = withinSize(keyLength, kMaxItemBytes); rc != ZAVKM_OK) return rc;
    if (PkeyPtr plain = parsePrivateKey(key, keyLength)) {
        out = std::move(plain);
        return ZAVKM_OK;
    }
    SecretBytes pkcs8;
    std::string_view password(reinterpret_cast<const char*>(secret.data()), secret.size());
    if (Rc rc = decryptEpki(key, keyLength, password, kdb, pkcs8); rc != ZAVKM_OK) return rc;
    out = keyFromPkcs8(pkcs8);
    return out ? ZAVKM_OK : ZAVKM_ERR_ASN;
}
Rc decodeKeyData(const KeyDb& kdb, const uint8_t* key, uint32_t keyLength, PkeyPtr& out) {
    return decodeKeyData(kdb.password, &kdb, key, keyLength, out);
}

}  // namespace

extern "C" {

ZAVKM_ReturnCode ZAVKM_GetKeyDbLabelList(ZAVKM_KeyDbHandle handle,
                                         ZAVKM_LabelList** list) noexcept {
    return withKeyStore(__func__, handle, {list}, {},
                        [&](KeyStore& s) { return labelList(s, false, list); });
}

ZAVKM_ReturnCode ZAVKM_GetReqKeyDbLabelList(ZAVKM_KeyDbHandle handle,
                                            ZAVKM_LabelList** list) noexcept {
    return withKeyStore(__func__, handle, {list}, {},
                        [&](KeyStore& s) { return labelList(s, true, list); });
}

ZAVKM_ReturnCode ZAVKM_GetKeyItemByLabel(ZAVKM_KeyDbHandle handle, const char* label,
                                         ZAVKM_KeyItem** key) noexcept {
    return withKeyStore(__func__, handle, {label, key}, {labelArg(label)}, [&](KeyStore& s) -> Rc {
        *key = nullptr;
        KeyItemPtr item;
        if (Rc rc = s.keyItem(label, item); rc != ZAVKM_OK) return rc;
        *key = item.release();
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_GetReqKeyItemByLabel(ZAVKM_KeyDbHandle handle, const char* label,
                                            ZAVKM_ReqKeyItem** key) noexcept {
    return withKeyStore(__func__, handle, {label, key}, {labelArg(label)}, [&](KeyStore& s) -> Rc {
        *key = nullptr;
        ReqKeyItemPtr item;
        if (Rc rc = s.reqKeyItem(label, item); rc != ZAVKM_OK) return rc;
        *key = item.release();
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_GetKeyItemListByLabel(ZAVKM_KeyDbHandle handle, const char* label,
                                             ZAVKM_KeyItemList** list) noexcept {
    return withKeyStore(__func__, handle, {label, list}, {labelArg(label)},
                        [&](KeyStore& s) { return s.keyItemList(label, list); });
}

ZAVKM_ReturnCode ZAVKM_IsPrivateKeyPresent(ZAVKM_KeyDbHandle handle, const char* label,
                                           uint8_t* present) noexcept {
    return withKeyStore(__func__, handle, {label, present}, {labelArg(label)}, [&](KeyStore& s) {
        bool held = false;
        Rc rc = s.privateKeyPresent(label, held);
        *present = held ? 1 : 0;
        return rc;
    });
}

ZAVKM_ReturnCode ZAVKM_GetDefaultKeyItem(ZAVKM_KeyDbHandle handle, ZAVKM_KeyItem** key) noexcept {
    return withStore(
        __func__, handle, {key}, [&](KeyDb& kdb) { return fileDefaultKeyItem(kdb, key); },
        [&](TokenStore& t) { return tokenDefaultKeyItem(t, key); });
}

ZAVKM_ReturnCode ZAVKM_GetKeyItemsByPublicKey(ZAVKM_KeyDbHandle handle, uint32_t publicKeyLength,
                                              const uint8_t* publicKey,
                                              ZAVKM_KeyItemList** list) noexcept {
    return withKeyStore(__func__, handle, {publicKey, list}, [&](KeyStore& s) {
        return keyItemsByPublicKey(s, publicKey, publicKeyLength, list);
    });
}

ZAVKM_ReturnCode ZAVKM_DeleteKey(ZAVKM_KeyDbHandle handle, const char* label) noexcept {
    return withKeyStore(__func__, handle, {label}, {labelArg(label)},
                        [&](KeyStore& s) { return s.deleteEntry(label, false); });
}

ZAVKM_ReturnCode ZAVKM_DeleteRequestKeyPair(ZAVKM_KeyDbHandle handle, const char* label) noexcept {
    return withKeyStore(__func__, handle, {label}, {labelArg(label)},
                        [&](KeyStore& s) { return s.deleteEntry(label, true); });
}

ZAVKM_ReturnCode ZAVKM_SetDefaultKeyByLabel(ZAVKM_KeyDbHandle handle, const char* label) noexcept {
    return withStore(
        __func__, handle, {label}, {labelArg(label)},
        [&](KeyDb& kdb) { return setFileDefault(kdb, label); },
        [&](TokenStore& t) { return setTokenDefault(t, label); });
}

ZAVKM_ReturnCode ZAVKM_SetTrustStatus(ZAVKM_KeyDbHandle handle, const char* label,
                                      uint8_t trusted) noexcept {
    return withStore(
        __func__, handle, {label}, {labelArg(label)},
        [&](KeyDb& kdb) { return setFileTrust(kdb, label, trusted != 0); },
        [&](TokenStore& t) { return setTokenTrust(t, label, trusted != 0); });
}

ZAVKM_ReturnCode ZAVKM_InsertKey(ZAVKM_KeyDbHandle handle, const char* label, uint32_t certLength,
                                 const uint8_t* cert, uint32_t keyLength, const uint8_t* key,
                                 uint8_t makeDefault, uint8_t trusted) noexcept {
    return withStore(__func__, handle, {label, cert}, {labelArg(label)}, [&](KeyDb& kdb) -> Rc {
        return fileInsertKey(
            kdb, label, cert, certLength, key, keyLength,
            [&](PkeyPtr& out) { return decodeKeyData(kdb, key, keyLength, out); },
            makeDefault != 0, trusted != 0);
    }, [&](TokenStore& t) -> Rc {
        if (t.readOnly) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
        if (key == nullptr && keyLength != 0) return ZAVKM_ERR_NULL_PARAMETER;
        PkeyPtr privateKey;
        if (key != nullptr && keyLength != 0)
            if (Rc rc = decodeKeyData(t.pin, nullptr, key, keyLength, privateKey); rc != ZAVKM_OK)
                return rc;
        if (Rc rc = tokenInsertKey(t, label, cert, certLength, privateKey.get()); rc != ZAVKM_OK)
            return rc;
        return markNewEntry(t, label, makeDefault != 0, trusted != 0);
    });
}

ZAVKM_ReturnCode ZAVKM_InsertReqKey(ZAVKM_KeyDbHandle handle, const char* label,
                                    uint32_t requestLength, const uint8_t* request,
                                    uint32_t keyLength, const uint8_t* key) noexcept {
    return withStore(__func__, handle, {label, request, key}, {labelArg(label)}, [&](KeyDb& kdb) -> Rc {
        return fileInsertReqKey(
            kdb, label, request, requestLength,
            [&](PkeyPtr& out) { return decodeKeyData(kdb, key, keyLength, out); });
    }, [&](TokenStore& t) -> Rc {
        if (t.readOnly) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
        PkeyPtr privateKey;
        if (Rc rc = decodeKeyData(t.pin, nullptr, key, keyLength, privateKey); rc != ZAVKM_OK)
            return rc;
        return tokenInsertReqKey(t, label, request, requestLength, privateKey.get());
    });
}

ZAVKM_ReturnCode ZAVKM_GetEPKIItemFromPrivateKey(const uint8_t* privateKey,
                                                 uint32_t privateKeyLength, const char* password,
                                                 ZAVKM_EPKIItem** epki) noexcept {
    return withLibrary(__func__, {privateKey, password, epki}, {passwordArg(password)}, [&]() -> Rc {
        *epki = nullptr;
        if (isEmpty(password)) return ZAVKM_ERR_PWD_TOO_SHORT;
        PkeyPtr key = parsePrivateKey(privateKey, privateKeyLength);
        if (!key) return ZAVKM_ERR_ASN;
        SecretBytes pkcs8 = pkcs8Of(key.get());
        if (pkcs8.empty()) return sslError(ZAVKM_ERR_ASN);
        Bytes der;
        if (Rc rc = epkiWithPassword(password, pkcs8, der); rc != ZAVKM_OK) return rc;
        EPKIPtr item(newRecord<ZAVKM_EPKIItem>());
        copyBytes(der, &item->der, &item->derLength);
        *epki = item.release();
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_GetPrivKeyInfoItemFromEPKIItem(const ZAVKM_EPKIItem* epki,
                                                      const char* password,
                                                      ZAVKM_PrivKeyInfoItem** pki) noexcept {
    return withLibrary(__func__, {epki, password, pki}, {passwordArg(password)}, [&]() -> Rc {
        *pki = nullptr;
        if (epki->der == nullptr) return ZAVKM_ERR_NULL_PARAMETER;
        SecretBytes pkcs8;
        if (Rc rc = withPasswordForms(password, [&](const char* pw) {
                return decryptEpki(epki->der, epki->derLength, pw, nullptr, pkcs8);
            });
            rc != ZAVKM_OK)
            return rc;
        PrivKeyInfoPtr item(newRecord<ZAVKM_PrivKeyInfoItem>());
        copyBytes(pkcs8.data(), pkcs8.size(), &item->der, &item->derLength);
        *pki = item.release();
        return ZAVKM_OK;
    });
}

}  // extern "C"
