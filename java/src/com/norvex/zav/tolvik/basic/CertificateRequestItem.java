package com.norvex.zav.tolvik.basic;

/**
 * CertificateRequestItem - a PKCS#10 certificate request as the key-management library decoded
 * it; made by the native bridge for the request of a request key.
 *
 * <p>The object keeps the arrays and objects it is constructed with; byte-array getters hand out
 * copies.
 */
public class CertificateRequestItem {
    private final short keySize;
    private final DNItem subject;
    private final BERObject subjectPublicKeyInfo;
    private final BERObject attributes;
    private final byte[] signature;
    private final BERObject signatureAlgorithm;
    private final String signatureAlgorithmOid;
    private final String signatureAlgorithmName;
    private final byte[] der;
    private final byte[] certificationRequestInfo;

    /**
     * CertificateRequestItem - a decoded request.
     *
     * @param keySize the size of the requested key in bits
     * @param subject the subject's name, or null
     * @param subjectPublicKeyInfo the DER SubjectPublicKeyInfo
     * @param attributes the DER of the request attributes, or null when there are none
     * @param signature the signature value
     * @param signatureAlgorithm the DER AlgorithmIdentifier of the signature
     * @param signatureAlgorithmOid the signature algorithm's object identifier, dotted
     * @param signatureAlgorithmName the signature algorithm's name
     * @param der the DER of the whole request
     * @param certificationRequestInfo the DER of the request's information part (what is signed)
     */
    public CertificateRequestItem(short keySize, DNItem subject, BERObject subjectPublicKeyInfo,
            BERObject attributes, byte[] signature, BERObject signatureAlgorithm,
            String signatureAlgorithmOid, String signatureAlgorithmName, byte[] der,
            byte[] certificationRequestInfo) {
        this.keySize = keySize;
        this.subject = subject;
        this.subjectPublicKeyInfo = subjectPublicKeyInfo;
        this.attributes = attributes;
        this.signature = signature;
        this.signatureAlgorithm = signatureAlgorithm;
        this.signatureAlgorithmOid = signatureAlgorithmOid;
        this.signatureAlgorithmName = signatureAlgorithmName;
        this.der = der;
        this.certificationRequestInfo = certificationRequestInfo;
    }

    /** getKeySize - the size of the requested key in bits. */
    public short getKeySize() {
        return keySize;
    }

    /** getSubject - the subject's name, or null. */
    public DNItem getSubject() {
        return subject;
    }

    /** getSubjectPublicKeyInfo - the DER SubjectPublicKeyInfo. */
    public BERObject getSubjectPublicKeyInfo() {
        return subjectPublicKeyInfo;
    }

    /** getAttributes - the DER of the request attributes, or null when there are none. */
    public BERObject getAttributes() {
        return attributes;
    }

    /** getSignature - a copy of the signature value, or null. */
    public byte[] getSignature() {
        return signature == null ? null : signature.clone();
    }

    /** getSignatureAlgorithm - the DER AlgorithmIdentifier of the signature. */
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

    /** getDer - a copy of the DER of the whole request, or null. */
    public byte[] getDer() {
        return der == null ? null : der.clone();
    }

    /** getCertificationRequestInfo - a copy of the DER of the information part, or null. */
    public byte[] getCertificationRequestInfo() {
        return certificationRequestInfo == null ? null : certificationRequestInfo.clone();
    }

    @Override
    public String toString() {
        return "CertificateRequestItem[subject={" + subject + "}, key " + keySize + " bits, "
                + signatureAlgorithmName + " (" + signatureAlgorithmOid + "), attributes="
                + (attributes == null ? "none" : attributes.length() + " bytes") + ", der="
                + BERObject.sizeOf(der) + "]";
    }
}
