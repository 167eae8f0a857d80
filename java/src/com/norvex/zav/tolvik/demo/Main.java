package com.norvex.zav.tolvik.demo;

import com.norvex.zav.tolvik.basic.CMSKeyDatabase;
import com.norvex.zav.tolvik.basic.CMSKeyDatabaseException;
import com.norvex.zav.tolvik.basic.CertificateItem;
import com.norvex.zav.tolvik.basic.CryptographicToken;
import com.norvex.zav.tolvik.basic.DNItem;
import com.norvex.zav.tolvik.basic.KMSystem;
import com.norvex.zav.tolvik.basic.KeyItem;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.function.BooleanSupplier;
import java.util.function.IntSupplier;

/**
 * Main - the demo: a key database made and used through the Java binding, and what it wrote
 * checked by openssl and keytool.
 *
 * <p>It creates a key database in a fresh temporary directory (or in the directory given as the
 * first argument), makes a self-signed CA, a server request with DNS names, issues the server
 * certificate with the CA and receives it, lists the labels and key items, exports the server
 * key to a PKCS#12 file and the whole database to a keyring file, and has openssl and keytool
 * verify and read the results. Every step prints what it did and whether it worked; the exit
 * code is 1 when any step failed. The bridge is found through java.library.path, the tools on
 * the PATH. The demo stops at the first step that fails.
 *
 * <p>With the system property {@code zav.demo.module} naming a PKCS#11 module whose token
 * "demo" has the user PIN 1234 (scripts/run-demo.sh makes one with SoftHSM2), a token leg
 * follows: a key pair and request made on the token, issued by the key database's CA, received
 * on the token with the key database paired to it, and checked by pkcs11-tool and openssl.
 */
public final class Main {
    private static final String PASSWORD = "Demo-passw0rd";
    private static final String EXPORT_PASSWORD = "Export-passw0rd";
    private static final String CA_LABEL = "demo-ca";
    private static final String SERVER_LABEL = "server";
    private static final String SERVER_NAME = "server.demo.test";
    private static final long TOOL_TIMEOUT_SECONDS = 60;
    private static final String MODULE = System.getProperty("zav.demo.module");
    private static final String TOKEN = "demo";
    private static final String PIN = "1234";
    private static final String TOKEN_KEY = "token-server";

    private final Path dir;
    private final String kdb;
    private final CMSKeyDatabase db = new CMSKeyDatabase();
    private int failures;

    /** StepFailed - ends the run at the first failed step. */
    private static final class StepFailed extends RuntimeException {
        private static final long serialVersionUID = 1L;
    }

    private Main(Path dir) {
        this.dir = dir;
        this.kdb = file("demo.kdb");
    }

    /** main - runs the demo; the optional argument names the working directory. */
    public static void main(String[] args) throws IOException {
        System.loadLibrary("zavkjni");
        int rc = KMSystem.c_ZAVKMInit(false);
        System.out.println("c_ZAVKMInit(false) = " + rc);
        // The build information is printed by native code: flush ours first to keep the order.
        System.out.flush();
        KMSystem.c_ShowLibInfo();
        boolean named = CMSKeyDatabaseException.c_BuildErrCodeNameTable();
        System.out.println("return-code names (" + CMSKeyDatabaseException.errCodeNames().size()
                + (named ? ", all accepted" : ", table refused") + "):");
        CMSKeyDatabaseException.errCodeNames().forEach(
                (code, name) -> System.out.println("  " + code + " " + name));

        int failures = rc == 0 ? 0 : 1;
        if (rc == 0) {
            Path dir = args.length > 0 ? Files.createDirectories(Path.of(args[0]))
                    : Files.createTempDirectory("tolvik-demo-");
            System.out.println("working directory: " + dir.toAbsolutePath());
            failures += new Main(dir.toAbsolutePath()).run();
        }
        System.out.println("c_ZAVKMCleanAll() = " + KMSystem.c_ZAVKMCleanAll());
        System.out.println(failures == 0 ? "demo finished: every step worked"
                : "demo FAILED");
        System.exit(failures == 0 ? 0 : 1);
    }

    /** run - the steps in order, up to the first that fails; returns 1 if one failed, else 0. */
    private int run() {
        try {
            steps();
        } catch (StepFailed e) {
            System.out.println("    (the remaining steps are skipped)");
        }
        return failures;
    }

    private void steps() {
        step("create the key database " + kdb,
                () -> db.c_CreateNewKeyDb(kdb, PASSWORD, 0));
        step("make the self-signed CA \"" + CA_LABEL + "\" (RSA 2048, SHA-256, 10 years)",
                () -> db.c_CreateNewSelfSignedCertificateSigExt(kdb, PASSWORD, 3, CA_LABEL,
                        false, 2048, name("Tolvik Demo CA"), 3650, 1, 0, null, file("ca.pem"),
                        true));
        byte[] altNames = dnsSubjectAltName(SERVER_NAME, "localhost");
        step("request a certificate for \"" + SERVER_LABEL + "\" (RSA 2048, DNS:" + SERVER_NAME
                + ", DNS:localhost)",
                () -> db.c_CreateNewCertRequestSigExt(kdb, PASSWORD, SERVER_LABEL, 2048,
                        name(SERVER_NAME), 1, altNames.length, altNames, file("server.csr"),
                        true));
        step("issue the server certificate with the CA (v3, random serial, 1 year)",
                () -> db.c_IssueCertificateSig(kdb, PASSWORD, CA_LABEL, 3, "", 365, 1,
                        file("server.csr"), file("server.pem"), true));
        step("receive the server certificate as the default key",
                () -> db.c_ReceiveCert(kdb, PASSWORD, file("server.pem"), true, true));
        byte[] der = listKeyItems(listLabels()).getCertificate().getDer();
        check("validate the server certificate's chain in the key database",
                () -> db.c_ValidateCertificateChain(kdb, PASSWORD, der, der.length));
        step("export \"" + SERVER_LABEL + "\" to the PKCS#12 file server.p12",
                () -> db.c_ExportToPFXFile(kdb, PASSWORD, file("server.p12"), EXPORT_PASSWORD,
                        new String[] {SERVER_LABEL}));
        step("convert the key database to the keyring file demo.kyr",
                () -> db.c_Kdb2Kyr(kdb, PASSWORD, file("demo.kyr"), EXPORT_PASSWORD));

        tool("openssl checks the request's signature", "verify OK",
                "openssl", "req", "-in", "server.csr", "-verify", "-noout");
        tool("openssl verifies the server certificate against the CA", "server.pem: OK",
                "openssl", "verify", "-CAfile", "ca.pem", "server.pem");
        tool("openssl shows the server certificate", "DNS:" + SERVER_NAME,
                "openssl", "x509", "-in", "server.pem", "-noout", "-subject", "-issuer",
                "-serial", "-enddate", "-ext", "subjectAltName,basicConstraints");
        tool("openssl reads the PKCS#12 file", "MAC: sha256",
                "openssl", "pkcs12", "-in", "server.p12", "-info", "-noout", "-passin",
                "pass:" + EXPORT_PASSWORD);
        tool("keytool lists the PKCS#12 file", SERVER_LABEL + ", ",
                "keytool", "-list", "-storetype", "PKCS12", "-keystore", "server.p12",
                "-storepass", EXPORT_PASSWORD);
        tool("keytool lists the keyring file", CA_LABEL + ", ",
                "keytool", "-list", "-storetype", "PKCS12", "-keystore", "demo.kyr",
                "-storepass", EXPORT_PASSWORD);
        if (MODULE != null) {
            tokenSteps();
        }
    }

    /** tokenSteps - the token leg. */
    private void tokenSteps() {
        CryptographicToken token = new CryptographicToken();
        CryptographicToken.clearTokenLabels();
        step("list the tokens of " + MODULE,
                () -> CryptographicToken.c_GetCryptoTokenLabelList(MODULE));
        System.out.println("    tokens: " + CryptographicToken.getTokenLabels());
        step("make a key pair (EC P-256) and a request for \"" + TOKEN_KEY + "\" on the token",
                () -> token.c_CreatePersonalCertificateRequest(MODULE, TOKEN, PIN, TOKEN_KEY,
                        256, name("token.demo.test"), 1, file("token.csr")));
        step("issue its certificate with the key database's CA",
                () -> db.c_IssueCertificateSig(kdb, PASSWORD, CA_LABEL, 3, "", 365, 1,
                        file("token.csr"), file("token.pem"), true));
        step("receive it on the token, the key database paired with the token",
                () -> token.c_ReceivePersonalCertificate(MODULE, TOKEN, PIN, kdb, PASSWORD,
                        file("token.pem"), true));
        step("list the token's labels", () -> token.c_BuildKeyLabelList(MODULE, TOKEN, PIN));
        System.out.println("    personal: " + token.getPersonalKeyLabels());
        tool("openssl checks the token's request", "verify OK",
                "openssl", "req", "-in", "token.csr", "-verify", "-noout");
        tool("openssl verifies the token's certificate against the CA", "token.pem: OK",
                "openssl", "verify", "-CAfile", "ca.pem", "token.pem");
        tool("pkcs11-tool lists the token's private key", "label:      " + TOKEN_KEY,
                "pkcs11-tool", "--module", MODULE, "--token-label", TOKEN, "--login", "--pin",
                PIN, "--list-objects", "--type", "privkey");
    }

    /** listLabels - lists the key and request key labels through the callbacks. */
    private List<String> listLabels() {
        db.clearLabels();
        step("list the labels", () -> db.c_BuildKeyLabelList(kdb, PASSWORD));
        System.out.println("    keys:         " + db.getKeyLabels());
        System.out.println("    request keys: " + db.getReqKeyLabels());
        return db.getKeyLabels();
    }

    /**
     * listKeyItems - reads and prints every key item; returns the server's, which must be the
     * default key with a chain of two, or fails the step.
     */
    private KeyItem listKeyItems(List<String> labels) {
        System.out.println("==> read the key items");
        System.out.printf("    %-10s %9s  %-32s %-22s %s%n", "label", "key size", "flags",
                "subject CN", "chain");
        KeyItem server = null;
        int missing = 0;
        for (String label : labels) {
            KeyItem item = db.c_GetKeyItemByLabel(kdb, PASSWORD, label, false);
            if (item == null) {
                System.out.println("    " + label + ": no key item");
                missing++;
                continue;
            }
            CertificateItem cert = item.getCertificate();
            CertificateItem[] chain = item.getCertificateChain();
            System.out.printf("    %-10s %4d bits  %-32s %-22s %d%n", label, item.getKeySize(),
                    flags(item), cert == null ? "-" : cert.getSubject().getCommonName(),
                    chain == null ? 0 : chain.length);
            if (label.equals(SERVER_LABEL)) {
                server = item;
            }
        }
        boolean ok = missing == 0 && server != null && server.isDefaultKey()
                && server.getCertificateChain().length == 2;
        result(ok, ok ? "" : "expected every key item, the server's the default with a chain of 2");
        return server;
    }

    private static String flags(KeyItem item) {
        List<String> flags = new ArrayList<>();
        flags.add(item.hasPrivateKey() ? "private key" : "certificate only");
        if (item.isDefaultKey()) {
            flags.add("default");
        }
        if (item.isTrusted()) {
            flags.add("trusted");
        }
        return String.join(", ", flags);
    }

    /** step - one native returning a return code: prints the step and its result. */
    private void step(String title, IntSupplier call) {
        System.out.println("==> " + title);
        int rc = call.getAsInt();
        result(rc == 0, rc == 0 ? "" : "return code " + rc + " " + codeName(rc));
    }

    /** codeName - the name of a return code; the table is loaded at the first failure. */
    private static String codeName(int rc) {
        if (CMSKeyDatabaseException.errCodeNames().isEmpty()) {
            CMSKeyDatabaseException.c_BuildErrCodeNameTable();
        }
        return CMSKeyDatabaseException.nameOf(rc);
    }

    /** check - one native returning a boolean. */
    private void check(String title, BooleanSupplier call) {
        System.out.println("==> " + title);
        boolean ok = call.getAsBoolean();
        result(ok, ok ? "" : "the library said no");
    }

    /** tool - runs a tool in the working directory, shows its output; ok on exit 0 and text. */
    private void tool(String title, String expected, String... command) {
        System.out.println("==> " + title + ": " + String.join(" ", command));
        try {
            Process process = new ProcessBuilder(command).directory(dir.toFile())
                    .redirectErrorStream(true).start();
            process.getOutputStream().close();
            String out = new String(process.getInputStream().readAllBytes(),
                    StandardCharsets.UTF_8);
            boolean ended = process.waitFor(TOOL_TIMEOUT_SECONDS, TimeUnit.SECONDS);
            out.lines().forEach(line -> System.out.println("    | " + line));
            boolean ok = ended && process.exitValue() == 0 && out.contains(expected);
            result(ok, ok ? "" : "expected exit code 0 and \"" + expected + "\"");
        } catch (IOException e) {
            result(false, e.getMessage());
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            result(false, "interrupted");
        }
    }

    private void result(boolean ok, String why) {
        if (ok) {
            System.out.println("    ok");
        } else {
            failures++;
            System.out.println("    FAILED: " + why);
            throw new StepFailed();
        }
    }

    private String file(String name) {
        return dir.resolve(name).toString();
    }

    private static DNItem name(String commonName) {
        return new DNItem(commonName, "Demo", "Norvex", null, null, null, "NO", null, null);
    }

    /** dnsSubjectAltName - DER Extensions holding one subjectAltName with the DNS names. */
    static byte[] dnsSubjectAltName(String... dnsNames) {
        ByteArrayOutputStream names = new ByteArrayOutputStream();
        for (String dnsName : dnsNames) {
            names.writeBytes(tlv(0x82, dnsName.getBytes(StandardCharsets.US_ASCII)));
        }
        ByteArrayOutputStream extension = new ByteArrayOutputStream();
        extension.writeBytes(new byte[] {0x06, 0x03, 0x55, 0x1d, 0x11}); // subjectAltName
        extension.writeBytes(tlv(0x04, tlv(0x30, names.toByteArray())));
        return tlv(0x30, tlv(0x30, extension.toByteArray()));
    }

    /** tlv - a DER tag, length and contents; contents shorter than 64 KiB. */
    private static byte[] tlv(int tag, byte[] contents) {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        out.write(tag);
        int n = contents.length;
        if (n >= 0x100) {
            out.write(0x82);
            out.write(n >> 8);
        } else if (n >= 0x80) {
            out.write(0x81);
        }
        out.write(n & 0xff);
        out.writeBytes(contents);
        return out.toByteArray();
    }
}
