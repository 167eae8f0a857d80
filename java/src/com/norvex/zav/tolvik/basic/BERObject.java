package com.norvex.zav.tolvik.basic;

/**
 * BERObject - one DER-encoded ASN.1 value: a subject public key info, an algorithm identifier,
 * the attributes of a certificate request.
 *
 * <p>The object keeps the array it is constructed with (the native bridge hands over a fresh
 * one); callers must not change that array afterwards. {@link #getBytes()} hands out copies.
 */
public class BERObject {
    private final byte[] der;

    /** BERObject - wraps the DER bytes {@code der} (may be null, which reads as empty). */
    public BERObject(byte[] der) {
        this.der = der;
    }

    /** getBytes - a copy of the DER bytes, or null when the object was made with null. */
    public byte[] getBytes() {
        return der == null ? null : der.clone();
    }

    /** length - the number of DER bytes (0 for null). */
    public int length() {
        return der == null ? 0 : der.length;
    }

    @Override
    public String toString() {
        return "BERObject[" + describe(der) + "]";
    }

    /**
     * describe - a short text for a byte array: its length and its first bytes in hexadecimal,
     * or "null". Used by the toString methods of the value classes.
     */
    static String describe(byte[] bytes) {
        if (bytes == null) {
            return "null";
        }
        final int shown = Math.min(bytes.length, 8);
        StringBuilder text = new StringBuilder().append(bytes.length).append(" bytes");
        if (shown > 0) {
            text.append(':');
            for (int i = 0; i < shown; i++) {
                text.append(String.format(" %02x", bytes[i] & 0xff));
            }
            if (shown < bytes.length) {
                text.append(" ...");
            }
        }
        return text.toString();
    }

    /** sizeOf - the length of a byte array as text, or "null"; for bytes that must not be shown. */
    static String sizeOf(byte[] bytes) {
        return bytes == null ? "null" : bytes.length + " bytes";
    }
}
