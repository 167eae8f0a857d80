package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.norvex.zav.tolvik.basic.CMSKeyDatabase;
import com.norvex.zav.tolvik.basic.CertificateItem;
import com.norvex.zav.tolvik.basic.KeyItem;
import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import java.util.List;
import java.util.function.ToIntFunction;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * CertificatesTest - self-signed CAs, requests, issued, received and renewed certificates, each
 * checked by openssl: the request's self-signature, the chain, the extensions and key sizes.
 */
class CertificatesTest {
    @TempDir
    Path dir;

    /**
     * Chain - one row: key sizes of the CA and the server key (1024 and more RSA, 256/384/521
     * EC), signature selector, version of the issued certificate, PEM or DER certificate file,
     * and whether the natives without selector and extensions are used.
     */
    record Chain(String name, int caKey, int leafKey, int sig, int version, boolean pem,
            boolean plain) {
        @Override
        public String toString() {
            return name;
        }
    }

    static Stream<Chain> chains() {
        return Stream.of(
                new Chain("rsa2048 sha256 pem", 2048, 2048, 1, 3, true, false),
                new Chain("rsa3072 ca, p384 key, sha384, der", 3072, 384, 2, 3, false, false),
                new Chain("p256 sha256", 256, 256, 1, 3, true, false),
                new Chain("p521 ca, rsa key, v1 certificate", 521, 2048, 2, 1, true, false),
                new Chain("natives without selector", 2048, 2048, 1, 3, true, true));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("chains")
    void requestIssueReceiveAndVerify(Chain row) throws Exception {
        KeyDbFile kdb = KeyDbFile.create(dir, "chain.kdb");
        CMSKeyDatabase db = kdb.db;
        String cn = "server.e2e.test";
        Path caPem = kdb.path("ca.pem");
        Km.ok(row.plain()
                ? db.c_CreateNewSelfSignedCertificate(kdb.name(), kdb.password, 3, "ca", false,
                        row.caKey(), KeyDbFile.dn("E2E CA"), 3650, caPem.toString(), true)
                : db.c_CreateNewSelfSignedCertificateSigExt(kdb.name(), kdb.password, 3, "ca",
                        false, row.caKey(), KeyDbFile.dn("E2E CA"), 3650, row.sig(), 0, null,
                        caPem.toString(), true), "self-signed CA");
        assertContains(Tool.openssl(dir, "x509", "-in", "ca.pem", "-noout", "-text"),
                "CA:TRUE", "Certificate Sign", keyText(row.caKey()),
                signatureText(row.caKey(), row.sig()));

        Path csr = kdb.path("server.csr");
        byte[] ext = Der.dnsSubjectAltName(cn, "localhost");
        Km.ok(row.plain()
                ? db.c_CreateNewCertRequest(kdb.name(), kdb.password, "server", row.leafKey(),
                        KeyDbFile.dn(cn), csr.toString(), true)
                : db.c_CreateNewCertRequestSigExt(kdb.name(), kdb.password, "server",
                        row.leafKey(), KeyDbFile.dn(cn), row.sig(), ext.length, ext,
                        csr.toString(), true), "request");
        Tool.openssl(dir, "req", "-in", "server.csr", "-verify", "-noout");
        String reqText = Tool.openssl(dir, "req", "-in", "server.csr", "-noout", "-text");
        assertContains(reqText, "CN = " + cn, keyText(row.leafKey()),
                signatureText(row.leafKey(), row.sig()));
        if (!row.plain()) {
            assertContains(reqText, "DNS:" + cn + ", DNS:localhost");
        }

        // The request key writes its request again, signed with the selector, for the same key.
        Km.ok(db.c_ExtractCertReqSig(kdb.name(), kdb.password, "server", row.sig(),
                kdb.path("again.csr").toString()), "c_ExtractCertReqSig");
        Tool.openssl(dir, "req", "-in", "again.csr", "-verify", "-noout");
        assertEquals(Tool.openssl(dir, "req", "-in", "server.csr", "-noout", "-pubkey"),
                Tool.openssl(dir, "req", "-in", "again.csr", "-noout", "-pubkey"));
        KeyItem requestKey = db.c_GetKeyItemByLabel(kdb.name(), kdb.password, "server", true);
        assertNotNull(requestKey, "request key item");
        assertTrue(requestKey.isRequestKey());
        assertEquals(row.leafKey(), requestKey.getKeySize());
        assertEquals(List.of("server"), kdb.requestLabels());

        Path cert = kdb.path(row.pem() ? "server.pem" : "server.der");
        Km.ok(row.plain()
                ? db.c_IssueCertificate(kdb.name(), kdb.password, "ca", row.version(), "",
                        365, csr.toString(), cert.toString(), row.pem())
                : db.c_IssueCertificateSig(kdb.name(), kdb.password, "ca", row.version(), "",
                        365, row.sig(), csr.toString(), cert.toString(), row.pem()), "issue");
        Tool.openssl(dir, "x509", "-inform", row.pem() ? "PEM" : "DER", "-in", cert.toString(),
                "-out", "leaf.pem");
        Tool.openssl(dir, "x509", "-in", "leaf.pem", "-outform", "DER", "-out", "leaf.der");
        assertContains(Tool.openssl(dir, "verify", "-CAfile", "ca.pem", "leaf.pem"),
                "leaf.pem: OK");
        String certText = Tool.openssl(dir, "x509", "-in", "leaf.pem", "-noout", "-text");
        assertContains(certText, "Version: " + row.version() + " ", keyText(row.leafKey()),
                signatureText(row.caKey(), row.sig()), "CN = " + cn, "O = Norvex Test");
        if (row.version() == 3) {
            assertContains(certText, "Subject Key Identifier", "Authority Key Identifier");
            if (!row.plain()) {
                assertContains(certText, "DNS:" + cn + ", DNS:localhost");
            }
        } else {
            assertFalse(certText.contains("X509v3"), "a v1 certificate has no extensions");
        }

        Km.ok(db.c_ReceiveCert(kdb.name(), kdb.password, cert.toString(), row.pem(), true),
                "receive");
        assertNull(db.c_GetKeyItemByLabel(kdb.name(), kdb.password, "server", true),
                "the request key became a personal key");
        assertEquals(List.of(), kdb.requestLabels());
        assertEquals(List.of("ca", "server"), kdb.labels().stream().sorted().toList());

        byte[] der = Files.readAllBytes(kdb.path("leaf.der"));
        KeyItem key = kdb.key("server");
        assertTrue(key.isDefaultKey() && key.hasPrivateKey(), key::toString);
        assertEquals(row.leafKey(), key.getKeySize());
        assertEquals(row.leafKey() >= 1024 ? 1 : 2, key.getKeyAlgorithm());
        CertificateItem[] chain = key.getCertificateChain();
        assertEquals(2, chain.length, "certificate and CA");
        assertArrayEquals(der, chain[0].getDer());
        assertEquals(row.version(), chain[0].getVersion());
        assertEquals(row.leafKey(), chain[0].getKeySize());
        assertEquals(opensslSerial(dir, "leaf.pem"), chain[0].getSerialNumber());
        assertEquals(signatureOid(row.caKey(), row.sig()), chain[0].getSignatureAlgorithmOid());
        assertEquals(cn, chain[0].getSubject().getCommonName());
        assertEquals("E2E CA", chain[1].getSubject().getCommonName());
        assertEquals("E2E CA", chain[0].getIssuer().getCommonName());
        KeyItem ca = kdb.key("ca");
        assertTrue(ca.isTrusted() && !ca.isDefaultKey(), ca::toString);
        assertTrue(db.c_ValidateCertificateChain(kdb.name(), kdb.password, der, der.length));

        // Validity as asked, as the JDK's own decoder reads it.
        X509Certificate jdk = (X509Certificate) CertificateFactory.getInstance("X.509")
                .generateCertificate(new ByteArrayInputStream(der));
        assertEquals(jdk.getNotBefore().getTime() / 1000, chain[0].getEffectTime());
        assertEquals(jdk.getNotAfter().getTime() / 1000, chain[0].getExpireTime());
        long days = (chain[0].getExpireTime() - chain[0].getEffectTime()) / 86400;
        assertTrue(days >= 364 && days <= 366, () -> "valid for " + days + " days");

        Path extracted = kdb.path(row.pem() ? "extracted.pem" : "extracted.der");
        Km.ok(db.c_ExtractCert(kdb.name(), kdb.password, "server", extracted.toString(),
                row.pem()), "c_ExtractCert");
        assertEquals(Tool.fingerprint(dir, kdb.path("leaf.pem"), true),
                Tool.fingerprint(dir, extracted, row.pem()));
    }

    @ParameterizedTest(name = "serial \"{0}\" is {1}")
    @CsvSource({"1234, 04D2", "0x1F, 1F", "0x00ff00, FF00", "'', random"})
    void serialNumbers(String serial, String expected) {
        KeyDbFile kdb = KeyDbFile.create(dir, "serial.kdb");
        kdb.selfSigned("ca", 256, 1, "E2E CA");
        Path csr = kdb.request("server", 256, 1, "serial.e2e.test");
        Km.ok(kdb.db.c_IssueCertificateSig(kdb.name(), kdb.password, "ca", 3, serial, 30, 1,
                csr.toString(), kdb.path("leaf.pem").toString(), true), "issue");
        String openssl = opensslSerial(dir, "leaf.pem");
        if (expected.equals("random")) {
            assertTrue(openssl.matches("([0-9A-F]{2}){8,16}"), openssl);
        } else {
            assertEquals(expected, openssl);
        }
        // The certificate read back through a PKCS#7 file shows the same serial.
        Tool.openssl(dir, "crl2pkcs7", "-nocrl", "-certfile", "leaf.pem", "-certfile", "ca.pem",
                "-out", "leaf.p7b");
        CertificateItem[] items = kdb.db.c_ExtractCertFromPKCS7Data(
                kdb.path("leaf.p7b").toString(), true);
        assertNotNull(items, "c_ExtractCertFromPKCS7Data");
        assertEquals(2, items.length);
        assertEquals(openssl, items[0].getSerialNumber());
        assertEquals("E2E CA", items[1].getSubject().getCommonName());
    }

    @Test
    void renewalReplacesTheCertificateAndKeepsTheKey() throws IOException {
        KeyDbFile kdb = KeyDbFile.create(dir, "renew.kdb");
        kdb.selfSigned("ca", 256, 1, "E2E CA");
        Path csr = kdb.request("server", 256, 1, "renew.e2e.test");
        kdb.receive(kdb.issue("ca", csr, "first.pem"));
        byte[] publicKey = kdb.key("server").getPublicKey().getBytes();

        // A second certificate for the same request, hence the same key, is a renewal.
        Path second = kdb.issue("ca", csr, "second.pem");
        Tool.openssl(dir, "x509", "-in", "second.pem", "-outform", "DER", "-out", "second.der");
        byte[] der = Files.readAllBytes(kdb.path("second.der"));
        assertTrue(kdb.db.c_CheckCertAsRenewal(kdb.name(), kdb.password, der.length, der));
        Km.ok(kdb.db.c_RenewCert(kdb.name(), kdb.password, der.length, der), "c_RenewCert");
        KeyItem renewed = kdb.key("server");
        assertArrayEquals(der, renewed.getCertificate().getDer());
        assertArrayEquals(publicKey, renewed.getPublicKey().getBytes());
        assertEquals(opensslSerial(dir, second.getFileName().toString()),
                renewed.getCertificate().getSerialNumber());

        // A certificate of a key the file does not hold renews nothing.
        Tool.openssl(dir, "req", "-x509", "-newkey", "ec", "-pkeyopt",
                "ec_paramgen_curve:P-256", "-nodes", "-keyout", "other.key", "-subj",
                "/CN=other", "-days", "2", "-outform", "DER", "-out", "other.der");
        byte[] other = Files.readAllBytes(kdb.path("other.der"));
        assertFalse(kdb.db.c_CheckCertAsRenewal(kdb.name(), kdb.password, other.length, other));
        assertFalse(kdb.db.c_ValidateCertificateChain(kdb.name(), kdb.password, other,
                other.length), "an unknown self-signed certificate is not trusted");
    }

    @Test
    void defaultKeyTrustLookupAndDelete() {
        KeyDbFile kdb = KeyDbFile.create(dir, "maintain.kdb");
        CMSKeyDatabase db = kdb.db;
        kdb.selfSigned("ca", 256, 1, "E2E CA");
        kdb.serverKey("ca", "server", "maintain.e2e.test");
        Tool.openssl(dir, "req", "-x509", "-newkey", "ec", "-pkeyopt",
                "ec_paramgen_curve:P-256", "-nodes", "-keyout", "ext.key", "-subj",
                "/CN=External CA", "-days", "2", "-out", "ext.pem");
        kdb.addCa("extca", kdb.path("ext.pem"), true);

        assertEquals("server", db.c_GetDefaultKeyItem(kdb.name(), kdb.password).getLabel());
        Km.ok(db.c_SetDefaultKey(kdb.name(), kdb.password, "ca"), "c_SetDefaultKey");
        assertEquals("ca", db.c_GetDefaultKeyItem(kdb.name(), kdb.password).getLabel());
        assertFalse(kdb.key("server").isDefaultKey());

        assertFalse(kdb.key("server").isTrusted(), "a received certificate is not an anchor");
        Km.ok(db.c_SetKeyTrust(kdb.name(), kdb.password, "server", true), "trust");
        assertTrue(kdb.key("server").isTrusted());
        assertTrue(kdb.key("extca").isTrusted(), "a stored signer certificate is trusted");
        Km.ok(db.c_SetKeyTrust(kdb.name(), kdb.password, "extca", false), "distrust");
        assertFalse(kdb.key("extca").isTrusted());

        assertTrue(db.c_IsPrivateKeyPresent(kdb.name(), kdb.password, "server"));
        assertFalse(db.c_IsPrivateKeyPresent(kdb.name(), kdb.password, "extca"));
        byte[] spki = kdb.key("server").getPublicKey().getBytes();
        KeyItem[] byKey = db.c_GetKeyItemsByPublicKey(kdb.name(), kdb.password, spki.length,
                spki);
        assertNotNull(byKey);
        assertEquals(List.of("server"), Stream.of(byKey).map(KeyItem::getLabel).toList());
        KeyItem[] byLabel = db.c_GetKeyItemListByLabel(kdb.name(), kdb.password, "server");
        assertNotNull(byLabel);
        assertEquals(1, byLabel.length);

        Km.ok(db.c_DeleteKeyByLabel(kdb.name(), kdb.password, "server", false), "delete");
        assertNull(db.c_GetKeyItemByLabel(kdb.name(), kdb.password, "server", false));
        assertEquals(List.of("ca", "extca"), kdb.labels().stream().sorted().toList());
    }

    /** Refusal - one row: what is asked of the fixture, the code it must give (-1: not 0). */
    record Refusal(String name, int code, ToIntFunction<KeyDbFile> call) {
        @Override
        public String toString() {
            return name;
        }
    }

    static Stream<Refusal> refusals() {
        return Stream.of(
                new Refusal("RSA key of 1000 bits", 41, f -> f.db.c_CreateNewSelfSignedCertificate(
                        f.name(), f.password, 3, "k1000", false, 1000, KeyDbFile.dn("x"), 30,
                        null, true)),
                new Refusal("request key of 300 bits", 41, f -> f.db.c_CreateNewCertRequest(
                        f.name(), f.password, "r300", 300, KeyDbFile.dn("x"),
                        f.path("r300.csr").toString(), true)),
                new Refusal("validity of 10000 days", 129,
                        f -> f.db.c_CreateNewSelfSignedCertificate(f.name(), f.password, 3,
                                "long", false, 256, KeyDbFile.dn("x"), 10000, null, true)),
                new Refusal("label taken", 23, f -> f.db.c_CreateNewSelfSignedCertificate(
                        f.name(), f.password, 3, "ca", false, 256, KeyDbFile.dn("x"), 30, null,
                        true)),
                new Refusal("certificate without request key", 108, f -> f.db.c_ReceiveCert(
                        f.name(), f.password, f.path("foreign.pem").toString(), true, false)),
                new Refusal("extract a missing label", 117, f -> f.db.c_ExtractCert(f.name(),
                        f.password, "missing", f.path("missing.pem").toString(), true)),
                new Refusal("delete a missing label", 117,
                        f -> f.db.c_DeleteKeyByLabel(f.name(), f.password, "missing", false)),
                new Refusal("default a missing label", 117,
                        f -> f.db.c_SetDefaultKey(f.name(), f.password, "missing")),
                new Refusal("trust a missing label", 117,
                        f -> f.db.c_SetKeyTrust(f.name(), f.password, "missing", true)),
                new Refusal("export a missing label", 117, f -> f.db.c_ExportToPFXFile(f.name(),
                        f.password, f.path("missing.p12").toString(), "p12",
                        new String[] {"missing"})),
                new Refusal("serial that is no number", -1, f -> f.db.c_IssueCertificate(
                        f.name(), f.password, "ca", 3, "xyz", 30, f.path("req.csr").toString(),
                        f.path("xyz.pem").toString(), true)),
                new Refusal("issuer that is missing", -1, f -> f.db.c_IssueCertificate(
                        f.name(), f.password, "missing", 3, "1", 30,
                        f.path("req.csr").toString(), f.path("noissuer.pem").toString(), true)),
                new Refusal("request file of garbage", -1, f -> f.db.c_IssueCertificate(
                        f.name(), f.password, "ca", 3, "1", 30, f.path("garbage.csr").toString(),
                        f.path("garbage.pem").toString(), true)),
                new Refusal("CA file of garbage", -1, f -> f.db.c_AddCaCert(f.name(),
                        f.password, "garbage", f.path("garbage.csr").toString(), false)));
    }

    @TempDir
    static Path refusalDir;

    /** refusalFixture - a CA, a request key, a foreign certificate and a garbage file. */
    private static KeyDbFile refusalFixture;

    @BeforeAll
    static void makeRefusalFixture() throws IOException {
        refusalFixture = KeyDbFile.create(refusalDir, "refusals.kdb");
        refusalFixture.selfSigned("ca", 256, 1, "E2E CA");
        refusalFixture.request("req", 256, 1, "req.e2e.test");
        Tool.openssl(refusalDir, "req", "-x509", "-newkey", "ec", "-pkeyopt",
                "ec_paramgen_curve:P-256", "-nodes", "-keyout", "foreign.key", "-subj",
                "/CN=foreign", "-days", "2", "-out", "foreign.pem");
        Files.write(refusalDir.resolve("garbage.csr"), new byte[] {0x30, (byte) 0x82, 1, 2, 3});
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("refusals")
    void refusals(Refusal row) {
        List<String> before = refusalFixture.labels();
        int rc = row.call().applyAsInt(refusalFixture);
        if (row.code() < 0) {
            assertNotEquals(0, rc, () -> row.name() + " was accepted");
        } else {
            Km.expect(row.code(), rc, row.name());
        }
        assertEquals(before, refusalFixture.labels(), "a refused call changes nothing");
    }

    private static void assertContains(String text, String... needles) {
        for (String needle : needles) {
            assertTrue(text.contains(needle), () -> "\"" + needle + "\" missing in:\n" + text);
        }
    }

    /** keyText - how openssl's text output names a key of that size. */
    private static String keyText(int keySize) {
        return switch (keySize) {
            case 256 -> "NIST CURVE: P-256";
            case 384 -> "NIST CURVE: P-384";
            case 521 -> "NIST CURVE: P-521";
            default -> "Public-Key: (" + keySize + " bit)";
        };
    }

    /** signatureText - how openssl names the signature of a key of that size with selector. */
    private static String signatureText(int signerKeySize, int sig) {
        String digest = sig == 1 ? "256" : "384";
        return signerKeySize >= 1024 ? "sha" + digest + "WithRSAEncryption"
                : "ecdsa-with-SHA" + digest;
    }

    private static String signatureOid(int signerKeySize, int sig) {
        return signerKeySize >= 1024 ? (sig == 1 ? "1.2.840.113549.1.1.11" : "1.2.840.113549.1.1.12")
                : (sig == 1 ? "1.2.840.10045.4.3.2" : "1.2.840.10045.4.3.3");
    }

    /** opensslSerial - the serial number as "serial=..." of openssl, without the prefix. */
    static String opensslSerial(Path dir, String certPem) {
        return Tool.openssl(dir, "x509", "-in", certPem, "-noout", "-serial").trim()
                .substring("serial=".length());
    }
}
