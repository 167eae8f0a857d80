package com.norvex.zav.tolvik.e2e;

import static com.norvex.zav.tolvik.e2e.Kdb.*;
import static org.junit.jupiter.api.Assertions.*;

import com.norvex.zav.tolvik.basic.*;
import java.io.*;
import java.nio.file.*;
import java.security.cert.*;
import java.util.*;
import java.util.stream.Stream;
import org.junit.jupiter.api.*;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.*;

/**
 * KeyDbTest - key databases driven through the Java binding, the bridge and the library, with
 * every file the library writes judged by openssl, keytool or the JDK.
 */
class KeyDbTest {
    private static final String P12 = "p12-Secret9";
    private static final String PW2 = "Changed-passw0rd";
    @TempDir
    static Path shared;
    /** kdb - an RSA CA "ca", a server key "server" it issued, a signer "extca" from openssl. */
    static Kdb kdb;
    static List<String> labels;
    @TempDir
    Path dir;

    @BeforeAll
    static void fixture() throws Exception {
        kdb = Kdb.create(shared, "shared.kdb");
        CMSKeyDatabase db = kdb.db;
        ok(db.c_CreateNewSelfSignedCertificate(kdb.f, PW, 3, "ca", false, 2048, dn("CA"), 3650,
                kdb.at("ca.pem"), true), "CA");
        ok(db.c_CreateNewCertRequest(kdb.f, PW, "server", 2048, dn("s"), kdb.at("s"), true), "req");
        ok(db.c_IssueCertificate(kdb.f, PW, "ca", 3, "", 30, kdb.at("s"), kdb.at("s.pem"), true),
                "issue");
        ok(db.c_ReceiveCert(kdb.f, PW, kdb.at("s.pem"), true, true), "receive");
        ok(db.c_AddCaCert(kdb.f, PW, "extca", sslCert(shared, "extca", "P-256"), true), "signer");
        labels = kdb.labels();
        // The bridge runs on the library of this build, not on one found elsewhere.
        String lib = "/libzav7km_gcc295.so";
        assertEquals(List.of(Path.of(System.getProperty("java.library.path") + lib).toRealPath()
                .toString()), Files.readAllLines(Path.of("/proc/self/maps")).stream()
                .filter(l -> l.endsWith(lib)).map(l -> l.substring(l.indexOf('/'))).distinct()
                .toList());
    }

    /**
     * A chain: CA and server key sizes (RSA from 1024 bits, an EC curve, 25519 Ed25519, 448
     * Ed448), signature selector, version, PEM or DER, natives without selector and extensions.
     * The server key goes out in PKCS#12, read by openssl and keytool.
     */
    @ParameterizedTest(name = "{0}")
    @CsvSource({"rsa2048 sha256 pem, 2048, 2048, 1, 3, true, false",
            "rsa3072 ca p384 key sha384 der, 3072, 384, 2, 3, false, false",
            "p256 sha256, 256, 256, 1, 3, true, false",
            "p521 ca rsa key v1, 521, 2048, 2, 1, true, false",
            "natives without selector, 2048, 2048, 1, 3, true, true",
            "ed25519 ca ed448 key, 25519, 448, 2, 3, true, false",
            "rsa ca ed25519 key der, 2048, 25519, 1, 3, false, false",
            "ed448 ca p256 key natives without selector, 448, 256, 1, 3, true, true"})
    void requestIssueReceive(String name, int caKey, int key, int sig, int version, boolean pem,
            boolean plain) throws Exception {
        Kdb k = Kdb.create(dir, "chain.kdb");
        CMSKeyDatabase db = k.db;
        String cn = "server.e2e.test";
        String san = plain ? "" : "DNS:" + cn + ", DNS:localhost";
        byte[] ext = san(cn, "localhost");
        String csr = k.at("s.csr");
        ok(plain ? db.c_CreateNewSelfSignedCertificate(k.f, PW, 3, "ca", false, caKey, dn("CA"),
                3650, k.at("ca.pem"), true) : db.c_CreateNewSelfSignedCertificateSigExt(k.f, PW, 3,
                "ca", false, caKey, dn("CA"), 3650, sig, 0, null, k.at("ca.pem"), true), "CA");
        contains(ssl(dir, "x509", "-in", "ca.pem", "-noout", "-text"), "CA:TRUE",
                "Certificate Sign", keyText(caKey), sigText(caKey, sig));
        ok(plain ? db.c_CreateNewCertRequest(k.f, PW, "server", key, dn(cn), csr, true)
                : db.c_CreateNewCertRequestSigExt(k.f, PW, "server", key, dn(cn), sig, ext.length,
                ext, csr, true), "request");
        contains(ssl(dir, "req", "-in", csr, "-noout", "-text"), san);
        // The request key writes its request again, signed with the selector, for the same key.
        ok(db.c_ExtractCertReqSig(k.f, PW, "server", sig, k.at("again.csr")), "request again");
        for (String req : List.of(csr, k.at("again.csr"))) {
            ssl(dir, "req", "-in", req, "-verify", "-noout");
            contains(ssl(dir, "req", "-in", req, "-noout", "-text"), "CN = " + cn, keyText(key),
                    sigText(key, sig));
            assertEquals(pubkey(dir, "req", csr), pubkey(dir, "req", req));
        }
        assertEquals(bits(key), db.c_GetKeyItemByLabel(k.f, PW, "server", true).getKeySize());
        assertEquals(List.of("ca"), k.labels());
        assertEquals(List.of("server"), db.getReqKeyLabels());

        String cert = k.at(pem ? "s.pem" : "s.der");
        ok(plain ? db.c_IssueCertificate(k.f, PW, "ca", version, "", 365, csr, cert, pem)
                : db.c_IssueCertificateSig(k.f, PW, "ca", version, "", 365, sig, csr, cert, pem),
                "issue");
        ssl(dir, "x509", "-inform", pem ? "PEM" : "DER", "-in", cert, "-out", "leaf.pem");
        contains(ssl(dir, "verify", "-CAfile", "ca.pem", "leaf.pem"), "leaf.pem: OK");
        String text = ssl(dir, "x509", "-in", "leaf.pem", "-noout", "-text");
        contains(text, "Version: " + version + " ", keyText(key), sigText(caKey, sig), "O = Nor",
                version == 3 ? "Authority Key Identifier" : "CN = " + cn, version == 3 ? san : "");
        assertEquals(version == 3, text.contains("X509v3"), "extensions in v3 only");

        byte[] der = der(dir, cert, pem);
        ok(db.c_ReceiveCert(k.f, PW, cert, pem, true), "receive");
        assertEquals(List.of("ca", "server"), k.labels());
        assertEquals(List.of(), db.getReqKeyLabels());
        KeyItem item = k.key("server");
        assertTrue(item.isDefaultKey() && item.hasPrivateKey() && !k.key("ca").isDefaultKey());
        assertTrue(k.key("ca").isTrusted() && db.c_ValidateCertificateChain(k.f, PW, der,
                der.length));
        CertificateItem[] chain = item.getCertificateChain();
        assertArrayEquals(der, chain[0].getDer());
        X509Certificate jdk = (X509Certificate) CertificateFactory.getInstance("X.509")
                .generateCertificate(new ByteArrayInputStream(der));
        assertEquals(List.of(2, algorithm(key), version, bits(key), serial(dir), sigOid(caKey, sig),
                cn, "CA", "CA", jdk.getNotBefore().getTime() / 1000,
                jdk.getNotAfter().getTime() / 1000).toString(), List.of(chain.length,
                item.getKeyAlgorithm(), chain[0].getVersion(), chain[0].getKeySize(),
                chain[0].getSerialNumber(), chain[0].getSignatureAlgorithmOid(),
                chain[0].getSubject().getCommonName(), chain[0].getIssuer().getCommonName(),
                chain[1].getSubject().getCommonName(), chain[0].getEffectTime(),
                chain[0].getExpireTime()).toString());
        assertEquals(365, (chain[0].getExpireTime() - chain[0].getEffectTime()) / 86400, 1);
        ok(db.c_ExtractCert(k.f, PW, "server", k.at("out"), pem), "c_ExtractCert");
        assertArrayEquals(der, der(dir, "out", pem));

        ok(db.c_ExportToPFXFile(k.f, PW, k.at("s.p12"), P12, new String[] {"server"}), "export");
        assertEquals(Map.of("server", "PrivateKeyEntry"), keytool(dir, "s.p12", P12));
        ssl(dir, "pkcs12", "-in", "s.p12", "-nocerts", "-nodes", "-passin", "pass:" + P12, "-out",
                "s.key");
        assertEquals(pubkey(dir, "x509", "leaf.pem"), pubkey(dir, "pkey", "s.key"));
    }

    @Test
    void pkcs12ExportAndKeyringRoundTrip() throws Exception {
        String in = dir + "/s.p12";
        String pass = "pass:" + P12;
        ok(kdb.db.c_ExportToPFXFile(kdb.f, PW, in, P12, new String[] {"server"}), "export");
        contains(ssl(dir, "pkcs12", "-in", in, "-info", "-noout", "-passin", pass), "MAC: sha256",
                "PBES2, PBKDF2, AES-256-CBC");
        String certs = ssl(dir, "pkcs12", "-in", in, "-nokeys", "-passin", pass);
        assertEquals(3, certs.split("BEGIN CERTIFICATE").length, "certificate and CA");
        contains(certs, "friendlyName: server");
        assertEquals(Map.of("server", "PrivateKeyEntry"), keytool(dir, in, P12));
        ssl(dir, "pkcs12", "-in", in, "-nocerts", "-nodes", "-passin", pass, "-out", "s.key");
        assertEquals(pubkey(shared, "x509", "s.pem"), pubkey(dir, "pkey", "s.key"));
        assertTrue(new WEBDBKeyDatabase().c_IsPasswordRequired(in));

        ok(kdb.db.c_Kdb2Kyr(kdb.f, PW, dir + "/k.kyr", P12), "c_Kdb2Kyr");
        assertEquals(Map.of("ca", "PrivateKeyEntry", "server", "PrivateKeyEntry", "extca",
                "trustedCertEntry"), keytool(dir, "k.kyr", P12));
        ok(kdb.db.c_Kyr2Kdb(dir + "/k.kyr", P12, dir + "/back.kdb", PW2), "c_Kyr2Kdb");
        Kdb back = new Kdb(dir.resolve("back.kdb"), PW2);
        assertEquals(labels, back.labels());
        assertArrayEquals(kdb.key("server").getPublicKey().getBytes(),
                back.key("server").getPublicKey().getBytes());
        assertTrue(back.key("extca").isTrusted());
    }

    /** An import: the label it must get, how openssl writes the PKCS#12 file ("imp": its CN). */
    @ParameterizedTest(name = "{0}")
    @CsvSource({"imported, -name imported", "imp, ''",
            "legacy, -name legacy -keypbe PBE-SHA1-3DES -certpbe PBE-SHA1-3DES -macalg sha1"})
    void pkcs12ImportIsAllOrNothing(String label, String args) throws Exception {
        String pem = sslCert(dir, "imp", "P-384");
        String p12 = dir + "/imp.p12";
        ssl(dir, Stream.concat(Stream.of("pkcs12", "-export", "-inkey", "imp.key", "-in", pem,
                "-passout", "pass:" + P12, "-out", p12), Stream.of(args.split(" ")))
                .filter(a -> !a.isEmpty()).toArray());
        Kdb k = Kdb.create(dir, "import.kdb");
        expect(16, k.db.c_ImportFromPFXFile(k.f, "wrong", p12, P12), "wrong key database password");
        assertNotEquals(0, k.db.c_ImportFromPFXFile(k.f, PW, p12, "wrong"), "wrong p12 password");
        assertEquals(List.of(), k.labels());
        ok(k.db.c_ImportFromPFXFile(k.f, PW, p12, P12), "import");
        assertEquals(List.of(label), k.labels());
        assertTrue(k.key(label).hasPrivateKey() && k.key(label).getKeySize() == 384);
        assertArrayEquals(der(dir, pem, true), k.key(label).getCertificate().getDer());
        // Again: a taken friendlyName is refused; without one the label is made unique instead.
        expect(args.isEmpty() ? 0 : 23, k.db.c_ImportFromPFXFile(k.f, PW, p12, P12), "again");
        assertEquals(args.isEmpty() ? 2 : 1, k.labels().stream().filter(l -> l.startsWith(label))
                .count());
    }

    @Test
    void privateKeysEncryptAndDecryptLikeOpenssl() throws Exception {
        String key = shared + "/extca.key";
        ssl(dir, "pkcs8", "-topk8", "-nocrypt", "-in", key, "-outform", "DER", "-out", "plain");
        byte[] plain = Files.readAllBytes(dir.resolve("plain"));
        Files.write(dir.resolve("ours"), kdb.db.c_EncryptPrivateKey(plain.length, plain, PW2)
                .getDer());
        assertEquals(ssl(dir, "pkey", "-in", key),
                ssl(dir, "pkcs8", "-inform", "DER", "-in", "ours", "-passin", "pass:" + PW2));
        ssl(dir, "pkcs8", "-topk8", "-in", key, "-v2", "aes-256-cbc", "-passout", "pass:" + PW2,
                "-outform", "DER", "-out", "theirs");
        byte[] theirs = Files.readAllBytes(dir.resolve("theirs"));
        assertArrayEquals(plain, kdb.db.c_DecryptPrivateKey(theirs.length, theirs, PW2).getDer());
        assertNull(kdb.db.c_DecryptPrivateKey(theirs.length, theirs, "wrong"), "wrong password");
    }

    /** Change - what an opening row does to its copy of the shared key database. */
    interface Change {
        void apply(Path file) throws Exception;
    }

    static Arguments open(String name, Change change, String pw, Integer... codes) {
        return Arguments.of(name, change, pw, Set.of(codes));
    }

    static Stream<Arguments> opens() {
        Change none = f -> { };
        return Stream.of(open("as made", none, PW, 0), open("wrong password", none, PW2, 16),
                open("changed: old password", f -> pwChange(f, PW), PW, 16),
                open("changed: new password", f -> pwChange(f, PW), PW2, 0),
                open("change from a wrong password", f -> pwChange(f, PW2), PW, 0),
                open("no such file", Files::delete, PW, 101),
                open("random bytes", f -> damage(f, 0, 65536), PW, 17),
                open("an empty file", f -> damage(f, 0, 0), PW, 17, 18),
                open("SQLite of another kind", f -> sh(f.getParent(), "sh", "-c", "rm " + f
                        + "; sqlite3 " + f + " 'create table t(b); insert into t values(1)'"),
                        PW, 17),
                open("cut in half", f -> damage(f, Files.size(f) / 2, 0), PW, 17, 18),
                open("a trigger planted in it", f -> sh(f.getParent(), "sqlite3", f,
                        "CREATE TRIGGER t AFTER INSERT ON keys BEGIN UPDATE keys SET flags = 1; END"),
                        PW, 20),
                open("a row changed in it: the label list", f -> sh(f.getParent(), "sqlite3", f,
                        "UPDATE keys SET flags = flags | 1 WHERE label = 'server'"), PW, 0, 20),
                open("schema page overwritten", f -> damage(f, 100, 3996), PW, 17, 18));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("opens")
    void openGivesACodeAndChangesNothing(String name, Change change, String pw, Set<Integer> codes)
            throws Exception {
        Path file = Files.copy(kdb.file, dir.resolve("copy.kdb"));
        String f = file.toString();
        change.apply(file);
        CMSKeyDatabase db = new CMSKeyDatabase();
        int rc = db.c_OpenKeyDb(f, pw);
        assertTrue(codes.contains(rc), name + " gave " + rc);
        if (rc == 0 && codes.contains(20)) {  // opens, and no read of the changed row goes through
            expect(20, db.c_BuildKeyLabelList(f, pw), "label list over a changed row");
            assertNull(db.c_GetKeyItemByLabel(f, pw, "server", false));
            return;
        }
        if (rc == 0) {
            // The keys are all there, the private keys encrypted under this password.
            assertEquals(labels, new Kdb(file, pw).labels());
            Files.write(dir.resolve("s.epki"), new Kdb(file, pw).key("server")
                    .getEncryptedPrivateKeyInfo().getDer());
            contains(ssl(dir, "asn1parse", "-inform", "DER", "-in", "s.epki"), "PBES2", "aes-256");
            ssl(dir, "pkcs8", "-inform", "DER", "-in", "s.epki", "-passin", "pass:" + pw, "-out",
                    "k");
            assertEquals(pubkey(shared, "x509", "s.pem"), pubkey(dir, "pkey", "k"));
            return;
        }
        byte[] before = Files.exists(file) ? Files.readAllBytes(file) : null;
        // Every other call on the file fails the same way, and leaves the file as it was.
        assertTrue(codes.contains(db.c_BuildKeyLabelList(f, pw)));
        assertNull(db.c_GetKeyItemByLabel(f, pw, "ca", false));
        assertNotEquals(0, db.c_AddCaCert(f, pw, "more", kdb.at("ca.pem"), true));
        assertFalse(db.c_ChangeKeyDbPwd(f, pw, "New-passw0rd", 0));
        assertArrayEquals(before, Files.exists(file) ? Files.readAllBytes(file) : null);
    }

    /** Hostile - a call a careless or hostile Java caller makes on a copy of the shared file. */
    interface Hostile {
        Object call(CMSKeyDatabase db, String f, byte[] der) throws Exception;
    }

    static Arguments hostile(String name, Hostile call, Object expected) {
        return Arguments.of(name, call, expected);
    }

    static Stream<Arguments> hostileCalls() {
        String huge = "x".repeat(1 << 20);
        String ca = kdb.at("ca.pem");
        return Stream.of(
                hostile("a label of a million characters",
                        (db, f, der) -> db.c_AddCaCert(f, PW, huge, ca, true), 65),
                hostile("a password of a million characters",
                        (db, f, der) -> db.c_OpenKeyDb(f, huge), 16),
                hostile("a label holding NUL", (db, f, der) -> db.c_AddCaCert(f, PW, "a\u0000b", ca, true), 65),
                hostile("a label beyond the BMP, read back whole",
                        (db, f, der) -> db.c_AddCaCert(f, PW, "\uD83D\uDE00 \u263A", ca, true) == 0
                                && new Kdb(Path.of(f), PW).labels().contains("\uD83D\uDE00 \u263A"), true),
                hostile("a lone surrogate in a label", (db, f, der) -> db.c_AddCaCert(f, PW, "\uD800", ca, true), 65),
                hostile("a length longer than the array",
                        (db, f, der) -> db.c_EncryptPrivateKey(100, new byte[10], PW), null),
                hostile("a negative length",
                        (db, f, der) -> db.c_DecryptPrivateKey(-1, new byte[10], PW), null),
                hostile("the largest length with one byte",
                        (db, f, der) -> db.c_GetKeyItemsByPublicKey(f, PW, Integer.MAX_VALUE,
                                new byte[1]), null),
                hostile("a certificate one byte longer than said",
                        (db, f, der) -> db.c_CheckCertAsRenewal(f, PW, der.length - 1, der), false),
                hostile("a certificate one byte shorter than said",
                        (db, f, der) -> db.c_ValidateCertificateChain(f, PW, der, der.length + 1),
                        false),
                hostile("a certificate of 17 MiB",
                        (db, f, der) -> db.c_RenewCert(f, PW, 17 << 20, new byte[17 << 20]), 65),
                hostile("no array at all",
                        (db, f, der) -> db.c_RenewCert(f, PW, 5, null), 66));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("hostileCalls")
    void hostileCallersGetACodeOrNull(String name, Hostile call, Object expected) throws Exception {
        Path file = Files.copy(kdb.file, dir.resolve("copy.kdb"));
        byte[] der = Files.readAllBytes(Path.of(kdb.at("s.pem")));
        der = Base64.getMimeDecoder().decode(new String(der).replaceAll("-----[A-Z ]+-----", ""));
        assertEquals(expected, call.call(new CMSKeyDatabase(), file.toString(), der));
        assertTrue(new Kdb(file, PW).labels().containsAll(labels), "the rest is as it was");
    }

    /** pwChange - changes the password from {@code old} to PW2; only PW is accepted. */
    private static void pwChange(Path file, String old) {
        assertEquals(old.equals(PW), new CMSKeyDatabase().c_ChangeKeyDbPwd(file + "", old, PW2, 0));
    }

    /** damage - cuts the file at {@code at}, or overwrites {@code junk} random bytes from there. */
    private static void damage(Path file, long at, int junk) throws Exception {
        byte[] bytes = new byte[junk];
        new Random(junk).nextBytes(bytes);
        try (RandomAccessFile raf = new RandomAccessFile(file.toFile(), "rw")) {
            raf.seek(at);
            raf.write(bytes);
            raf.setLength(junk == 0 ? at : raf.length());
        }
    }

    private static void contains(String text, String... needles) {
        Stream.of(needles).forEach(n -> assertTrue(text.contains(n), () -> n + " not in " + text));
    }

    /** EDDSA - key size asked for to: openssl's name, OID, key algorithm and size shown. */
    private static final Map<Integer, List<Object>> EDDSA = Map.of(
            25519, List.of("ED25519", "1.3.101.112", 3, 256), 448, List.of("ED448", "1.3.101.113", 4, 456));

    /**
     * keyText, sigText, sigOid, algorithm, bits - a key of that size asked for, its signatures
     * with selector 1 or 2 (EdDSA signs without a digest), the algorithm and size the library
     * shows for it.
     */
    private static String keyText(int size) {
        return EDDSA.containsKey(size) ? EDDSA.get(size).get(0) + " Public-Key"
                : size >= 1024 ? "Public-Key: (" + size + " bit)" : "NIST CURVE: P-" + size;
    }

    private static String sigText(int signer, int sig) {
        return EDDSA.containsKey(signer) ? "Signature Algorithm: " + EDDSA.get(signer).get(0)
                : (signer >= 1024 ? "sha%dWithRSAEncryption" : "ecdsa-with-SHA%d")
                        .formatted(sig == 1 ? 256 : 384);
    }

    private static String sigOid(int signer, int sig) {
        return EDDSA.containsKey(signer) ? (String) EDDSA.get(signer).get(1)
                : signer >= 1024 ? "1.2.840.113549.1.1." + (10 + sig)
                        : "1.2.840.10045.4.3." + (1 + sig);
    }

    private static int algorithm(int size) {
        return EDDSA.containsKey(size) ? (int) EDDSA.get(size).get(2) : size >= 1024 ? 1 : 2;
    }

    private static int bits(int size) {
        return EDDSA.containsKey(size) ? (int) EDDSA.get(size).get(3) : size;
    }

    private static String serial(Path dir) {
        return ssl(dir, "x509", "-in", "leaf.pem", "-noout", "-serial").trim().substring(7);
    }
}
