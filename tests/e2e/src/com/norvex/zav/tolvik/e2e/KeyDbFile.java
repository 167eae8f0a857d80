package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.assertNotNull;

import com.norvex.zav.tolvik.basic.CMSKeyDatabase;
import com.norvex.zav.tolvik.basic.DNItem;
import com.norvex.zav.tolvik.basic.KeyItem;
import java.nio.file.Path;
import java.util.Base64;
import java.util.List;

/**
 * KeyDbFile - one key database file of a test and the calls the tests make on it, each checked
 * for return code 0. The file lives in the test's own directory; every call opens and closes it.
 */
final class KeyDbFile {
    static final String PASSWORD = "e2e-Passw0rd!";

    final Path dir;
    final Path file;
    final String password;
    final CMSKeyDatabase db = new CMSKeyDatabase();

    private KeyDbFile(Path dir, Path file, String password) {
        this.dir = dir;
        this.file = file;
        this.password = password;
    }

    /** create - a new key database {@code name} in {@code dir} with the test password. */
    static KeyDbFile create(Path dir, String name) {
        return create(dir, name, PASSWORD);
    }

    /** create - a new key database {@code name} in {@code dir} with {@code password}. */
    static KeyDbFile create(Path dir, String name, String password) {
        Km.init();
        KeyDbFile kdb = new KeyDbFile(dir, dir.resolve(name), password);
        Km.ok(kdb.db.c_CreateNewKeyDb(kdb.name(), password, 0), "c_CreateNewKeyDb " + name);
        return kdb;
    }

    /** existing - a key database file made elsewhere (by a conversion, say). */
    static KeyDbFile existing(Path file, String password) {
        Km.init();
        return new KeyDbFile(file.getParent(), file, password);
    }

    String name() {
        return file.toString();
    }

    Path path(String name) {
        return dir.resolve(name);
    }

    /** dn - a subject of the given common name in the tests' organisation. */
    static DNItem dn(String cn) {
        return new DNItem(cn, "E2E", "Norvex Test", "Oslo", null, null, "NO", null, null);
    }

    /**
     * selfSigned - a self-signed CA under {@code label} of key size {@code keySize}, signed with
     * selector {@code sig}, written as PEM to "{label}.pem"; returns that file.
     */
    Path selfSigned(String label, int keySize, int sig, String cn) {
        Path out = path(label + ".pem");
        Km.ok(db.c_CreateNewSelfSignedCertificateSigExt(name(), password, 3, label, false,
                keySize, dn(cn), 3650, sig, 0, null, out.toString(), true),
                "self-signed " + label);
        return out;
    }

    /** request - a request key {@code label} with a DNS name; returns the PEM request file. */
    Path request(String label, int keySize, int sig, String cn) {
        Path out = path(label + ".csr");
        byte[] ext = Der.dnsSubjectAltName(cn);
        Km.ok(db.c_CreateNewCertRequestSigExt(name(), password, label, keySize, dn(cn), sig,
                ext.length, ext, out.toString(), true), "request " + label);
        return out;
    }

    /** issue - issues {@code csr} with {@code caLabel}'s key as a v3 PEM certificate. */
    Path issue(String caLabel, Path csr, String certName) {
        Path out = path(certName);
        Km.ok(db.c_IssueCertificateSig(name(), password, caLabel, 3, "", 365, 1,
                csr.toString(), out.toString(), true), "issue " + certName);
        return out;
    }

    /** receive - receives a PEM certificate, making its key the default key. */
    void receive(Path certPem) {
        Km.ok(db.c_ReceiveCert(name(), password, certPem.toString(), true, true),
                "receive " + certPem.getFileName());
    }

    /** serverKey - CA {@code caLabel} issues for a new request key {@code label}, received. */
    Path serverKey(String caLabel, String label, String cn) {
        Path cert = issue(caLabel, request(label, 2048, 1, cn), label + ".pem");
        receive(cert);
        return cert;
    }

    /** addCa - stores the certificate file as a signer certificate under {@code label}. */
    void addCa(String label, Path cert, boolean pem) {
        Km.ok(db.c_AddCaCert(name(), password, label, cert.toString(), pem), "add CA " + label);
    }

    /** labels - the key labels as the library lists them. */
    List<String> labels() {
        db.clearLabels();
        Km.ok(db.c_BuildKeyLabelList(name(), password), "c_BuildKeyLabelList");
        return db.getKeyLabels();
    }

    /** requestLabels - the request key labels as the library lists them. */
    List<String> requestLabels() {
        db.clearLabels();
        Km.ok(db.c_BuildKeyLabelList(name(), password), "c_BuildKeyLabelList");
        return db.getReqKeyLabels();
    }

    /** key - the key item under {@code label}; fails the test when there is none. */
    KeyItem key(String label) {
        KeyItem item = db.c_GetKeyItemByLabel(name(), password, label, false);
        assertNotNull(item, () -> "no key item " + label);
        return item;
    }

    /** pem - the PEM text of a DER certificate. */
    static String pem(byte[] der) {
        return "-----BEGIN CERTIFICATE-----\n"
                + Base64.getMimeEncoder(64, new byte[] {'\n'}).encodeToString(der)
                + "\n-----END CERTIFICATE-----\n";
    }
}
