package com.norvex.zav.tolvik.basic;

/**
 * KeyItem - one key record of a key store, in one of two forms:
 * <ul>
 *   <li>a key with its certificate chain ({@link #isRequestKey()} false), or</li>
 *   <li>a request key: a key pair waiting for its certificate, with the request that was made
 *       for it ({@link #isRequestKey()} true).</li>
 * </ul>
 *
 * <p>The object keeps the arrays and objects it is constructed with; array getters hand out
 * copies. Whether the record carries its private key starts as "an encrypted private key was
 * given" and is then set by the native bridge through {@link #setHasPrivateKey(boolean)}.
 */
public class KeyItem {
    private final String label;
    private final short keyAlgorithm;
    private final short keySize;
    private final EncryptedPrivateKeyInfoItem encryptedPrivateKeyInfo;
    private final CertificateItem[] certificateChain;
    private final BERObject publicKey;
    private final boolean defaultKey;
    private final boolean trusted;
    private final CertificateRequestItem certificateRequest;
    private final boolean requestKey;
    private boolean hasPrivateKey;

    /**
     * KeyItem - a key with its certificate chain.
     *
     * @param label the key's label
     * @param keyAlgorithm the key algorithm as the library numbers it (1 RSA, 2 EC)
     * @param keySize the key size in bits
     * @param encryptedPrivateKeyInfo the encrypted private key, or null
     * @param certificateChain the certificate first, then its issuers; or null
     * @param publicKey the DER SubjectPublicKeyInfo of the key, or null
     * @param defaultKey whether this is the store's default key
     * @param trusted whether the certificate is trusted
     */
    public KeyItem(String label, short keyAlgorithm, short keySize,
            EncryptedPrivateKeyInfoItem encryptedPrivateKeyInfo,
            CertificateItem[] certificateChain, BERObject publicKey, boolean defaultKey,
            boolean trusted) {
        this.label = label;
        this.keyAlgorithm = keyAlgorithm;
        this.keySize = keySize;
        this.encryptedPrivateKeyInfo = encryptedPrivateKeyInfo;
        this.certificateChain = certificateChain;
        this.publicKey = publicKey;
        this.defaultKey = defaultKey;
        this.trusted = trusted;
        this.certificateRequest = null;
        this.requestKey = false;
        this.hasPrivateKey = encryptedPrivateKeyInfo != null;
    }

    /**
     * KeyItem - a request key.
     *
     * @param label the key's label
     * @param keyAlgorithm the key algorithm as the library numbers it (1 RSA, 2 EC)
     * @param keySize the key size in bits
     * @param encryptedPrivateKeyInfo the encrypted private key, or null
     * @param certificateRequest the request made for the key, or null
     * @param publicKey the DER SubjectPublicKeyInfo of the key, or null
     */
    public KeyItem(String label, short keyAlgorithm, short keySize,
            EncryptedPrivateKeyInfoItem encryptedPrivateKeyInfo,
            CertificateRequestItem certificateRequest, BERObject publicKey) {
        this.label = label;
        this.keyAlgorithm = keyAlgorithm;
        this.keySize = keySize;
        this.encryptedPrivateKeyInfo = encryptedPrivateKeyInfo;
        this.certificateChain = null;
        this.publicKey = publicKey;
        this.defaultKey = false;
        this.trusted = false;
        this.certificateRequest = certificateRequest;
        this.requestKey = true;
        this.hasPrivateKey = encryptedPrivateKeyInfo != null;
    }

    /** setHasPrivateKey - records whether the key store holds this record's private key. */
    public void setHasPrivateKey(boolean hasPrivateKey) {
        this.hasPrivateKey = hasPrivateKey;
    }

    /** hasPrivateKey - whether the key store holds this record's private key. */
    public boolean hasPrivateKey() {
        return hasPrivateKey;
    }

    /** isRequestKey - true for a request key, false for a key with certificates. */
    public boolean isRequestKey() {
        return requestKey;
    }

    /** getLabel - the key's label. */
    public String getLabel() {
        return label;
    }

    /** getKeyAlgorithm - the key algorithm as the library numbers it (1 RSA, 2 EC, 3 Ed25519, 4 Ed448). */
    public short getKeyAlgorithm() {
        return keyAlgorithm;
    }

    /** getKeySize - the key size in bits. */
    public short getKeySize() {
        return keySize;
    }

    /** getEncryptedPrivateKeyInfo - the encrypted private key, or null. */
    public EncryptedPrivateKeyInfoItem getEncryptedPrivateKeyInfo() {
        return encryptedPrivateKeyInfo;
    }

    /** getCertificateChain - a copy of the chain (certificate first), or null when none. */
    public CertificateItem[] getCertificateChain() {
        return certificateChain == null ? null : certificateChain.clone();
    }

    /** getCertificate - the key's own certificate (the chain's first), or null. */
    public CertificateItem getCertificate() {
        return certificateChain == null || certificateChain.length == 0 ? null
                : certificateChain[0];
    }

    /** getPublicKey - the DER SubjectPublicKeyInfo of the key, or null. */
    public BERObject getPublicKey() {
        return publicKey;
    }

    /** isDefaultKey - whether this is the store's default key (false for a request key). */
    public boolean isDefaultKey() {
        return defaultKey;
    }

    /** isTrusted - whether the certificate is trusted (false for a request key). */
    public boolean isTrusted() {
        return trusted;
    }

    /** getCertificateRequest - the request of a request key, or null. */
    public CertificateRequestItem getCertificateRequest() {
        return certificateRequest;
    }

    @Override
    public String toString() {
        StringBuilder text = new StringBuilder("KeyItem[")
                .append(requestKey ? "request key \"" : "key \"").append(label)
                .append("\", algorithm ").append(keyAlgorithm)
                .append(", ").append(keySize).append(" bits, private key ")
                .append(hasPrivateKey ? "present" : "absent");
        if (requestKey) {
            text.append(", request=").append(certificateRequest);
        } else {
            String certificates = certificateChain == null ? "none"
                    : String.valueOf(certificateChain.length);
            text.append(defaultKey ? ", default" : "").append(trusted ? ", trusted" : "")
                    .append(", certificates=").append(certificates);
        }
        return text.append(']').toString();
    }
}
