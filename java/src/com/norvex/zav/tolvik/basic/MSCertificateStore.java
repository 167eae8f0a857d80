package com.norvex.zav.tolvik.basic;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/**
 * MSCertificateStore - the natives that work on a platform certificate store reached through a
 * named cryptographic service provider.
 *
 * <p>{@code cspName} and {@code password} may be null. No native keeps the store open: each
 * opens it, does its work and closes it again before returning.
 *
 * <p>Labels arrive through callbacks: {@link #c_BuildKeyLabelList(String, String)} calls
 * {@link #addKeyLabel(String)}, {@link #addPersonalKeyLabel(String)} and
 * {@link #addSignerKeyLabel(String)}, which collect into this object's lists (not synchronised:
 * use one object per thread, or guard it); the static {@link #c_GetCSPNameList()} calls the
 * static {@link #addCSPName(String)}, which collects into one process-wide list guarded by the
 * class lock.
 */
public class MSCertificateStore {
    static {
        System.loadLibrary("zavkjni");
    }

    private static final List<String> cspNames = new ArrayList<>();

    private final List<String> keyLabels = new ArrayList<>();
    private final List<String> personalKeyLabels = new ArrayList<>();
    private final List<String> signerKeyLabels = new ArrayList<>();

    /** MSCertificateStore - an object with empty label lists. */
    public MSCertificateStore() {
    }

    // ---- Discovery, listing and lookup --------------------------------------------------------

    /** c_GetCSPNameList - hands the name of every provider to {@link #addCSPName(String)}. */
    public static native int c_GetCSPNameList();

    /** c_BuildKeyLabelList - hands every label of the store to the three label callbacks. */
    public native int c_BuildKeyLabelList(String cspName, String password);

    /** c_GetKeyItemByLabel - the key under the label. */
    public native KeyItem c_GetKeyItemByLabel(String cspName, String password, String keyLabel);

    /** c_GetKeyItemListByLabel - the keys under the label. */
    public native KeyItem[] c_GetKeyItemListByLabel(String cspName, String password,
            String keyLabel);

    /** c_GetKeyItemsByPublicKey - the keys whose public key is the given DER public key. */
    public native KeyItem[] c_GetKeyItemsByPublicKey(String cspName, String password,
            int publicKeyLen, byte[] publicKey);

    // ---- Maintenance and certificate creation -------------------------------------------------

    /** c_DeleteKeyItemByLabel - deletes the key under the label. */
    public native int c_DeleteKeyItemByLabel(String cspName, String password, String keyLabel);

    /** c_ImportCertificate - stores a DER certificate with an optional PKCS#8 key. */
    public native int c_ImportCertificate(String cspName, String password, String keyLabel,
            int certDataLen, byte[] certData, int keyDataLen, byte[] keyData);

    /** c_AddSignerCertificate - stores a CA certificate from a file under the label. */
    public native int c_AddSignerCertificate(String cspName, String password, String keyLabel,
            String certFileName, boolean isBase64);

    /** c_CreateNewSelfSignedCertificate - makes a key and self-signed certificate in the store. */
    public native int c_CreateNewSelfSignedCertificate(String cspName, String password,
            int version, String keyLabel, int keySize, DNItem dnItem, int validityDays,
            int signatureAlgorithm, int extensionsDataLen, byte[] extensionsData);

    // ---- Label callbacks ----------------------------------------------------------------------

    /** addCSPName - called back once per provider name; appends it to {@link #getCSPNames()}. */
    public static synchronized void addCSPName(String name) {
        cspNames.add(name);
    }

    /** getCSPNames - a copy of the provider names received so far, in order. */
    public static synchronized List<String> getCSPNames() {
        return Collections.unmodifiableList(new ArrayList<>(cspNames));
    }

    /** clearCSPNames - empties the provider name list (before listing again). */
    public static synchronized void clearCSPNames() {
        cspNames.clear();
    }

    /** addKeyLabel - called back once per label of the store. */
    public void addKeyLabel(String label) {
        keyLabels.add(label);
    }

    /** addPersonalKeyLabel - called back once per label of a key with its private key. */
    public void addPersonalKeyLabel(String label) {
        personalKeyLabels.add(label);
    }

    /** addSignerKeyLabel - called back once per label of an entry without private key. */
    public void addSignerKeyLabel(String label) {
        signerKeyLabels.add(label);
    }

    /** getKeyLabels - a copy of all labels received so far, in order. */
    public List<String> getKeyLabels() {
        return Collections.unmodifiableList(new ArrayList<>(keyLabels));
    }

    /** getPersonalKeyLabels - a copy of the personal key labels received so far, in order. */
    public List<String> getPersonalKeyLabels() {
        return Collections.unmodifiableList(new ArrayList<>(personalKeyLabels));
    }

    /** getSignerKeyLabels - a copy of the signer labels received so far, in order. */
    public List<String> getSignerKeyLabels() {
        return Collections.unmodifiableList(new ArrayList<>(signerKeyLabels));
    }

    /** clearLabels - empties this object's three label lists (before listing again). */
    public void clearLabels() {
        keyLabels.clear();
        personalKeyLabels.clear();
        signerKeyLabels.clear();
    }
}
