package com.norvex.zav.tolvik.bench;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.math.BigInteger;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.Signature;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.security.spec.ECGenParameterSpec;
import java.time.Duration;
import java.time.ZoneOffset;
import java.time.ZonedDateTime;
import java.time.format.DateTimeFormatter;

/**
 * CertMaker - self-signed X.509 v3 certificates made in memory, fast enough to fill stores of
 * ten thousand entries: a DER encoder of the few types a certificate needs and the JDK's
 * signature engines.
 */
final class CertMaker {
    private static final byte[] OID_ECDSA_SHA256 = oid(1, 2, 840, 10045, 4, 3, 2);
    private static final byte[] OID_RSA_SHA256 = oid(1, 2, 840, 113549, 1, 1, 11);
    private static final byte[] OID_COMMON_NAME = oid(2, 5, 4, 3);
    private static final byte[] OID_BASIC_CONSTRAINTS = oid(2, 5, 29, 19);
    private static final byte[] OID_KEY_USAGE = oid(2, 5, 29, 15);
    private static final DateTimeFormatter UTC_TIME = DateTimeFormatter.ofPattern("yyMMddHHmmss'Z'");

    private final KeyPairGenerator ecKeys;
    private final CertificateFactory factory;
    private long serial = 1;

    CertMaker() throws GeneralSecurityException {
        ecKeys = KeyPairGenerator.getInstance("EC");
        ecKeys.initialize(new ECGenParameterSpec("secp256r1"));
        factory = CertificateFactory.getInstance("X.509");
    }

    /** Made - a certificate and the key pair it was made for. */
    record Made(X509Certificate certificate, KeyPair keys) {
    }

    /** ca - a self-signed CA certificate (EC P-256, ECDSA with SHA-256) named {@code cn}. */
    Made ca(String cn) throws GeneralSecurityException {
        KeyPair keys = ecKeys.generateKeyPair();
        byte[] extensions = seq(seq(OID_BASIC_CONSTRAINTS, tlv(0x01, new byte[] {-1}),
                tlv(0x04, seq(tlv(0x01, new byte[] {-1})))),
                seq(OID_KEY_USAGE, tlv(0x01, new byte[] {-1}),
                        tlv(0x04, tlv(0x03, new byte[] {0x01, 0x06}))));
        return new Made(selfSigned(cn, keys, OID_ECDSA_SHA256, new byte[0], "SHA256withECDSA",
                tlv(0xa3, extensions)), keys);
    }

    /** personal - a self-signed RSA certificate of {@code bits} for a personal key. */
    Made personal(String cn, int bits) throws GeneralSecurityException {
        KeyPairGenerator rsa = KeyPairGenerator.getInstance("RSA");
        rsa.initialize(bits);
        KeyPair keys = rsa.generateKeyPair();
        return new Made(selfSigned(cn, keys, OID_RSA_SHA256, new byte[] {0x05, 0x00},
                "SHA256withRSA", new byte[0]), keys);
    }

    private X509Certificate selfSigned(String cn, KeyPair keys, byte[] sigOid, byte[] sigParams,
            String sigName, byte[] extensions) throws GeneralSecurityException {
        byte[] algorithm = seq(sigOid, sigParams);
        byte[] name = seq(tlv(0x31, seq(OID_COMMON_NAME,
                tlv(0x0c, cn.getBytes(StandardCharsets.UTF_8)))));
        ZonedDateTime now = ZonedDateTime.now(ZoneOffset.UTC);
        byte[] validity = seq(utcTime(now.minus(Duration.ofDays(1))),
                utcTime(now.plus(Duration.ofDays(3650))));
        byte[] tbs = seq(tlv(0xa0, tlv(0x02, new byte[] {2})),
                tlv(0x02, BigInteger.valueOf(serial++).toByteArray()), algorithm, name, validity,
                name, keys.getPublic().getEncoded(), extensions);
        Signature signer = Signature.getInstance(sigName);
        signer.initSign(keys.getPrivate());
        signer.update(tbs);
        byte[] signature = signer.sign();
        byte[] bits = new byte[signature.length + 1];
        System.arraycopy(signature, 0, bits, 1, signature.length);
        byte[] der = seq(tbs, algorithm, tlv(0x03, bits));
        return (X509Certificate) factory.generateCertificate(new ByteArrayInputStream(der));
    }

    private static byte[] utcTime(ZonedDateTime time) {
        return tlv(0x17, UTC_TIME.format(time).getBytes(StandardCharsets.US_ASCII));
    }

    private static byte[] seq(byte[]... parts) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        for (byte[] part : parts) {
            out.writeBytes(part);
        }
        return tlv(0x30, out.toByteArray());
    }

    private static byte[] oid(int... arcs) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        out.write(arcs[0] * 40 + arcs[1]);
        for (int i = 2; i < arcs.length; i++) {
            int arc = arcs[i];
            int shift = 28;
            while (shift > 0 && (arc >>> shift) == 0) {
                shift -= 7;
            }
            for (; shift > 0; shift -= 7) {
                out.write(0x80 | ((arc >>> shift) & 0x7f));
            }
            out.write(arc & 0x7f);
        }
        return tlv(0x06, out.toByteArray());
    }

    private static byte[] tlv(int tag, byte[] contents) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        out.write(tag);
        int n = contents.length;
        if (n < 0x80) {
            out.write(n);
        } else {
            int bytes = n < 0x100 ? 1 : n < 0x10000 ? 2 : 3;
            out.write(0x80 | bytes);
            for (int i = bytes - 1; i >= 0; i--) {
                out.write(n >>> (8 * i));
            }
        }
        out.writeBytes(contents);
        return out.toByteArray();
    }
}
