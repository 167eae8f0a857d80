package com.norvex.zav.tolvik.basic;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/**
 * CMSKeyDatabase - the natives that work on key database files.
 *
 * <p>No native keeps a store open: each opens the file named by {@code keyDbFileName} with
 * {@code keyDbPwd}, does its work and closes it again before returning. Natives return the
 * library's return code (0 for success), a boolean that is true only when the library answered
 * 0 and yes, or an object that is null on any failure.
 *
 * <p>{@link #c_BuildKeyLabelList(String, String)} delivers labels through
 * {@link #addKeyLabel(String)} and {@link #addReqKeyLabel(String)}, which collect them in this
 * object's lists. The lists are not synchronised: use one object per thread, or guard it.
 *
 * <p>The signature algorithm selector of the "Sig" natives is 1 or 2; any other value gives
 * return code 65.
 */
public class CMSKeyDatabase {
    static {
        System.loadLibrary("zavkjni");
    }

    private final List<String> keyLabels = new ArrayList<>();
    private final List<String> reqKeyLabels = new ArrayList<>();

    /** CMSKeyDatabase - an object with empty label lists. */
    public CMSKeyDatabase() {
    }

    // ---- Files and passwords ------------------------------------------------------------------

    /** c_CreateNewKeyDb - creates a key database; {@code pwdExpireTime} in milliseconds. */
    public native int c_CreateNewKeyDb(String keyDbFileName, String keyDbPwd, long pwdExpireTime);

    /** c_OpenKeyDb - opens and closes a key database: checks that file and password fit. */
    public native int c_OpenKeyDb(String keyDbFileName, String keyDbPwd);

    /** c_ChangeKeyDbPwd - changes the password; {@code pwdExpireTime} in milliseconds. */
    public native boolean c_ChangeKeyDbPwd(String keyDbFileName, String oldKeyDbPwd,
            String newKeyDbPwd, long pwdExpireTime);

    /** c_StashKeyDbPwd - stores the password for the file. */
    public native boolean c_StashKeyDbPwd(String keyDbFileName, String keyDbPwd);

    // ---- Labels and lookup --------------------------------------------------------------------

    /** c_BuildKeyLabelList - hands every key label and every request key label to the callbacks. */
    public native int c_BuildKeyLabelList(String keyDbFileName, String keyDbPwd);

    /** c_GetKeyItemByLabel - the key ({@code isReqKey} false) or request key under the label. */
    public native KeyItem c_GetKeyItemByLabel(String keyDbFileName, String keyDbPwd,
            String keyLabel, boolean isReqKey);

    /** c_GetKeyItemListByLabel - the keys under the label. */
    public native KeyItem[] c_GetKeyItemListByLabel(String keyDbFileName, String keyDbPwd,
            String keyLabel);

    /** c_IsPrivateKeyPresent - whether the key under the label has its private key. */
    public native boolean c_IsPrivateKeyPresent(String keyDbFileName, String keyDbPwd,
            String keyLabel);

    /** c_GetDefaultKeyItem - the default key. */
    public native KeyItem c_GetDefaultKeyItem(String keyDbFileName, String keyDbPwd);

    /** c_GetKeyItemsByPublicKey - the keys whose public key is the given DER public key. */
    public native KeyItem[] c_GetKeyItemsByPublicKey(String keyDbFileName, String keyDbPwd,
            int publicKeyLen, byte[] publicKey);

    // ---- Certificate and request creation -----------------------------------------------------

    /**
     * c_CreateNewSelfSignedCertificate - makes a key and a self-signed certificate for it,
     * written also to {@code certFileName} when that is not null.
     */
    public native int c_CreateNewSelfSignedCertificate(String keyDbFileName, String keyDbPwd,
            int version, String keyLabel, boolean makeDefault, int keySize, DNItem dnItem,
            int validityDays, String certFileName, boolean isBase64);

    /** c_CreateNewSelfSignedCertificateSigExt - as above, with signature algorithm, extensions. */
    public native int c_CreateNewSelfSignedCertificateSigExt(String keyDbFileName,
            String keyDbPwd, int version, String keyLabel, boolean makeDefault, int keySize,
            DNItem dnItem, int validityDays, int signatureAlgorithm, int extensionsDataLen,
            byte[] extensionsData, String certFileName, boolean isBase64);

    /**
     * c_CreateNewCertRequest - makes a request key and writes its request to
     * {@code certReqFileName}; with {@code isNewCertReq} false it writes the request of the
     * existing request key again instead.
     */
    public native int c_CreateNewCertRequest(String keyDbFileName, String keyDbPwd,
            String keyLabel, int keySize, DNItem dnItem, String certReqFileName,
            boolean isNewCertReq);

    /** c_CreateNewCertRequestSigExt - as above, with signature algorithm and DER extensions. */
    public native int c_CreateNewCertRequestSigExt(String keyDbFileName, String keyDbPwd,
            String keyLabel, int keySize, DNItem dnItem, int signatureAlgorithm,
            int extensionsDataLen, byte[] extensionsData, String certReqFileName,
            boolean isNewCertReq);

    /** c_IssueCertificate - signs the request in {@code certReqFileName} with the issuer's key. */
    public native int c_IssueCertificate(String keyDbFileName, String keyDbPwd,
            String issuerKeyLabel, int version, String serialNumber, int validityDays,
            String certReqFileName, String certFileName, boolean isBase64);

    /** c_IssueCertificateSig - as above, with a signature algorithm. */
    public native int c_IssueCertificateSig(String keyDbFileName, String keyDbPwd,
            String issuerKeyLabel, int version, String serialNumber, int validityDays,
            int signatureAlgorithm, String certReqFileName, String certFileName,
            boolean isBase64);

    // ---- Key record maintenance ---------------------------------------------------------------

    /** c_DeleteKeyByLabel - deletes the key ({@code isReqKey} false) or request key pair. */
    public native int c_DeleteKeyByLabel(String keyDbFileName, String keyDbPwd, String keyLabel,
            boolean isReqKey);

    /** c_InsertKey - stores a DER certificate with an optional PKCS#8 key under the label. */
    public native int c_InsertKey(String keyDbFileName, String keyDbPwd, String keyLabel,
            int certDataLen, byte[] certData, int keyDataLen, byte[] keyData,
            boolean makeDefault, boolean trusted);

    /** c_InsertReqKey - stores a DER request with an optional PKCS#8 key under the label. */
    public native int c_InsertReqKey(String keyDbFileName, String keyDbPwd, String keyLabel,
            int certReqDataLen, byte[] certReqData, int keyDataLen, byte[] keyData);

    /** c_SetDefaultKey - makes the key under the label the default key. */
    public native int c_SetDefaultKey(String keyDbFileName, String keyDbPwd, String keyLabel);

    /** c_SetKeyTrust - marks the certificate under the label trusted or not. */
    public native int c_SetKeyTrust(String keyDbFileName, String keyDbPwd, String keyLabel,
            boolean isTrusted);

    /** c_EncryptPrivateKey - encrypts a DER PrivateKeyInfo under the password; touches no file. */
    public native EncryptedPrivateKeyInfoItem c_EncryptPrivateKey(int privateKeyDataLen,
            byte[] privateKeyData, String keyDbPwd);

    /** c_DecryptPrivateKey - decrypts a DER EncryptedPrivateKeyInfo; touches no file. */
    public native PrivateKeyInfoItem c_DecryptPrivateKey(int epkiDataLen, byte[] epkiData,
            String keyDbPwd);

    // ---- PKCS#12 ------------------------------------------------------------------------------

    /** c_ExportToPFXFile - writes the keys named by {@code exportLabels} to a PKCS#12 file. */
    public native int c_ExportToPFXFile(String keyDbFileName, String keyDbPwd, String pfxFileName,
            String pfxPwd, String[] exportLabels);

    /** c_ImportFromPFXFile - stores the keys and certificates of a PKCS#12 file. */
    public native int c_ImportFromPFXFile(String keyDbFileName, String keyDbPwd,
            String pfxFileName, String pfxPwd);

    // ---- Receiving and adding certificates ----------------------------------------------------

    /** c_ReceiveCert - stores a certificate issued for one of the request keys. */
    public native int c_ReceiveCert(String keyDbFileName, String keyDbPwd, String certFileName,
            boolean isBase64, boolean makeDefault);

    /** c_AddCaCert - stores a CA certificate under the label. */
    public native int c_AddCaCert(String keyDbFileName, String keyDbPwd, String keyLabel,
            String certFileName, boolean isBase64);

    // ---- Extraction ---------------------------------------------------------------------------

    /** c_ExtractCert - writes the certificate under the label to a file. */
    public native int c_ExtractCert(String keyDbFileName, String keyDbPwd, String keyLabel,
            String certFileName, boolean isBase64);

    /** c_ExtractCertReq - writes the request of the request key under the label to a file. */
    public native int c_ExtractCertReq(String keyDbFileName, String keyDbPwd, String keyLabel,
            String certReqFileName);

    /** c_ExtractCertReqSig - as above, signing the request with the given algorithm. */
    public native int c_ExtractCertReqSig(String keyDbFileName, String keyDbPwd, String keyLabel,
            int signatureAlgorithm, String certReqFileName);

    /** c_ExtractCertFromPKCS7Data - the certificates of a PKCS#7 file; touches no key database. */
    public native CertificateItem[] c_ExtractCertFromPKCS7Data(String certFileName,
            boolean isBase64);

    // ---- Renewal and chain validation ---------------------------------------------------------

    /** c_CheckCertAsRenewal - whether the DER certificate renews one in the file. */
    public native boolean c_CheckCertAsRenewal(String keyDbFileName, String keyDbPwd,
            int certDataLen, byte[] certData);

    /** c_RenewCert - replaces the certificate that the DER certificate renews. */
    public native int c_RenewCert(String keyDbFileName, String keyDbPwd, int certDataLen,
            byte[] certData);

    /** c_ValidateCertificateChain - whether the DER certificate's chain is valid (array first). */
    public native boolean c_ValidateCertificateChain(String keyDbFileName, String keyDbPwd,
            byte[] certData, int certDataLen);

    // ---- Format conversion and password probes ------------------------------------------------

    /** c_Kyr2Kdb - converts a keyring file (the source, first) into a key database. */
    public native int c_Kyr2Kdb(String kyrFileName, String kyrPwd, String keyDbFileName,
            String keyDbPwd);

    /** c_Kdb2Kyr - converts a key database (the source, first) into a keyring file. */
    public native int c_Kdb2Kyr(String keyDbFileName, String keyDbPwd, String kyrFileName,
            String kyrPwd);

    /** c_IsPasswordRequired - whether the key database file needs a password. */
    public native boolean c_IsPasswordRequired(String keyDbFileName);

    // ---- Label callbacks ----------------------------------------------------------------------

    /** addKeyLabel - called back once per key label; appends it to {@link #getKeyLabels()}. */
    public void addKeyLabel(String label) {
        keyLabels.add(label);
    }

    /** addReqKeyLabel - called back once per request key label; appends it to the list. */
    public void addReqKeyLabel(String label) {
        reqKeyLabels.add(label);
    }

    /** getKeyLabels - a copy of the key labels received so far, in order. */
    public List<String> getKeyLabels() {
        return Collections.unmodifiableList(new ArrayList<>(keyLabels));
    }

    /** getReqKeyLabels - a copy of the request key labels received so far, in order. */
    public List<String> getReqKeyLabels() {
        return Collections.unmodifiableList(new ArrayList<>(reqKeyLabels));
    }

    /** clearLabels - empties both label lists (before listing again). */
    public void clearLabels() {
        keyLabels.clear();
        reqKeyLabels.clear();
    }
}
