package com.norvex.zav.tolvik.basic;

import java.util.Arrays;

/**
 * PrivateKeyInfoItem - a private key in clear as a DER PKCS#8 PrivateKeyInfo.
 *
 * <p>The object keeps the array it is constructed with; {@link #getDer()} hands out copies, which
 * the caller should wipe after use. {@link #wipe()} overwrites the kept array with zeros once the
 * key is no longer needed. toString never shows the key bytes.
 */
public class PrivateKeyInfoItem {
    private final byte[] der;

    /** PrivateKeyInfoItem - wraps the DER bytes {@code der}. */
    public PrivateKeyInfoItem(byte[] der) {
        this.der = der;
    }

    /** getDer - a copy of the DER bytes (a secret), or null. */
    public byte[] getDer() {
        return der == null ? null : der.clone();
    }

    /** wipe - overwrites the kept DER bytes with zeros; later copies are all zeros. */
    public void wipe() {
        if (der != null) {
            Arrays.fill(der, (byte) 0);
        }
    }

    @Override
    public String toString() {
        return "PrivateKeyInfoItem[" + BERObject.sizeOf(der) + "]";
    }
}
