import static org.junit.jupiter.api.Assertions.*;

import com.norvex.zav.tolvik.basic.*;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.util.*;
import java.util.stream.Stream;
import org.junit.jupiter.api.*;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/**
 * TokensTest - the binding, the bridge and the library on SoftHSM2 tokens ("jtok"; "pin" for the
 * PIN change) and on the platform certificate store, made under the working directory that
 * SOFTHSM2_CONF and ZAVKM_P11_REGISTRY name. What the natives leave on a token is read back with
 * pkcs11-tool, what they write is judged by openssl. The key database "ca.kdb" holds "file ca".
 */
class TokensTest {
    static final String MODULE = System.getProperty("zav.softhsm");
    /** TOOL - the module pkcs11-tool loads: the host's, on the same token files. */
    static final String TOOL = System.getProperty("zav.softhsm.tool");
    static final Path WORK = Path.of(System.getenv("SOFTHSM2_CONF")).getParent();
    static final String TOK = "jtok", PIN = "1234", CA_PW = "Ca-Passw0rd-123";
    static final CMSKeyDatabase KDB = new CMSKeyDatabase();
    static final CryptographicToken T = new CryptographicToken();  // for natives without labels

    static int exec(List<String> command, StringBuilder text) throws Exception {
        Process p = new ProcessBuilder(command).redirectErrorStream(true).start();
        text.append(new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8));
        return p.waitFor();
    }

    static String run(String... command) throws Exception {
        StringBuilder out = new StringBuilder();
        assertEquals(0, exec(List.of(command), out), String.join(" ", command) + "\n" + out);
        return out.toString();
    }

    /** objects - jtok's objects, "Certificate/label", "Private/label", "Data/label" -> ID line. */
    static Map<String, String> objects() throws Exception {
        Map<String, String> ids = new TreeMap<>();  // "" for objects without ID (data)
        String current = "";
        for (String line : run("pkcs11-tool", "--module", TOOL, "--token-label", TOK, "--login",
                "--pin", PIN, "--list-objects").lines().toList()) {
            if (!line.startsWith(" ")) current = line.substring(0, line.indexOf(' ')) + "/";
            if (line.contains("label:")) {
                current += line.substring(line.indexOf(':') + 1).trim().replace("'", "");
                ids.put(current, "");
            }
            if (line.contains("ID:")) ids.put(current, line.trim());
        }
        return ids;
    }

    static String at(String name) { return WORK.resolve(name).toString(); }

    static DNItem dn(String cn) {
        return new DNItem(cn, null, "Norvex", null, null, null, "DE", null, null);
    }

    static void ok(int rc) { assertEquals(0, rc); }

    /** der - the bytes of a DER file, or of the first block of a PEM file. */
    static byte[] der(String file) throws Exception {
        String text = Files.readString(Path.of(file), StandardCharsets.ISO_8859_1);
        if (!text.startsWith("-----BEGIN")) return Files.readAllBytes(Path.of(file));
        return Base64.getMimeDecoder().decode(text.split("-----[^-]+-----")[1]);
    }

    /** listed - a token object after c_BuildKeyLabelList on jtok. */
    static CryptographicToken listed() {
        CryptographicToken t = new CryptographicToken();
        ok(t.c_BuildKeyLabelList(MODULE, TOK, PIN));
        return t;
    }

    static KeyItem key(String label, boolean isReq) {
        return T.c_GetKeyItemByLabel(MODULE, TOK, PIN, label, isReq);
    }

    static int selfSigned(CryptographicToken t, String token, String pin, String label, int bits) {
        return t.c_CreateSelfSignedCertificate(MODULE, token, pin, 3, label, bits, dn(label), 9, 1);
    }

    /** request - a request key on jtok, its request in label.csr. */
    static int request(CryptographicToken t, String label, int bits) {
        return t.c_CreatePersonalCertificateRequest(MODULE, TOK, PIN, label, bits, dn(label), 1,
                at(label + ".csr"));
    }

    /** issue - the file CA signs label.csr into out. */
    static void issue(String label, String serial, String out, boolean pem) {
        ok(KDB.c_IssueCertificate(at("ca.kdb"), CA_PW, "file ca", 3, serial, 30, at(label + ".csr"),
                out, pem));
    }

    static int receive(String db, String pw, String file, boolean pem) {
        return T.c_ReceivePersonalCertificate(MODULE, TOK, PIN, db, pw, file, pem);
    }

    @BeforeAll
    static void freshTokensAndFileCa() throws Exception {
        run("rm", "-rf", WORK.toString());
        Files.createDirectories(WORK.resolve("tokens"));
        Files.createDirectories(WORK.resolve("registry"));
        Files.writeString(WORK.resolve("softhsm2.conf"), "directories.tokendir = "
                + WORK.resolve("tokens") + "\nobjectstore.backend = file\n");
        Files.writeString(WORK.resolve("registry/p11-kit-trust.module"), "module: p11-kit-trust.so\n");
        Files.writeString(WORK.resolve("registry/softhsm2.module"), "module: " + MODULE + "\n");
        for (String label : List.of(TOK, "pin")) {
            run("softhsm2-util", "--init-token", "--free", "--label", label, "--pin", PIN,
                    "--so-pin", "5678");
        }
        ok(KMSystem.c_ZAVKMInit(false));
        ok(KDB.c_CreateNewKeyDb(at("ca.kdb"), CA_PW, 0));
        ok(KDB.c_CreateNewSelfSignedCertificate(at("ca.kdb"), CA_PW, 3, "file ca", false, 2048,
                dn("file ca"), 30, at("ca.pem"), true));
    }

    @ParameterizedTest(name = "{0} {1}")
    @CsvSource(nullValues = "-", value = {"jtok, 1234, 0", "jtok, 0000, 16", "jtok, -, 138",
            "other, 1234, 137"})
    void tokensAreListedAndOpenedWithTheirPin(String label, String pin, int rc) {
        CryptographicToken.clearTokenLabels();
        ok(CryptographicToken.c_GetCryptoTokenLabelList(MODULE));
        assertEquals(List.of(TOK, "pin"), CryptographicToken.getTokenLabels().stream().sorted()
                .toList());
        assertEquals(!label.equals("other"), T.c_IsPasswordRequired(MODULE, label));
        assertEquals(rc, new CryptographicToken().c_BuildKeyLabelList(MODULE, label, pin));
    }

    /** The key size asked for (25519 Ed25519, 448 Ed448), the algorithm and size shown. */
    @ParameterizedTest(name = "{0} {1} bits, PEM {2}")
    @CsvSource({"java ca, 2048, true, 1, 2048", "java ec, 256, false, 2, 256",
            "java ed25519, 25519, true, 3, 256", "java ed448, 448, false, 4, 456"})
    void selfSignedCertificateIsMadeOnTheToken(String label, int size, boolean pem, int algorithm,
            int bits) throws Exception {
        ok(selfSigned(T, TOK, PIN, label, size));
        assertEquals(23, selfSigned(T, TOK, PIN, label, size));
        String file = at(label + (pem ? ".pem" : ".der"));
        ok(T.c_ExtractCertificate(MODULE, TOK, PIN, label, file, pem));
        run("openssl", "x509", "-inform", pem ? "PEM" : "DER", "-in", file, "-out", file + ".crt");
        run("openssl", "verify", "-CAfile", file + ".crt", file + ".crt");
        KeyItem key = key(label, false);
        assertEquals(List.of(label, algorithm, bits, true, false, 1), List.of(key.getLabel(),
                (int) key.getKeyAlgorithm(), (int) key.getKeySize(), key.hasPrivateKey(),
                key.isRequestKey(), key.getCertificateChain().length));
        assertNull(key.getEncryptedPrivateKeyInfo());
        assertArrayEquals(der(file), key.getCertificate().getDer());
        assertTrue(listed().getPersonalKeyLabels().contains(label));
        Map<String, String> ids = objects();
        assertTrue(ids.get("Certificate/" + label).startsWith("ID:"), ids.toString());
        assertEquals(ids.get("Certificate/" + label), ids.get("Private/" + label));
    }

    @Test
    void requestIsIssuedByAFileCaReceivedAndChainedToTheAddedSigner() throws Exception {
        ok(request(T, "srv", 2048));
        run("openssl", "req", "-verify", "-noout", "-in", at("srv.csr"));
        ok(T.c_ExtractPersonalCertificateRequest(MODULE, TOK, PIN, "srv", at("srv.again")));
        assertArrayEquals(der(at("srv.csr")), der(at("srv.again")));
        ok(T.c_RecreatePersonalCertificateRequest(MODULE, TOK, PIN, "srv", 2, at("srv.384")));
        assertTrue(run("openssl", "req", "-verify", "-text", "-noout", "-in", at("srv.384"))
                .contains("sha384WithRSAEncryption"));
        assertTrue(listed().getRequestKeyLabels().contains("srv"));
        KeyItem req = key("srv", true);
        assertTrue(req.isRequestKey() && req.getCertificateRequest() != null, req.toString());
        assertEquals(List.of(2048, true), List.of((int) req.getKeySize(), key("srv", false)
                == null));
        assertEquals("", objects().get("Data/srv"));
        issue("srv", "", at("srv.pem"), true);
        ok(receive(null, null, at("srv.pem"), true));
        CryptographicToken after = listed();
        assertEquals(List.of(false, true), List.of(after.getRequestKeyLabels().contains("srv"),
                after.getPersonalKeyLabels().contains("srv")));
        assertEquals(1, key("srv", false).getCertificateChain().length);  // no CA on the token
        ok(T.c_AddSignerCertificate(MODULE, TOK, PIN, "the ca", at("ca.pem"), true));
        assertTrue(listed().getSignerKeyLabels().contains("the ca"));
        assertEquals(List.of("srv", "file ca"), Arrays.stream(key("srv", false)
                .getCertificateChain()).map(c -> c.getSubject().getCommonName()).toList());
        ok(T.c_ExtractCertificate(MODULE, TOK, PIN, "srv", at("srv.out"), true));
        run("openssl", "verify", "-CAfile", at("ca.pem"), at("srv.out"));
        Map<String, String> ids = objects();
        assertEquals(ids.get("Certificate/srv"), ids.get("Private/srv"));
        assertEquals(List.of(false, false), List.of(ids.containsKey("Data/srv"),
                ids.containsKey("Private/the ca")), ids.toString());
    }

    /**
     * Made by openssl: a certificate with its key, one alone, a request with its key, on P-256
     * or Ed25519.
     */
    @ParameterizedTest(name = "{0}")
    @CsvSource({"in key, true, false, ec", "in signer, false, false, ec",
            "in request, true, true, ec", "in ed key, true, false, ed25519",
            "in ed request, true, true, ed25519"})
    void keysMadeElsewhereComeOntoTheToken(String label, boolean withKey, boolean isReq,
            String keyType) throws Exception {
        String in = at(label + (isReq ? ".csr" : ".pem"));
        List<String> newKey = keyType.equals("ec")
                ? List.of("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256")
                : List.of("-newkey", keyType);
        run(Stream.of(List.of("openssl", "req", isReq ? "-new" : "-x509"), newKey,
                List.of("-noenc", "-keyout", at(label + ".key"), "-subj", "/CN=" + label, "-days",
                        "30", "-out", in)).flatMap(List::stream).toArray(String[]::new));
        byte[] data = der(in), key = withKey ? der(at(label + ".key")) : null;
        int keyLength = withKey ? key.length : 0;
        ok(isReq ? T.c_ImportPersonalCertificateRequest(MODULE, TOK, PIN, label, data.length, data,
                        keyLength, key)
                : T.c_ImportCertificate(MODULE, TOK, PIN, null, null, label, data.length, data,
                        keyLength, key));
        if (isReq) {
            assertTrue(listed().getRequestKeyLabels().contains(label));
            issue(label, "", at(label + ".pem"), true);
            ok(receive(null, null, at(label + ".pem"), true));
        }
        CryptographicToken after = listed();
        assertEquals(List.of(withKey, !withKey), List.of(after.getPersonalKeyLabels()
                .contains(label), after.getSignerKeyLabels().contains(label)));
        assertArrayEquals(der(at(label + ".pem")), key(label, false).getCertificate().getDer());
        Map<String, String> ids = objects();
        assertEquals(withKey ? ids.get("Certificate/" + label) : null, ids.get("Private/" + label));
    }

    @Test
    void aSecondCertificateForTheRequestKeyRenewsTheFirst() throws Exception {
        ok(request(T, "renew", 384));
        issue("renew", "", at("renew.pem"), true);
        ok(receive(null, null, at("renew.pem"), true));
        issue("renew", "0x77", at("renew2.der"), false);
        byte[] renewal = der(at("renew2.der")), ca = der(at("ca.pem"));
        assertTrue(T.c_IsPersonalCertificateRenewal(MODULE, TOK, PIN, renewal.length, renewal));
        assertFalse(T.c_IsPersonalCertificateRenewal(MODULE, TOK, PIN, ca.length, ca));
        assertEquals(108, T.c_RenewPersonalCertificate(MODULE, TOK, PIN, ca.length, ca));
        ok(T.c_RenewPersonalCertificate(MODULE, TOK, PIN, renewal.length, renewal));
        KeyItem renewed = key("renew", false);
        assertEquals("77", renewed.getCertificate().getSerialNumber());
        assertTrue(renewed.hasPrivateKey());
        ok(T.c_ExtractCertificate(MODULE, TOK, PIN, "renew", at("renew.out"), false));
        assertArrayEquals(renewal, der(at("renew.out")));
        String certs = run("pkcs11-tool", "--module", TOOL, "--token-label", TOK,
                "--list-objects", "--type", "cert");
        assertEquals(1, certs.lines().filter(l -> l.trim().equals("label:      renew")).count());
    }

    @ParameterizedTest(name = "{0}")
    @CsvSource({"key, false", "request, true"})
    void deletingRemovesEveryObjectOfTheLabel(String label, boolean isReq) throws Exception {
        ok(isReq ? request(T, label, 256) : selfSigned(T, TOK, PIN, label, 256));
        assertTrue(objects().keySet().stream().anyMatch(k -> k.endsWith("/" + label)));
        ok(T.c_DeleteKeyItemByLabel(MODULE, TOK, PIN, label, isReq));
        Map<String, String> ids = objects();
        assertFalse(ids.keySet().stream().anyMatch(k -> k.endsWith("/" + label)), ids.toString());
        CryptographicToken after = listed();
        assertFalse(after.getPersonalKeyLabels().contains(label)
                || after.getRequestKeyLabels().contains(label));
        assertEquals(117, T.c_DeleteKeyItemByLabel(MODULE, TOK, PIN, label, isReq));
    }

    /**
     * A certificate received in a PEM bundle with its CA, a key database attached for the call:
     * the CA's own (which keeps its one copy), an empty one (which gains the CA as a signer, not
     * trusted), one opened with a wrong password (nothing changes on either side). The CA alone
     * is for no request and changes nothing.
     */
    @ParameterizedTest(name = "{0}")
    @CsvSource({"ca, Ca-Passw0rd-123, 0", "empty, Sec-Passw0rd-12, 0",
            "wrong, Bad-Passw0rd-12, 16"})
    void secondaryKeyDatabaseKeepsTheChainOfAReceivedCertificate(String name, String pw, int rc)
            throws Exception {
        String db = at(name + ".kdb"), dbPw = name.equals("ca") ? CA_PW : "Sec-Passw0rd-12";
        if (!name.equals("ca")) ok(KDB.c_CreateNewKeyDb(db, dbPw, 0));
        String label = "sec " + name, bundle = at(label + ".bundle");
        ok(request(T, label, 256));
        issue(label, "", at(label + ".pem"), true);
        Files.writeString(Path.of(bundle), Files.readString(Path.of(at(label + ".pem")))
                + Files.readString(Path.of(at("ca.pem"))));
        assertEquals(rc == 0 ? 117 : rc, receive(db, pw, at("ca.pem"), true));
        assertEquals(rc, receive(db, pw, bundle, false));  // as it is: the library reads bundles
        CryptographicToken after = listed();
        assertEquals(List.of(rc == 0, rc != 0), List.of(after.getPersonalKeyLabels()
                .contains(label), after.getRequestKeyLabels().contains(label)));
        CMSKeyDatabase secondary = new CMSKeyDatabase();
        ok(secondary.c_BuildKeyLabelList(db, dbPw));
        assertEquals(rc == 0 ? List.of("file ca") : List.of(), secondary.getKeyLabels());
        if (rc == 0) {
            KeyItem ca = secondary.c_GetKeyItemByLabel(db, dbPw, "file ca", false);
            assertEquals(List.of(name.equals("ca"), name.equals("ca")),
                    List.of(ca.hasPrivateKey(), ca.isTrusted()), ca.toString());
            ok(secondary.c_ExtractCert(db, dbPw, "file ca", at(name + "-ca.pem"), true));
            run("openssl", "verify", "-CAfile", at(name + "-ca.pem"), at(label + ".pem"));
        }
    }

    @Test
    void pinChangeTakesTheNewPinOnly() throws Exception {
        ok(T.c_ChangeKeyDbPwd(MODULE, "pin", PIN, "4321"));
        assertEquals(16, T.c_ChangeKeyDbPwd(MODULE, "pin", PIN, "5555"));
        assertEquals(16, new CryptographicToken().c_BuildKeyLabelList(MODULE, "pin", PIN));
        ok(selfSigned(T, "pin", "4321", "after", 256));
        List<String> tool = List.of("pkcs11-tool", "--module", TOOL, "--token-label", "pin",
                "--login", "--list-objects", "--pin");
        assertTrue(run(Stream.concat(tool.stream(), Stream.of("4321")).toArray(String[]::new))
                .contains("after"));
        assertNotEquals(0, exec(Stream.concat(tool.stream(), Stream.of(PIN)).toList(),
                new StringBuilder()));
    }

    @Test
    void twoThreadsWorkOnOneTokenAtOnce() throws Exception {
        int[][] rcs = new int[2][3];
        List<Thread> threads = Stream.of(0, 1).map(th -> new Thread(() -> {
            CryptographicToken t = new CryptographicToken();  // one a thread: its label lists
            for (int i = 0; i < 3; ++i) {
                String label = "t" + th + "-" + i;
                rcs[th][i] = th == 0 ? selfSigned(t, TOK, PIN, label, 256) : request(t, label, 256);
            }
        })).toList();
        threads.forEach(Thread::start);
        for (Thread th : threads) th.join();
        assertEquals("[[0, 0, 0], [0, 0, 0]]", Arrays.deepToString(rcs));
        CryptographicToken after = listed();
        assertTrue(after.getPersonalKeyLabels().containsAll(List.of("t0-0", "t0-1", "t0-2")));
        assertTrue(after.getRequestKeyLabels().containsAll(List.of("t1-0", "t1-1", "t1-2")));
        Set<String> objects = objects().keySet();
        for (String k : List.of("Certificate/t0-", "Private/t0-", "Data/t1-", "Private/t1-")) {
            for (int i = 0; i < 3; ++i) assertTrue(objects.contains(k + i), k + i + " " + objects);
        }
    }

    /**
     * A login belongs to the process: while one thread's calls keep the token logged in, every
     * call with a wrong PIN must still fail, and the right PIN keep working.
     */
    @Test
    void aWrongPinFailsWhileAnotherThreadIsLoggedIn() throws Exception {
        ok(selfSigned(T, TOK, PIN, "busy", 256));
        java.util.concurrent.atomic.AtomicBoolean done = new java.util.concurrent.atomic.AtomicBoolean();
        Map<Integer, Integer> worker = new TreeMap<>();
        Thread busy = new Thread(() -> {
            CryptographicToken t = new CryptographicToken();
            while (!done.get()) {
                worker.merge(t.c_GetKeyItemByLabel(MODULE, TOK, PIN, "busy", false) == null ? -1
                        : t.c_BuildKeyLabelList(MODULE, TOK, PIN), 1, Integer::sum);
            }
        });
        busy.start();
        Map<Integer, Integer> wrong = new TreeMap<>();
        try {
            for (int i = 0; i < 300; ++i) {
                CryptographicToken t = new CryptographicToken();
                wrong.merge(t.c_BuildKeyLabelList(MODULE, TOK, i % 2 == 0 ? "0000" : "12345"), 1,
                        Integer::sum);
            }
        } finally {
            done.set(true);
            busy.join();
        }
        assertEquals(Map.of(16, 300), wrong);
        assertEquals(Set.of(0), worker.keySet(), worker.toString());
    }

    @Test
    void platformStoreListsProvidersAndTheSystemCertificates() throws Exception {
        MSCertificateStore.clearCSPNames();
        ok(MSCertificateStore.c_GetCSPNameList());
        assertEquals(List.of("p11-kit-trust", "softhsm2"), MSCertificateStore.getCSPNames());
        MSCertificateStore store = new MSCertificateStore();
        ok(store.c_BuildKeyLabelList(null, null));
        String trust = run("trust", "list", "--filter=certificates");
        long count = trust.lines().filter(l -> l.startsWith("pkcs11:")).count();
        assertEquals(count, store.getSignerKeyLabels().size());
        assertEquals(141, store.c_CreateNewSelfSignedCertificate(null, null, 3, "mine", 256,
                dn("mine"), 30, 1, 0, null));
        ok(store.c_CreateNewSelfSignedCertificate("softhsm2/jtok", PIN, 3, "mine", 256, dn("mine"),
                30, 1, 0, null));
        store.clearLabels();
        ok(store.c_BuildKeyLabelList("softhsm2/jtok", PIN));
        assertTrue(store.getPersonalKeyLabels().contains("mine"), store.getKeyLabels().toString());
        assertTrue(objects().containsKey("Certificate/mine"));
    }
}
