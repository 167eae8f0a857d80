package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.norvex.zav.tolvik.basic.CMSKeyDatabase;
import com.norvex.zav.tolvik.basic.EncryptedPrivateKeyInfoItem;
import com.norvex.zav.tolvik.basic.KeyItem;
import com.norvex.zav.tolvik.basic.PrivateKeyInfoItem;
import com.norvex.zav.tolvik.basic.WEBDBKeyDatabase;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * ExchangeTest - keys leaving and entering a key database: PKCS#12 files, keyring files and
 * encrypted private keys, each read back by openssl or keytool.
 */
class ExchangeTest {
    private static final String P12_PASSWORD = "p12-Secret9";

    @TempDir
    static Path shared;

    /** kdb - a self-signed CA "ca", a server key "server" it issued, a signer "extca". */
    private static KeyDbFile kdb;

    @TempDir
    Path dir;

    @BeforeAll
    static void makeKeyDatabase() {
        kdb = KeyDbFile.create(shared, "exchange.kdb");
        kdb.selfSigned("ca", 2048, 1, "E2E Exchange CA");
        kdb.serverKey("ca", "server", "exchange.e2e.test");
        Tool.openssl(shared, "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout",
                "extca.key", "-subj", "/CN=External CA", "-days", "30", "-out", "extca.pem");
        kdb.addCa("extca", shared.resolve("extca.pem"), true);
    }

    @Test
    void pkcs12ExportReadsInOpensslAndKeytool() {
        Path p12 = dir.resolve("server.p12");
        Km.ok(kdb.db.c_ExportToPFXFile(kdb.name(), kdb.password, p12.toString(), P12_PASSWORD,
                new String[] {"server"}), "c_ExportToPFXFile");
        String info = Tool.openssl(dir, "pkcs12", "-in", p12.toString(), "-info", "-noout",
                "-passin", "pass:" + P12_PASSWORD);
        assertTrue(info.contains("MAC: sha256"), info);
        assertTrue(info.contains("PBES2, PBKDF2, AES-256-CBC"), info);
        String certs = Tool.openssl(dir, "pkcs12", "-in", p12.toString(), "-nokeys", "-passin",
                "pass:" + P12_PASSWORD);
        assertEquals(2, Tool.count(certs, "-----BEGIN CERTIFICATE-----"), "certificate and CA");
        assertTrue(certs.contains("friendlyName: server"), certs);
        assertEquals(Map.of("server", "PrivateKeyEntry"), Tool.keytoolEntries(dir, p12,
                P12_PASSWORD));

        // The key in the file is the key of the certificate.
        Tool.openssl(dir, "pkcs12", "-in", p12.toString(), "-nocerts", "-nodes", "-passin",
                "pass:" + P12_PASSWORD, "-out", "server.key");
        assertEquals(Tool.certPublicKey(shared, shared.resolve("server.pem")),
                Tool.openssl(dir, "pkey", "-in", "server.key", "-pubout"));
        assertTrue(new WEBDBKeyDatabase().c_IsPasswordRequired(p12.toString()));
    }

    @Test
    void keyringHoldsKeysAndSignersAndConvertsBack() {
        Path kyr = dir.resolve("exchange.kyr");
        Km.ok(kdb.db.c_Kdb2Kyr(kdb.name(), kdb.password, kyr.toString(), P12_PASSWORD),
                "c_Kdb2Kyr");
        Tool.openssl(dir, "pkcs12", "-in", kyr.toString(), "-info", "-noout", "-passin",
                "pass:" + P12_PASSWORD);
        assertEquals(Map.of("ca", "PrivateKeyEntry", "server", "PrivateKeyEntry", "extca",
                "trustedCertEntry"), Tool.keytoolEntries(dir, kyr, P12_PASSWORD));

        Path back = dir.resolve("back.kdb");
        Km.ok(kdb.db.c_Kyr2Kdb(kyr.toString(), P12_PASSWORD, back.toString(), "back-Pw0rd"),
                "c_Kyr2Kdb");
        KeyDbFile copy = KeyDbFile.existing(back, "back-Pw0rd");
        assertEquals(List.of("ca", "extca", "server"), copy.labels().stream().sorted().toList());
        assertArrayEquals(kdb.key("server").getPublicKey().getBytes(),
                copy.key("server").getPublicKey().getBytes());
        assertTrue(copy.key("extca").isTrusted());
    }

    /** Import - one row: how openssl writes the PKCS#12 file, the label it must get. */
    record Import(String name, List<String> exportArgs, String label) {
        @Override
        public String toString() {
            return name;
        }
    }

    static Stream<Import> imports() {
        return Stream.of(
                new Import("AES-256, friendlyName", List.of("-name", "imported"), "imported"),
                new Import("3DES, SHA-1 MAC", List.of("-name", "legacy", "-keypbe",
                        "PBE-SHA1-3DES", "-certpbe", "PBE-SHA1-3DES", "-macalg", "sha1"),
                        "legacy"),
                new Import("no friendlyName", List.of(), "imported.e2e.test"));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("imports")
    void pkcs12ImportIsAllOrNothing(Import row) {
        Tool.openssl(dir, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-384",
                "-nodes", "-keyout", "imp.key", "-subj", "/CN=imported.e2e.test", "-days", "30",
                "-out", "imp.pem");
        List<String> export = new ArrayList<>(List.of("pkcs12", "-export", "-inkey", "imp.key",
                "-in", "imp.pem", "-passout", "pass:" + P12_PASSWORD, "-out", "imp.p12"));
        export.addAll(row.exportArgs());
        Tool.openssl(dir, export.toArray(String[]::new));
        KeyDbFile target = KeyDbFile.create(dir, "import.kdb");
        String p12 = dir.resolve("imp.p12").toString();

        Km.expect(16, target.db.c_ImportFromPFXFile(target.name(), "wrong", p12, P12_PASSWORD),
                "import with a wrong key database password");
        assertNotEquals(0, target.db.c_ImportFromPFXFile(target.name(), target.password, p12,
                "wrong"), "import with a wrong PKCS#12 password");
        assertEquals(List.of(), target.labels());

        Km.ok(target.db.c_ImportFromPFXFile(target.name(), target.password, p12, P12_PASSWORD),
                "import");
        assertEquals(List.of(row.label()), target.labels());
        KeyItem item = target.key(row.label());
        assertEquals(384, item.getKeySize());
        assertTrue(item.hasPrivateKey());
        Tool.openssl(dir, "x509", "-in", "imp.pem", "-outform", "DER", "-out", "imp.der");
        assertArrayEquals(read(dir.resolve("imp.der")), item.getCertificate().getDer());

        if (row.exportArgs().isEmpty()) {
            // Without a friendlyName the label is made unique instead of clashing.
            Km.ok(target.db.c_ImportFromPFXFile(target.name(), target.password, p12,
                    P12_PASSWORD), "second import without friendlyName");
            List<String> labels = target.labels();
            assertEquals(2, labels.size(), labels::toString);
            assertTrue(labels.get(1).startsWith(row.label()) && !labels.get(1).equals(
                    row.label()), labels::toString);
        } else {
            Km.expect(23, target.db.c_ImportFromPFXFile(target.name(), target.password, p12,
                    P12_PASSWORD), "import of a label that is taken");
            assertEquals(List.of(row.label()), target.labels());
        }
    }

    @Test
    void keyItemsPrivateKeyDecryptsWithOpensslUnderTheKeyDbPassword() {
        EncryptedPrivateKeyInfoItem epki = kdb.key("server").getEncryptedPrivateKeyInfo();
        assertNotNull(epki, "the key item carries its encrypted private key");
        write(dir.resolve("server.epki"), epki.getDer());
        String params = Tool.openssl(dir, "asn1parse", "-inform", "DER", "-in", "server.epki");
        assertTrue(params.contains("PBES2") && params.contains("aes-256-cbc"), params);
        Tool.openssl(dir, "pkcs8", "-inform", "DER", "-in", "server.epki", "-passin",
                "pass:" + kdb.password, "-out", "server.key");
        assertEquals(Tool.certPublicKey(shared, shared.resolve("server.pem")),
                Tool.openssl(dir, "pkey", "-in", "server.key", "-pubout"));
    }

    @Test
    void encryptAndDecryptPrivateKeysLikeOpenssl() {
        CMSKeyDatabase db = kdb.db;
        Tool.openssl(dir, "genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048",
                "-out", "plain.pem");
        Tool.openssl(dir, "pkcs8", "-topk8", "-nocrypt", "-in", "plain.pem", "-outform", "DER",
                "-out", "plain.der");
        byte[] plain = read(dir.resolve("plain.der"));

        EncryptedPrivateKeyInfoItem ours = db.c_EncryptPrivateKey(plain.length, plain, "pk8-pw");
        assertNotNull(ours, "c_EncryptPrivateKey");
        write(dir.resolve("ours.epki"), ours.getDer());
        assertEquals(Tool.openssl(dir, "pkey", "-in", "plain.pem"),
                Tool.openssl(dir, "pkcs8", "-inform", "DER", "-in", "ours.epki", "-passin",
                        "pass:pk8-pw"));

        Tool.openssl(dir, "pkcs8", "-topk8", "-in", "plain.pem", "-v2", "aes-256-cbc",
                "-passout", "pass:pk8-pw", "-outform", "DER", "-out", "theirs.epki");
        byte[] theirs = read(dir.resolve("theirs.epki"));
        PrivateKeyInfoItem decrypted = db.c_DecryptPrivateKey(theirs.length, theirs, "pk8-pw");
        assertNotNull(decrypted, "c_DecryptPrivateKey");
        assertArrayEquals(plain, decrypted.getDer());
        decrypted.wipe();
        assertEquals(null, db.c_DecryptPrivateKey(theirs.length, theirs, "wrong"),
                "a wrong password decrypts nothing");
    }

    @Test
    void keyItemsInsertIntoAnotherKeyDatabaseWithTheSamePassword() {
        KeyItem server = kdb.key("server");
        KeyDbFile target = KeyDbFile.create(dir, "insert.kdb");
        byte[] cert = server.getCertificate().getDer();
        byte[] key = server.getEncryptedPrivateKeyInfo().getDer();
        Km.ok(target.db.c_InsertKey(target.name(), target.password, "copied", cert.length, cert,
                key.length, key, true, false), "c_InsertKey");
        KeyItem copied = target.key("copied");
        assertTrue(copied.hasPrivateKey() && copied.isDefaultKey(), copied::toString);
        assertArrayEquals(server.getPublicKey().getBytes(), copied.getPublicKey().getBytes());

        KeyDbFile source = KeyDbFile.create(dir, "source.kdb");
        Path csr = source.request("pending", 2048, 1, "pending.e2e.test");
        KeyItem pending = source.db.c_GetKeyItemByLabel(source.name(), source.password, "pending",
                true);
        assertNotNull(pending, "request key item");
        byte[] req = pending.getCertificateRequest().getDer();
        byte[] reqKey = pending.getEncryptedPrivateKeyInfo().getDer();
        Km.ok(target.db.c_InsertReqKey(target.name(), target.password, "pending", req.length,
                req, reqKey.length, reqKey), "c_InsertReqKey");
        assertEquals(List.of("pending"), target.requestLabels());
        Km.ok(target.db.c_ExtractCertReq(target.name(), target.password, "pending",
                dir.resolve("again.csr").toString()), "c_ExtractCertReq");
        Tool.openssl(dir, "req", "-in", "again.csr", "-verify", "-noout");
        assertEquals(Tool.openssl(dir, "req", "-in", csr.toString(), "-noout", "-pubkey"),
                Tool.openssl(dir, "req", "-in", "again.csr", "-noout", "-pubkey"));
    }

    private static byte[] read(Path file) {
        try {
            return Files.readAllBytes(file);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    private static void write(Path file, byte[] bytes) {
        try {
            Files.write(file, bytes);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }
}
