package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.assertEquals;

import com.norvex.zav.tolvik.basic.*;
import java.io.ByteArrayOutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.util.*;
import java.util.regex.Pattern;
import java.util.stream.*;

/**
 * Kdb - one key database file of a scenario and the calls made on it, each checked for return
 * code 0, plus the outside tools (openssl, keytool, sqlite3) that judge what the library wrote.
 * Loading the class initialises the library for the JVM, cleaned up when it exits.
 */
final class Kdb {
    static final String PW = "e2e-Passw0rd!";
    private static final Pattern ENTRY =
            Pattern.compile("(?m)^([^,\\n]+), .*, (PrivateKeyEntry|trustedCertEntry),\\s*$");
    final Path file;
    final String f;
    final String pw;
    final CMSKeyDatabase db = new CMSKeyDatabase();

    static {
        ok(KMSystem.c_ZAVKMInit(false), "c_ZAVKMInit");
        CMSKeyDatabaseException.c_BuildErrCodeNameTable();
        Runtime.getRuntime().addShutdownHook(new Thread(KMSystem::c_ZAVKMCleanAll));
    }

    /** Kdb - a key database file made elsewhere (a copy, a conversion). */
    Kdb(Path file, String pw) {
        this.file = file;
        this.f = file.toString();
        this.pw = pw;
    }

    static Kdb create(Path dir, String name) {
        Kdb kdb = new Kdb(dir.resolve(name), PW);
        ok(kdb.db.c_CreateNewKeyDb(kdb.f, PW, 0), "create " + name);
        return kdb;
    }

    static void expect(int want, int rc, String step) {
        assertEquals(want, rc, () -> step + " gave " + CMSKeyDatabaseException.nameOf(rc));
    }

    static void ok(int rc, String step) {
        expect(0, rc, step);
    }

    String at(String name) {
        return file.resolveSibling(name).toString();
    }

    static DNItem dn(String cn) {
        return new DNItem(cn, "E2E", "Norvex Test", "Oslo", null, null, "NO", null, null);
    }

    /** labels - the key labels, sorted; the request key labels are in db afterwards. */
    List<String> labels() {
        db.clearLabels();
        ok(db.c_BuildKeyLabelList(f, pw), "c_BuildKeyLabelList");
        return db.getKeyLabels().stream().sorted().toList();
    }

    KeyItem key(String label) {
        return Objects.requireNonNull(db.c_GetKeyItemByLabel(f, pw, label, false), label);
    }

    /** sh - runs a command in dir; fails unless it exits with 0; returns the merged output. */
    static String sh(Path dir, Object... command) {
        try {
            Process p = new ProcessBuilder(Stream.of(command).map(String::valueOf).toList())
                    .directory(dir.toFile()).redirectErrorStream(true).start();
            p.getOutputStream().close();
            String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
            assertEquals(0, p.waitFor(), () -> List.of(command) + " failed:\n" + out);
            return out;
        } catch (Exception e) {
            throw new IllegalStateException(e);
        }
    }

    static String ssl(Path dir, Object... args) {
        return sh(dir, Stream.concat(Stream.of("openssl"), Stream.of(args)).toArray());
    }

    /** sslCert - openssl's own self-signed "{name}.pem" and "{name}.key" on an EC curve. */
    static String sslCert(Path dir, String name, String curve) {
        ssl(dir, "req", "-x509", "-nodes", "-days", 30, "-subj", "/CN=" + name, "-keyout",
                name + ".key", "-out", name + ".pem", "-newkey", "ec", "-pkeyopt",
                "ec_paramgen_curve:" + curve);
        return dir.resolve(name + ".pem").toString();
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
        return ENTRY.matcher(sh(dir, "keytool", "-list", "-storetype", "PKCS12", "-keystore", store,
                "-storepass", password)).results()
                .collect(Collectors.toMap(m -> m.group(1), m -> m.group(2)));
    }

    /** san - an Extensions value holding one subjectAltName of (short) DNS names. */
    static byte[] san(String... dns) {
        byte[][] names = Stream.of(dns).map(n -> tlv(0x82, n.getBytes())).toArray(byte[][]::new);
        return tlv(0x30, tlv(0x30, new byte[] {6, 3, 0x55, 0x1d, 0x11}, tlv(4, tlv(0x30, names))));
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
