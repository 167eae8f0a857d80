package com.norvex.zav.tolvik.basic;

import java.time.Instant;

/**
 * CertificateItem - an X.509 certificate as the key-management library decoded it.
 *
 * <p>Made by the native bridge in one of two forms: decoded (all fields) or, when the library
 * did not decode the certificate, from its DER alone ({@link #isDecoded()} is then false and
 * every getter but {@link #getDer()} answers null, 0 or false).
 *
 * <p>The object keeps the arrays and objects it is constructed with; byte-array getters hand out
 * copies. Validity times are whole seconds since 1970-01-01T00:00:00Z, as the library stores
 * them (a negative value is a time before 1970).
 */
public class CertificateItem {
    private final boolean decoded;
    private final short version;
    private final short keySize;
    private final String serialNumber;
    private final DNItem issuer;
    private final DNItem subject;
    private final long effectTime;
    private final long expireTime;
    private final BERObject subjectPublicKeyInfo;
    private final BERObject extensions;
    private final byte[] signature;
    private final BERObject signatureAlgorithm;
    private final String signatureAlgorithmOid;
    private final String signatureAlgorithmName;
    private final byte[] tbsCertificate;
    private final byte[] der;

    /**
     * CertificateItem - a decoded certificate.
     *
     * @param version the X.509 version as people count it (3 for v3)
     * @param keySize the size of the subject's public key in bits
     * @param serialNumber the serial number, uppercase hexadecimal, two digits a byte
     * @param issuer the issuer's name, or null
     * @param subject the subject's name, or null
     * @param effectTime start of validity, seconds since 1970
     * @param expireTime end of validity, seconds since 1970
     * @param subjectPublicKeyInfo the DER SubjectPublicKeyInfo
     * @param extensions the DER extensions, or null (the bridge always passes null)
     * @param signature the signature value
     * @param signatureAlgorithm the DER AlgorithmIdentifier of the signature
     * @param signatureAlgorithmOid the signature algorithm's object identifier, dotted
     * @param signatureAlgorithmName the signature algorithm's name
     * @param tbsCertificate the DER of the certificate without its signature
     * @param der the DER of the whole certificate
     */
    public CertificateItem(short version, short keySize, String serialNumber, DNItem issuer,
            DNItem subject, long effectTime, long expireTime, BERObject subjectPublicKeyInfo,
            BERObject extensions, byte[] signature, BERObject signatureAlgorithm,
            String signatureAlgorithmOid, String signatureAlgorithmName, byte[] tbsCertificate,
            byte[] der) {
        this.decoded = true;
        this.version = version;
        this.keySize = keySize;
        this.serialNumber = serialNumber;
        this.issuer = issuer;
        this.subject = subject;
        this.effectTime = effectTime;
        this.expireTime = expireTime;
        this.subjectPublicKeyInfo = subjectPublicKeyInfo;
        this.extensions = extensions;
        this.signature = signature;
        this.signatureAlgorithm = signatureAlgorithm;
        this.signatureAlgorithmOid = signatureAlgorithmOid;
        this.signatureAlgorithmName = signatureAlgorithmName;
        this.tbsCertificate = tbsCertificate;
        this.der = der;
    }

    /** CertificateItem - a certificate known by its DER alone (not decoded). */
    public CertificateItem(byte[] der) {
        this.decoded = false;
        this.version = 0;
        this.keySize = 0;
        this.serialNumber = null;
        this.issuer = null;
        this.subject = null;
        this.effectTime = 0L;
        this.expireTime = 0L;
        this.subjectPublicKeyInfo = null;
        this.extensions = null;
        this.signature = null;
        this.signatureAlgorithm = null;
        this.signatureAlgorithmOid = null;
        this.signatureAlgorithmName = null;
        this.tbsCertificate = null;
        this.der = der;
    }

    /** isDecoded - true when made with the full constructor, false when from the DER alone. */
    public boolean isDecoded() {
        return decoded;
    }

    /** getVersion - the X.509 version as people count it (3 for v3); 0 when not decoded. */
    public short getVersion() {
        return version;
    }

    /** getKeySize - the subject public key's size in bits; 0 when not decoded. */
    public short getKeySize() {
        return keySize;
    }

    /** getSerialNumber - the serial number in uppercase hexadecimal, or null. */
    public String getSerialNumber() {
        return serialNumber;
    }

    /** getIssuer - the issuer's name, or null. */
    public DNItem getIssuer() {
        return issuer;
    }

    /** getSubject - the subject's name, or null. */
    public DNItem getSubject() {
        return subject;
    }

    /** getEffectTime - start of validity in seconds since 1970; 0 when not decoded. */
    public long getEffectTime() {
        return effectTime;
    }

    /** getExpireTime - end of validity in seconds since 1970; 0 when not decoded. */
    public long getExpireTime() {
        return expireTime;
    }

    /** getSubjectPublicKeyInfo - the DER SubjectPublicKeyInfo, or null. */
    public BERObject getSubjectPublicKeyInfo() {
        return subjectPublicKeyInfo;
    }

    /** getExtensions - the DER extensions, or null (the bridge does not pass them). */
    public BERObject getExtensions() {
        return extensions;
    }

    /** getSignature - a copy of the signature value, or null. */
    public byte[] getSignature() {
        return signature == null ? null : signature.clone();
    }

    /** getSignatureAlgorithm - the DER AlgorithmIdentifier of the signature, or null. */
    public BERObject getSignatureAlgorithm() {
        return signatureAlgorithm;
    }

    /** getSignatureAlgorithmOid - the signature algorithm's object identifier, or null. */
    public String getSignatureAlgorithmOid() {
        return signatureAlgorithmOid;
    }

    /** getSignatureAlgorithmName - the signature algorithm's name, or null. */
    public String getSignatureAlgorithmName() {
        return signatureAlgorithmName;
    }

    /** getTbsCertificate - a copy of the DER of the certificate without its signature, or null. */
    public byte[] getTbsCertificate() {
        return tbsCertificate == null ? null : tbsCertificate.clone();
    }

    /** getDer - a copy of the DER of the whole certificate, or null. */
    public byte[] getDer() {
        return der == null ? null : der.clone();
    }

    @Override
    public String toString() {
        if (!decoded) {
            return "CertificateItem[not decoded, der=" + BERObject.describe(der) + "]";
        }
        return "CertificateItem[v" + version + ", serial=" + serialNumber + ", subject={" + subject
                + "}, issuer={" + issuer + "}, valid " + Instant.ofEpochSecond(effectTime)
                + " to " + Instant.ofEpochSecond(expireTime) + ", key " + keySize + " bits, "
                + signatureAlgorithmName + " (" + signatureAlgorithmOid + "), der="
                + BERObject.sizeOf(der) + "]";
    }
}
