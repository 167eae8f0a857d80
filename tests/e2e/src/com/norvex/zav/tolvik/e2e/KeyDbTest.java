package com.norvex.zav.tolvik.e2e;

import static com.norvex.zav.tolvik.e2e.Kdb.*;
import static org.junit.jupiter.api.Assertions.*;
import static org.junit.jupiter.params.provider.Arguments.arguments;

import com.norvex.zav.tolvik.basic.*;
import java.io.ByteArrayInputStream;
import java.io.RandomAccessFile;
import java.nio.file.*;
import java.nio.file.attribute.PosixFilePermissions;
import java.security.cert.*;
import java.util.*;
import java.util.function.ToIntFunction;
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
    @TempDir
    static Path shared;
    /** kdb - RSA CA "ca", server key "server" it issued, signer "extca"; "req.csr" of another key. */
    static Kdb kdb;
    static List<String> labels;
    @TempDir
    Path dir;

    @BeforeAll
    static void fixture() throws Exception {
        kdb = Kdb.create(shared, "shared.kdb").selfSigned("ca", 2048);
        kdb.receive(kdb.issue(kdb.request("server", 2048, "server.e2e.test"), "server.pem"));
        kdb.addCa("extca", sslCert(shared, "extca", "P-256"));
        labels = kdb.labels();
        sslCert(shared, "foreign", "P-256");
        ssl(shared, "req", "-new", "-key", "foreign.key", "-subj", "/CN=req", "-out", "req.csr");
        Files.write(shared.resolve("garbage.csr"), new byte[] {0x30, (byte) 0x82, 1, 2, 3});
    }

    /** A chain: CA and server key sizes (RSA from 1024 bits, else an EC curve), signature
     * selector, version, PEM or DER, natives without selector and extensions. */
    @ParameterizedTest(name = "{0}")
    @CsvSource({"rsa2048 sha256 pem, 2048, 2048, 1, 3, true, false",
            "rsa3072 ca p384 key sha384 der, 3072, 384, 2, 3, false, false",
            "p256 sha256, 256, 256, 1, 3, true, false", "p521 ca rsa key v1, 521, 2048, 2, 1, true, false",
            "natives without selector, 2048, 2048, 1, 3, true, true"})
    void requestIssueReceive(String name, int caKey, int key, int sig, int version, boolean pem,
            boolean plain) throws Exception {
        Kdb k = Kdb.create(dir, "chain.kdb");
        CMSKeyDatabase db = k.db;
        String cn = "server.e2e.test";
        String san = plain ? "" : "DNS:" + cn + ", DNS:localhost";
        byte[] ext = san(cn, "localhost");
        ok(plain ? db.c_CreateNewSelfSignedCertificate(k.f, k.pw, 3, "ca", false, caKey,
                dn("E2E CA"), 3650, k.at("ca.pem"), true) : db.c_CreateNewSelfSignedCertificateSigExt(
                k.f, k.pw, 3, "ca", false, caKey, dn("E2E CA"), 3650, sig, 0, null, k.at("ca.pem"), true), "CA");
        contains(ssl(dir, "x509", "-in", "ca.pem", "-noout", "-text"), "CA:TRUE", "Certificate Sign",
                keyText(caKey), sigText(caKey, sig));
        ok(plain ? db.c_CreateNewCertRequest(k.f, k.pw, "server", key, dn(cn), k.at("s.csr"), true)
                : db.c_CreateNewCertRequestSigExt(k.f, k.pw, "server", key, dn(cn), sig, ext.length,
                        ext, k.at("s.csr"), true), "request");
        ssl(dir, "req", "-in", "s.csr", "-verify", "-noout");
        contains(ssl(dir, "req", "-in", "s.csr", "-noout", "-text"), "CN = " + cn, keyText(key),
                sigText(key, sig), san);
        // The request key writes its request again, signed with the selector, for the same key.
        ok(db.c_ExtractCertReqSig(k.f, k.pw, "server", sig, k.at("again.csr")), "request again");
        ssl(dir, "req", "-in", "again.csr", "-verify", "-noout");
        assertEquals(pubkey(dir, "req", "s.csr"), pubkey(dir, "req", "again.csr"));
        assertEquals(key, db.c_GetKeyItemByLabel(k.f, k.pw, "server", true).getKeySize());
        assertEquals(List.of("server"), k.requestLabels());

        String cert = k.at(pem ? "s.pem" : "s.der");
        ok(plain ? db.c_IssueCertificate(k.f, k.pw, "ca", version, "", 365, k.at("s.csr"), cert, pem)
                : db.c_IssueCertificateSig(k.f, k.pw, "ca", version, "", 365, sig, k.at("s.csr"), cert,
                        pem), "issue");
        ssl(dir, "x509", "-inform", pem ? "PEM" : "DER", "-in", cert, "-out", "leaf.pem");
        contains(ssl(dir, "verify", "-CAfile", "ca.pem", "leaf.pem"), "leaf.pem: OK");
        String text = ssl(dir, "x509", "-in", "leaf.pem", "-noout", "-text");
        contains(text, "Version: " + version + " ", keyText(key), sigText(caKey, sig), "CN = " + cn,
                "O = Norvex Test", version == 3 ? "Authority Key Identifier" : "", version == 3 ? san : "");
        assertEquals(version == 3, text.contains("X509v3"), "extensions in v3 only");

        byte[] der = der(dir, cert, pem);
        ok(db.c_ReceiveCert(k.f, k.pw, cert, pem, true), "receive");
        assertNull(db.c_GetKeyItemByLabel(k.f, k.pw, "server", true), "request key left");
        assertEquals(List.of(), k.requestLabels());
        assertEquals(List.of("ca", "server"), k.labels());
        KeyItem item = k.key("server");
        assertTrue(item.isDefaultKey() && item.hasPrivateKey() && !k.key("ca").isDefaultKey());
        assertTrue(k.key("ca").isTrusted() && db.c_ValidateCertificateChain(k.f, k.pw, der, der.length));
        CertificateItem[] chain = item.getCertificateChain();
        assertArrayEquals(der, chain[0].getDer());
        assertEquals(String.valueOf(List.of(2, key >= 1024 ? 1 : 2, version, key, serial(dir, "leaf.pem"),
                sigOid(caKey, sig), cn, "E2E CA", "E2E CA")), String.valueOf(List.of(chain.length,
                item.getKeyAlgorithm(), chain[0].getVersion(), chain[0].getKeySize(),
                chain[0].getSerialNumber(), chain[0].getSignatureAlgorithmOid(),
                chain[0].getSubject().getCommonName(), chain[0].getIssuer().getCommonName(),
                chain[1].getSubject().getCommonName())));
        X509Certificate jdk = (X509Certificate) CertificateFactory.getInstance("X.509")
                .generateCertificate(new ByteArrayInputStream(der));
        assertEquals(List.of(jdk.getNotBefore().getTime() / 1000, jdk.getNotAfter().getTime() / 1000),
                List.of(chain[0].getEffectTime(), chain[0].getExpireTime()));
        assertEquals(365, (chain[0].getExpireTime() - chain[0].getEffectTime()) / 86400, 1);
        ok(db.c_ExtractCert(k.f, k.pw, "server", k.at("out"), pem), "c_ExtractCert");
        assertArrayEquals(der, der(dir, "out", pem));
    }

    @ParameterizedTest(name = "serial \"{0}\" is {1}")
    @CsvSource({"1234, 04D2", "0x1F, 1F", "0x00ff00, FF00", "'', random"})
    void serialNumbers(String serial, String expected) {
        ok(kdb.db.c_IssueCertificateSig(kdb.f, kdb.pw, "ca", 3, serial, 30, 1, kdb.at("req.csr"),
                dir.resolve("leaf.pem").toString(), true), "issue");
        String openssl = serial(dir, "leaf.pem");
        assertTrue(expected.equals("random") ? openssl.matches("([0-9A-F]{2}){8,16}")
                : expected.equals(openssl), openssl);
        // Read back from a PKCS#7 file, the certificate shows the same serial.
        ssl(dir, "crl2pkcs7", "-nocrl", "-certfile", "leaf.pem", "-certfile", kdb.at("ca.pem"),
                "-out", "leaf.p7b");
        CertificateItem[] items = kdb.db.c_ExtractCertFromPKCS7Data(dir + "/leaf.p7b", true);
        assertEquals(List.of(2, openssl, "E2E CA"),
                List.of(items.length, items[0].getSerialNumber(), items[1].getSubject().getCommonName()));
    }

    @Test
    void renewDefaultTrustLookupAndDelete() throws Exception {
        Kdb k = Kdb.create(dir, "renew.kdb").selfSigned("ca", 256);
        String csr = k.request("server", 256, "renew.e2e.test");
        byte[] spki = k.receive(k.issue(csr, "first.pem")).key("server").getPublicKey().getBytes();
        // A second certificate for the same request, hence the same key, is a renewal.
        byte[] der = der(dir, k.issue(csr, "second.pem"), true);
        assertTrue(k.db.c_CheckCertAsRenewal(k.f, k.pw, der.length, der));
        ok(k.db.c_RenewCert(k.f, k.pw, der.length, der), "c_RenewCert");
        assertArrayEquals(der, k.key("server").getCertificate().getDer());
        assertArrayEquals(spki, k.key("server").getPublicKey().getBytes());
        byte[] other = der(dir, sslCert(dir, "other", "P-256"), true);
        assertFalse(k.db.c_CheckCertAsRenewal(k.f, k.pw, other.length, other), "foreign key");
        assertFalse(k.db.c_ValidateCertificateChain(k.f, k.pw, other, other.length), "untrusted");

        k.addCa("extca", dir.resolve("other.pem"));
        assertEquals("server", k.db.c_GetDefaultKeyItem(k.f, k.pw).getLabel());
        ok(k.db.c_SetDefaultKey(k.f, k.pw, "ca"), "c_SetDefaultKey");
        assertEquals("ca", k.db.c_GetDefaultKeyItem(k.f, k.pw).getLabel());
        assertFalse(k.key("server").isDefaultKey() || k.key("server").isTrusted());
        ok(k.db.c_SetKeyTrust(k.f, k.pw, "server", true), "trust");
        assertTrue(k.key("server").isTrusted() && k.key("extca").isTrusted());
        ok(k.db.c_SetKeyTrust(k.f, k.pw, "extca", false), "distrust");
        assertFalse(k.key("extca").isTrusted() || k.db.c_IsPrivateKeyPresent(k.f, k.pw, "extca"));
        assertTrue(k.db.c_IsPrivateKeyPresent(k.f, k.pw, "server"));
        assertEquals("server", k.db.c_GetKeyItemsByPublicKey(k.f, k.pw, spki.length, spki)[0].getLabel());
        assertEquals(1, k.db.c_GetKeyItemListByLabel(k.f, k.pw, "server").length);
        ok(k.db.c_DeleteKeyByLabel(k.f, k.pw, "server", false), "delete");
        assertEquals(List.of("ca", "extca"), k.labels());
    }

    static Arguments refusal(String name, int code, ToIntFunction<CMSKeyDatabase> call) {
        return arguments(name, code, call);
    }

    static Stream<Arguments> refusals() {
        String f = kdb.f;
        String p = kdb.pw;
        return Stream.of(
                refusal("RSA key of 1000 bits", 41, db -> db.c_CreateNewSelfSignedCertificate(f, p, 3,
                        "k1000", false, 1000, dn("x"), 30, null, true)),
                refusal("request key of 300 bits", 41, db -> db.c_CreateNewCertRequest(f, p, "r", 300,
                        dn("x"), kdb.at("r.csr"), true)),
                refusal("10000 days", 129, db -> db.c_CreateNewSelfSignedCertificate(f, p, 3, "long",
                        false, 256, dn("x"), 10000, null, true)),
                refusal("label taken", 23, db -> db.c_CreateNewSelfSignedCertificate(f, p, 3, "ca",
                        false, 256, dn("x"), 30, null, true)),
                refusal("no request key", 108, db -> db.c_ReceiveCert(f, p, kdb.at("foreign.pem"),
                        true, false)),
                refusal("export missing", 117, db -> db.c_ExportToPFXFile(f, p, kdb.at("x.p12"), P12,
                        new String[] {"nil"})),
                refusal("serial no number", -1, db -> db.c_IssueCertificate(f, p, "ca", 3, "xyz", 30,
                        kdb.at("req.csr"), kdb.at("x.pem"), true)),
                refusal("CA file of garbage", -1, db -> db.c_AddCaCert(f, p, "garbage",
                        kdb.at("garbage.csr"), false)));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("refusals")
    void refusalsChangeNothing(String name, int code, ToIntFunction<CMSKeyDatabase> call)
            throws Exception {
        byte[] before = Files.readAllBytes(kdb.file);
        int rc = call.applyAsInt(kdb.db);
        if (code < 0) {
            assertNotEquals(0, rc, name + " was accepted");
        } else {
            expect(code, rc, name);
        }
        assertArrayEquals(before, Files.readAllBytes(kdb.file), "a refused call changes nothing");
    }

    @Test
    void pkcs12ExportAndKeyringRoundTrip() throws Exception {
        ok(kdb.db.c_ExportToPFXFile(kdb.f, kdb.pw, dir + "/s.p12", P12, new String[] {"server"}), "export");
        contains(ssl(dir, "pkcs12", "-in", "s.p12", "-info", "-noout", "-passin", "pass:" + P12),
                "MAC: sha256", "PBES2, PBKDF2, AES-256-CBC");
        String certs = ssl(dir, "pkcs12", "-in", "s.p12", "-nokeys", "-passin", "pass:" + P12);
        assertEquals(3, certs.split("-----BEGIN CERTIFICATE-----").length, "certificate and CA");
        contains(certs, "friendlyName: server");
        assertEquals(Map.of("server", "PrivateKeyEntry"), keytool(dir, "s.p12", P12));
        ssl(dir, "pkcs12", "-in", "s.p12", "-nocerts", "-nodes", "-passin", "pass:" + P12, "-out", "s.key");
        assertEquals(pubkey(shared, "x509", "server.pem"), pubkey(dir, "pkey", "s.key"));
        assertTrue(new WEBDBKeyDatabase().c_IsPasswordRequired(dir + "/s.p12"));

        ok(kdb.db.c_Kdb2Kyr(kdb.f, kdb.pw, dir + "/k.kyr", P12), "c_Kdb2Kyr");
        assertEquals(Map.of("ca", "PrivateKeyEntry", "server", "PrivateKeyEntry", "extca",
                "trustedCertEntry"), keytool(dir, "k.kyr", P12));
        ok(kdb.db.c_Kyr2Kdb(dir + "/k.kyr", P12, dir + "/back.kdb", "back-Pw0rd"), "c_Kyr2Kdb");
        Kdb back = new Kdb(dir.resolve("back.kdb"), "back-Pw0rd");
        assertEquals(labels, back.labels());
        assertArrayEquals(kdb.key("server").getPublicKey().getBytes(),
                back.key("server").getPublicKey().getBytes());
        assertTrue(back.key("extca").isTrusted());
    }

    /** An import: the label it must get, how openssl writes the PKCS#12 file ("imp" is its CN). */
    @ParameterizedTest(name = "{0}")
    @CsvSource({"imported, -name imported",
            "legacy, -name legacy -keypbe PBE-SHA1-3DES -certpbe PBE-SHA1-3DES -macalg sha1", "imp, ''"})
    void pkcs12ImportIsAllOrNothing(String label, String args) throws Exception {
        Path pem = sslCert(dir, "imp", "P-384");
        List<Object> export = new ArrayList<>(List.of("pkcs12", "-export", "-inkey", "imp.key", "-in",
                "imp.pem", "-passout", "pass:" + P12, "-out", "imp.p12"));
        export.addAll(args.isEmpty() ? List.of() : List.of(args.split(" ")));
        ssl(dir, export.toArray());
        Kdb k = Kdb.create(dir, "import.kdb");
        String p12 = dir + "/imp.p12";
        expect(16, k.db.c_ImportFromPFXFile(k.f, "wrong", p12, P12), "wrong key database password");
        assertNotEquals(0, k.db.c_ImportFromPFXFile(k.f, k.pw, p12, "wrong"), "wrong PKCS#12 password");
        assertEquals(List.of(), k.labels());
        ok(k.db.c_ImportFromPFXFile(k.f, k.pw, p12, P12), "import");
        assertEquals(List.of(label), k.labels());
        assertTrue(k.key(label).hasPrivateKey() && k.key(label).getKeySize() == 384);
        assertArrayEquals(der(dir, pem, true), k.key(label).getCertificate().getDer());
        // Again: a taken friendlyName is refused; without one the label is made unique instead.
        expect(args.isEmpty() ? 0 : 23, k.db.c_ImportFromPFXFile(k.f, k.pw, p12, P12), "again");
        assertEquals(args.isEmpty() ? 2 : 1, k.labels().stream().filter(l -> l.startsWith(label)).count());
    }

    @Test
    void privateKeysTravelAsPkcs8() throws Exception {
        Files.write(dir.resolve("s.epki"), kdb.key("server").getEncryptedPrivateKeyInfo().getDer());
        contains(ssl(dir, "asn1parse", "-inform", "DER", "-in", "s.epki"), "PBES2", "aes-256-cbc");
        ssl(dir, "pkcs8", "-inform", "DER", "-in", "s.epki", "-passin", "pass:" + kdb.pw, "-out", "s.key");
        assertEquals(pubkey(shared, "x509", "server.pem"), pubkey(dir, "pkey", "s.key"));

        String key = shared + "/foreign.key";
        ssl(dir, "pkcs8", "-topk8", "-nocrypt", "-in", key, "-outform", "DER", "-out", "plain.der");
        byte[] plain = Files.readAllBytes(dir.resolve("plain.der"));
        Files.write(dir.resolve("ours.epki"), kdb.db.c_EncryptPrivateKey(plain.length, plain, "pk8").getDer());
        assertEquals(ssl(dir, "pkey", "-in", key),
                ssl(dir, "pkcs8", "-inform", "DER", "-in", "ours.epki", "-passin", "pass:pk8"));
        ssl(dir, "pkcs8", "-topk8", "-in", key, "-v2", "aes-256-cbc", "-passout", "pass:pk8", "-outform",
                "DER", "-out", "theirs.epki");
        byte[] theirs = Files.readAllBytes(dir.resolve("theirs.epki"));
        assertArrayEquals(plain, kdb.db.c_DecryptPrivateKey(theirs.length, theirs, "pk8").getDer());
        assertNull(kdb.db.c_DecryptPrivateKey(theirs.length, theirs, "wrong"), "wrong password");

        // A key and a request key move into another key database under the same password.
        Kdb k = Kdb.create(dir, "insert.kdb");
        KeyItem s = kdb.key("server");
        byte[] cert = s.getCertificate().getDer();
        byte[] epki = s.getEncryptedPrivateKeyInfo().getDer();
        ok(k.db.c_InsertKey(k.f, k.pw, "copied", cert.length, cert, epki.length, epki, true, false), "insert");
        assertTrue(k.key("copied").hasPrivateKey() && k.key("copied").isDefaultKey());
        assertArrayEquals(s.getPublicKey().getBytes(), k.key("copied").getPublicKey().getBytes());
        Kdb src = Kdb.create(dir, "src.kdb");
        String csr = src.request("pending", 256, "pending.e2e.test");
        KeyItem pending = src.db.c_GetKeyItemByLabel(src.f, src.pw, "pending", true);
        byte[] req = pending.getCertificateRequest().getDer();
        byte[] reqKey = pending.getEncryptedPrivateKeyInfo().getDer();
        ok(k.db.c_InsertReqKey(k.f, k.pw, "pending", req.length, req, reqKey.length, reqKey), "insert req");
        assertEquals(List.of("pending"), k.requestLabels());
        ok(k.db.c_ExtractCertReq(k.f, k.pw, "pending", k.at("again.csr")), "c_ExtractCertReq");
        ssl(dir, "req", "-in", "again.csr", "-verify", "-noout");
        assertEquals(pubkey(dir, "req", csr), pubkey(dir, "req", "again.csr"));
    }

    @Test
    void theBridgeRunsOnTheLibraryOfThisBuild() throws Exception {
        Path lib = Path.of(System.getProperty("java.library.path"), "libzav7km_gcc295.so").toRealPath();
        assertEquals(List.of(lib.toString()), Files.readAllLines(Path.of("/proc/self/maps")).stream()
                .filter(l -> l.endsWith("/libzav7km_gcc295.so")).map(l -> l.substring(l.indexOf('/')))
                .distinct().toList());
    }

    /** Damage - what an opening row does to its copy of the shared key database. */
    interface Damage {
        void apply(Path file) throws Exception;
    }

    static Arguments open(String name, Damage damage, String pw, Integer... codes) {
        return arguments(name, damage, pw, Set.of(codes));
    }

    static Stream<Arguments> opens() {
        return Stream.of(open("as made", f -> { }, PW, 0), open("wrong password", f -> { }, "Wr0ng!", 16),
                open("no such file", Files::delete, PW, 101),
                open("random bytes", f -> Files.write(f, junk(65536)), PW, 17),
                open("a text file", f -> Files.writeString(f, "not a key database\n"), PW, 17),
                open("an empty file", f -> Files.write(f, new byte[0]), PW, 17, 18),
                open("SQLite of another kind", f -> sh(f.getParent(), "sh", "-c", "rm " + f + " && sqlite3 "
                        + f + " 'create table notes(body text); insert into notes values(1);'"), PW, 17),
                open("cut in half", f -> damage(f, Files.size(f) / 2, 0), PW, 17, 18),
                open("cut after the header", f -> damage(f, 100, 0), PW, 17, 18),
                open("schema page overwritten", f -> damage(f, 100, 3996), PW, 17, 18));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("opens")
    void openingGivesACodeAndChangesNothing(String name, Damage damage, String pw, Set<Integer> codes)
            throws Exception {
        Path file = Files.copy(kdb.file, dir.resolve("copy.kdb"));
        String f = file.toString();
        damage.apply(file);
        CMSKeyDatabase db = new CMSKeyDatabase();
        int rc = db.c_OpenKeyDb(f, pw);
        assertTrue(codes.contains(rc), name + " gave " + rc);
        if (rc == 0) {
            assertEquals(labels, new Kdb(file, pw).labels());
            return;
        }
        byte[] before = Files.exists(file) ? Files.readAllBytes(file) : null;
        // Every other call on the file fails the same way, and leaves the file as it was.
        assertTrue(codes.contains(db.c_BuildKeyLabelList(f, pw)));
        assertNull(db.c_GetKeyItemByLabel(f, pw, "ca", false));
        assertNotEquals(0, db.c_AddCaCert(f, pw, "more", kdb.at("ca.pem"), true));
        assertFalse(db.c_ChangeKeyDbPwd(f, pw, "New-passw0rd", 0));
        assertArrayEquals(before, Files.exists(file) ? Files.readAllBytes(file) : null, "file changed");
    }

    @Test
    void passwordCreateChangeStashAndExpiry() throws Exception {
        Kdb old = new Kdb(dir.resolve("expiring.kdb"), PW);
        ok(old.db.c_CreateNewKeyDb(old.f, PW, 1000), "create, 1 s lifetime");
        long expired = System.currentTimeMillis() + 2100;
        Kdb k = Kdb.create(dir, "change.kdb").selfSigned("ca", 256);
        assertEquals("rw-------", PosixFilePermissions.toString(Files.getPosixFilePermissions(k.file)));
        expect(9, k.db.c_CreateNewKeyDb(k.f, k.pw, 0), "create again");
        assertTrue(k.db.c_IsPasswordRequired(k.f));
        String pw2 = "Changed-passw0rd";
        assertFalse(k.db.c_ChangeKeyDbPwd(k.f, "Wrong-passw0rd", pw2, 0), "a change needs the old password");
        ok(k.db.c_OpenKeyDb(k.f, k.pw), "open after the refused create and change");
        assertTrue(k.db.c_ChangeKeyDbPwd(k.f, k.pw, pw2, 0));
        expect(16, k.db.c_OpenKeyDb(k.f, k.pw), "old password");
        ok(k.db.c_OpenKeyDb(k.f, pw2), "new password");
        // The key survived, and its private key now travels under the new password.
        Files.write(dir.resolve("ca.epki"), new Kdb(k.file, pw2).key("ca").getEncryptedPrivateKeyInfo().getDer());
        ssl(dir, "pkcs8", "-inform", "DER", "-in", "ca.epki", "-passin", "pass:" + pw2, "-out", "ca.key");
        assertEquals(pubkey(dir, "x509", "ca.pem"), pubkey(dir, "pkey", "ca.key"));

        expect(16, k.db.c_OpenKeyDb(k.f, ""), "empty password before the stash");
        assertTrue(k.db.c_StashKeyDbPwd(k.f, pw2));
        Path stash = dir.resolve("change.sth");
        assertEquals("rw-------", PosixFilePermissions.toString(Files.getPosixFilePermissions(stash)));
        assertFalse(Files.readString(stash, java.nio.charset.StandardCharsets.ISO_8859_1).contains(pw2));
        ok(k.db.c_OpenKeyDb(k.f, ""), "open through the stash");

        Thread.sleep(Math.max(0, expired - System.currentTimeMillis()));
        expect(70, old.db.c_OpenKeyDb(old.f, PW), "open after the lifetime");
        assertTrue(old.db.c_ChangeKeyDbPwd(old.f, PW, pw2, 0), "a change renews an expired password");
        ok(old.db.c_OpenKeyDb(old.f, pw2), "open after the change");
    }

    private static byte[] junk(int n) {
        byte[] bytes = new byte[n];
        new Random(n).nextBytes(bytes);
        return bytes;
    }

    /** damage - cuts the file at {@code at}, or overwrites {@code junk} bytes from there. */
    private static void damage(Path file, long at, int junk) throws Exception {
        try (RandomAccessFile raf = new RandomAccessFile(file.toFile(), "rw")) {
            raf.seek(at);
            raf.write(junk(junk));
            raf.setLength(junk == 0 ? at : raf.length());
        }
    }

    private static void contains(String text, String... needles) {
        for (String needle : needles) {
            assertTrue(text.contains(needle), () -> "\"" + needle + "\" missing in:\n" + text);
        }
    }

    /** keyText - how openssl's text names a key of that size (RSA from 1024 bits, else EC). */
    private static String keyText(int size) {
        return size >= 1024 ? "Public-Key: (" + size + " bit)" : "NIST CURVE: P-" + size;
    }

    /** sigText, sigOid - the signature of a signer of that key size with selector 1 or 2. */
    private static String sigText(int signer, int sig) {
        return (signer >= 1024 ? "sha%dWithRSAEncryption" : "ecdsa-with-SHA%d").formatted(sig == 1 ? 256 : 384);
    }

    private static String sigOid(int signer, int sig) {
        return signer >= 1024 ? "1.2.840.113549.1.1." + (10 + sig) : "1.2.840.10045.4.3." + (1 + sig);
    }

    static String serial(Path dir, String certPem) {
        return ssl(dir, "x509", "-in", certPem, "-noout", "-serial").trim().substring(7);
    }
}
