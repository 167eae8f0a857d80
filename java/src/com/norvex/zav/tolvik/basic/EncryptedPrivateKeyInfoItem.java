package com.norvex.zav.tolvik.basic;

/**
 * EncryptedPrivateKeyInfoItem - a private key as a DER PKCS#8 EncryptedPrivateKeyInfo.
 *
 * <p>The object keeps the array it is constructed with; {@link #getDer()} hands out copies.
 */
public class EncryptedPrivateKeyInfoItem {
    private final byte[] der;

    /** EncryptedPrivateKeyInfoItem - wraps the DER bytes {@code der}. */
    public EncryptedPrivateKeyInfoItem(byte[] der) {
        this.der = der;
    }

    /** getDer - a copy of the DER bytes, or null. */
    public byte[] getDer() {
        return der == null ? null : der.clone();
    }

    @Override
    public String toString() {
        return "EncryptedPrivateKeyInfoItem[" + BERObject.sizeOf(der) + "]";
    }
}
