package com.norvex.zav.tolvik.basic;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/**
 * CryptographicToken - the natives that work on PKCS#11 tokens.
 *
 * <p>A token is named by its module ({@code cryptographicModuleName}, the path of the module's
 * shared object) and its label; the token password may be null for a token that needs none.
 * No native keeps a token open: each opens it (and, where asked, a secondary key database file
 * attached to it for the call), does its work and closes both again before returning.
 *
 * <p>Labels arrive through callbacks: {@link #c_BuildKeyLabelList(String, String, String)} calls
 * {@link #addPersonalKeyLabel(String)}, {@link #addSignerKeyLabel(String)} and
 * {@link #addRequestKeyLabel(String)}, which collect into this object's lists (not synchronised:
 * use one object per thread, or guard it); the static {@link #c_GetCryptoTokenLabelList(String)}
 * calls the static {@link #addTokenLabel(String)}, which collects into one process-wide list
 * guarded by the class lock.
 */
public class CryptographicToken {
    static {
        System.loadLibrary("zavkjni");
    }

    private static final List<String> tokenLabels = new ArrayList<>();

    private final List<String> personalKeyLabels = new ArrayList<>();
    private final List<String> signerKeyLabels = new ArrayList<>();
    private final List<String> requestKeyLabels = new ArrayList<>();

    /** CryptographicToken - an object with empty label lists. */
    public CryptographicToken() {
    }

    // ---- Token discovery and passwords --------------------------------------------------------

    /** c_GetCryptoTokenLabelList - hands each token label of the module to addTokenLabel. */
    public static native int c_GetCryptoTokenLabelList(String cryptographicModuleName);

    /** c_IsPasswordRequired - whether the token needs a password. */
    public native boolean c_IsPasswordRequired(String cryptographicModuleName,
            String cryptographicTokenLabel);

    /** c_ChangeKeyDbPwd - changes the token's password. */
    public native int c_ChangeKeyDbPwd(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenOldPassword,
            String cryptographicTokenNewPassword);

    // ---- Key listing and lookup ---------------------------------------------------------------

    /** c_BuildKeyLabelList - hands every key label of the token to the three label callbacks. */
    public native int c_BuildKeyLabelList(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword);

    /** c_GetKeyItemByLabel - the key ({@code isReqKey} false) or request key under the label. */
    public native KeyItem c_GetKeyItemByLabel(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, String keyLabel,
            boolean isReqKey);

    /** c_DeleteKeyItemByLabel - deletes the key ({@code isReqKey} false) or request key pair. */
    public native int c_DeleteKeyItemByLabel(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, String keyLabel,
            boolean isReqKey);

    // ---- Certificate import and extraction ----------------------------------------------------

    /**
     * c_ReceivePersonalCertificate - stores a certificate issued for one of the token's request
     * keys; the secondary key database file and its password may be null.
     */
    public native int c_ReceivePersonalCertificate(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword,
            String secondaryKeyDbFileName, String secondaryKeyDbFilePassword,
            String certFileName, boolean isBase64);

    /** c_ImportCertificate - stores a DER certificate with an optional PKCS#8 key. */
    public native int c_ImportCertificate(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword,
            String secondaryKeyDbFileName, String secondaryKeyDbFilePassword, String keyLabel,
            int certDataLen, byte[] certData, int keyDataLen, byte[] keyData);

    /** c_AddSignerCertificate - stores a CA certificate from a file under the label. */
    public native int c_AddSignerCertificate(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, String keyLabel,
            String certFileName, boolean isBase64);

    /** c_ExtractCertificate - writes the certificate under the label to a file. */
    public native int c_ExtractCertificate(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, String keyLabel,
            String certFileName, boolean isBase64);

    // ---- Requests and self-signed certificates ------------------------------------------------

    /** c_ImportPersonalCertificateRequest - stores a DER request with an optional PKCS#8 key. */
    public native int c_ImportPersonalCertificateRequest(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, String keyLabel,
            int certReqDataLen, byte[] certReqData, int keyDataLen, byte[] keyData);

    /** c_RecreatePersonalCertificateRequest - writes the request key's request again. */
    public native int c_RecreatePersonalCertificateRequest(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, String keyLabel,
            int signatureAlgorithm, String certReqFileName);

    /** c_CreateSelfSignedCertificate - makes a key and a self-signed certificate on the token. */
    public native int c_CreateSelfSignedCertificate(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, int version,
            String keyLabel, int keySize, DNItem dnItem, int validityDays,
            int signatureAlgorithm);

    /** c_CreatePersonalCertificateRequest - makes a request key and writes its request. */
    public native int c_CreatePersonalCertificateRequest(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, String keyLabel,
            int keySize, DNItem dnItem, int signatureAlgorithm, String certReqFileName);

    /** c_ExtractPersonalCertificateRequest - writes the request key's request to a file. */
    public native int c_ExtractPersonalCertificateRequest(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, String keyLabel,
            String certReqFileName);

    // ---- Renewal ------------------------------------------------------------------------------

    /** c_IsPersonalCertificateRenewal - whether the DER certificate renews one on the token. */
    public native boolean c_IsPersonalCertificateRenewal(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, int certDataLen,
            byte[] certData);

    /** c_RenewPersonalCertificate - replaces the certificate that the DER certificate renews. */
    public native int c_RenewPersonalCertificate(String cryptographicModuleName,
            String cryptographicTokenLabel, String cryptographicTokenPassword, int certDataLen,
            byte[] certData);

    // ---- Label callbacks ----------------------------------------------------------------------

    /** addTokenLabel - called back once per token label; appends it to the list. */
    public static synchronized void addTokenLabel(String label) {
        tokenLabels.add(label);
    }

    /** getTokenLabels - a copy of the token labels received so far, in order. */
    public static synchronized List<String> getTokenLabels() {
        return Collections.unmodifiableList(new ArrayList<>(tokenLabels));
    }

    /** clearTokenLabels - empties the token label list (before listing again). */
    public static synchronized void clearTokenLabels() {
        tokenLabels.clear();
    }

    /** addPersonalKeyLabel - called back once per label of a key with its private key. */
    public void addPersonalKeyLabel(String label) {
        personalKeyLabels.add(label);
    }

    /** addSignerKeyLabel - called back once per label of a certificate without private key. */
    public void addSignerKeyLabel(String label) {
        signerKeyLabels.add(label);
    }

    /** addRequestKeyLabel - called back once per request key label. */
    public void addRequestKeyLabel(String label) {
        requestKeyLabels.add(label);
    }

    /** getPersonalKeyLabels - a copy of the personal key labels received so far, in order. */
    public List<String> getPersonalKeyLabels() {
        return Collections.unmodifiableList(new ArrayList<>(personalKeyLabels));
    }

    /** getSignerKeyLabels - a copy of the signer certificate labels received so far, in order. */
    public List<String> getSignerKeyLabels() {
        return Collections.unmodifiableList(new ArrayList<>(signerKeyLabels));
    }

    /** getRequestKeyLabels - a copy of the request key labels received so far, in order. */
    public List<String> getRequestKeyLabels() {
        return Collections.unmodifiableList(new ArrayList<>(requestKeyLabels));
    }

    /** clearLabels - empties this object's three label lists (before listing again). */
    public void clearLabels() {
        personalKeyLabels.clear();
        signerKeyLabels.clear();
        requestKeyLabels.clear();
    }
}
