package com.norvex.zav.tolvik.e2e;

import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;

/** Der - the few DER encodings the tests hand to the library as extension bytes. */
final class Der {
    private static final byte[] SUBJECT_ALT_NAME_OID = {0x06, 0x03, 0x55, 0x1d, 0x11};

    private Der() {
    }

    /** dnsSubjectAltName - an Extensions value holding one subjectAltName of DNS names. */
    static byte[] dnsSubjectAltName(String... dnsNames) {
        ByteArrayOutputStream names = new ByteArrayOutputStream();
        for (String name : dnsNames) {
            names.writeBytes(tlv(0x82, name.getBytes(StandardCharsets.US_ASCII)));
        }
        byte[] value = tlv(0x04, tlv(0x30, names.toByteArray()));
        byte[] extension = tlv(0x30, concat(SUBJECT_ALT_NAME_OID, value));
        return tlv(0x30, extension);
    }

    /** tlv - tag, definite length and contents. */
    static byte[] tlv(int tag, byte[] contents) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        out.write(tag);
        int n = contents.length;
        if (n < 0x80) {
            out.write(n);
        } else if (n < 0x100) {
            out.write(0x81);
            out.write(n);
        } else {
            out.write(0x82);
            out.write(n >> 8);
            out.write(n & 0xff);
        }
        out.writeBytes(contents);
        return out.toByteArray();
    }

    private static byte[] concat(byte[] a, byte[] b) {
        byte[] out = new byte[a.length + b.length];
        System.arraycopy(a, 0, out, 0, a.length);
        System.arraycopy(b, 0, out, a.length, b.length);
        return out;
    }
}
