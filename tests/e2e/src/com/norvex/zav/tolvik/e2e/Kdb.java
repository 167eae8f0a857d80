package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.*;

import com.norvex.zav.tolvik.basic.*;
import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.util.*;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/**
 * Kdb - one key database file of a scenario and the calls made on it, each checked for return
 * code 0, plus the outside tools (openssl, keytool, sqlite3) that judge what the library wrote.
 */
final class Kdb {
    static final String PW = "e2e-Passw0rd!";
    private static final Pattern ENTRY =
            Pattern.compile("(?m)^([^,\\n]+), [^\\n]*?, (PrivateKeyEntry|trustedCertEntry),\\s*$");
    private static boolean initialised;
    final Path dir;
    final Path file;
    final String pw;
    final String f;
    final CMSKeyDatabase db = new CMSKeyDatabase();

    /** Kdb - a key database file made elsewhere (a copy, a conversion). */
    Kdb(Path file, String pw) {
        init();
        this.file = file;
        this.f = file.toString();
        this.dir = file.getParent();
        this.pw = pw;
    }

    static Kdb create(Path dir, String name) {
        Kdb kdb = new Kdb(dir.resolve(name), PW);
        ok(kdb.db.c_CreateNewKeyDb(kdb.f, PW, 0), "create " + name);
        return kdb;
    }

    /** init - the library, initialised once a JVM and cleaned up when it exits. */
    static synchronized void init() {
        if (!initialised) {
            assertEquals(0, KMSystem.c_ZAVKMInit(false), "c_ZAVKMInit");
            CMSKeyDatabaseException.c_BuildErrCodeNameTable();
            Runtime.getRuntime().addShutdownHook(new Thread(KMSystem::c_ZAVKMCleanAll));
            initialised = true;
        }
    }

    static void expect(int want, int rc, String step) {
        assertEquals(want, rc, () -> step + ": want " + want + " " + CMSKeyDatabaseException
                .nameOf(want) + ", got " + rc + " " + CMSKeyDatabaseException.nameOf(rc));
    }

    static void ok(int rc, String step) {
        expect(0, rc, step);
    }

    String at(String name) {
        return dir.resolve(name).toString();
    }

    static DNItem dn(String cn) {
        return new DNItem(cn, "E2E", "Norvex Test", "Oslo", null, null, "NO", null, null);
    }

    /** selfSigned - a self-signed CA "{label}", its certificate written to "{label}.pem". */
    Kdb selfSigned(String label, int keySize) {
        ok(db.c_CreateNewSelfSignedCertificateSigExt(f, pw, 3, label, false, keySize,
                dn("E2E CA"), 3650, 1, 0, null, at(label + ".pem"), true), "self-signed " + label);
        return this;
    }

    /** request - a request key with its DNS names as subjectAltName, as PEM "{label}.csr". */
    String request(String label, int keySize, String... dns) {
        byte[] ext = san(dns);
        ok(db.c_CreateNewCertRequestSigExt(f, pw, label, keySize, dn(dns[0]), 1, ext.length, ext,
                at(label + ".csr"), true), "request " + label);
        return at(label + ".csr");
    }

    Path issue(String csr, String cert) {
        ok(db.c_IssueCertificateSig(f, pw, "ca", 3, "", 365, 1, csr, at(cert), true), cert);
        return dir.resolve(cert);
    }

    Kdb receive(Path pem) {
        ok(db.c_ReceiveCert(f, pw, pem.toString(), true, true), "receive " + pem);
        return this;
    }

    Kdb addCa(String label, Path pem) {
        ok(db.c_AddCaCert(f, pw, label, pem.toString(), true), "add CA " + label);
        return this;
    }

    /** labels - the key labels, sorted; requestLabels - those of request keys. */
    List<String> labels() {
        db.clearLabels();
        ok(db.c_BuildKeyLabelList(f, pw), "c_BuildKeyLabelList");
        return db.getKeyLabels().stream().sorted().toList();
    }

    List<String> requestLabels() {
        labels();
        return db.getReqKeyLabels();
    }

    KeyItem key(String label) {
        return Objects.requireNonNull(db.c_GetKeyItemByLabel(f, pw, label, false), label);
    }

    /** sh - runs a command in dir; fails unless it exits with 0; returns the merged output. */
    static String sh(Path dir, String... command) {
        try {
            Process p = new ProcessBuilder(command).directory(dir.toFile())
                    .redirectErrorStream(true).start();
            p.getOutputStream().close();
            String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
            assertEquals(0, p.waitFor(), () -> String.join(" ", command) + " failed:\n" + out);
            return out;
        } catch (Exception e) {
            throw new IllegalStateException(e);
        }
    }

    static String ssl(Path dir, Object... args) {
        return sh(dir, Stream.concat(Stream.of("openssl"), Stream.of(args).map(String::valueOf))
                .toArray(String[]::new));
    }

    /** sslCert - openssl's own self-signed "{name}.pem" and "{name}.key" on an EC curve. */
    static Path sslCert(Path dir, String name, String curve) {
        ssl(dir, "req", "-x509", "-nodes", "-days", "30", "-subj", "/CN=" + name, "-keyout",
                name + ".key", "-out", name + ".pem", "-newkey", "ec", "-pkeyopt",
                "ec_paramgen_curve:" + curve);
        return dir.resolve(name + ".pem");
    }

    /** der - the DER bytes of a certificate file, as openssl reads and writes it. */
    static byte[] der(Path dir, Object cert, boolean pem) throws Exception {
        ssl(dir, "x509", "-inform", pem ? "PEM" : "DER", "-in", cert, "-outform", "DER", "-out",
                "cvt.der");
        return Files.readAllBytes(dir.resolve("cvt.der"));
    }

    /** pubkey - the public key (PEM) of a file openssl reads with x509, req or pkey. */
    static String pubkey(Path dir, String kind, Object file) {
        return kind.equals("pkey") ? ssl(dir, kind, "-in", file, "-pubout")
                : ssl(dir, kind, "-in", file, "-noout", "-pubkey");
    }

    /** keytool - alias to entry type, as keytool -list shows a PKCS#12 file. */
    static Map<String, String> keytool(Path dir, Object store, String password) {
        return ENTRY.matcher(sh(dir, "keytool", "-list", "-storetype", "PKCS12", "-keystore",
                store.toString(), "-storepass", password)).results()
                .collect(Collectors.toMap(m -> m.group(1), m -> m.group(2)));
    }

    /** san - an Extensions value holding one subjectAltName of (short) DNS names. */
    static byte[] san(String... dns) {
        byte[] names = tlv(0x30, Stream.of(dns).map(n -> tlv(0x82, n.getBytes())).toArray(byte[][]::new));
        return tlv(0x30, tlv(0x30, new byte[] {6, 3, 0x55, 0x1d, 0x11}, tlv(4, names)));
    }

    /** tlv - tag, one-byte length and the parts as contents. */
    private static byte[] tlv(int tag, byte[]... parts) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        out.write(tag);
        out.write(Stream.of(parts).mapToInt(p -> p.length).sum());
        Stream.of(parts).forEach(out::writeBytes);
        return out.toByteArray();
    }
}
