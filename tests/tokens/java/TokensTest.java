import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.norvex.zav.tolvik.basic.CryptographicToken;
import com.norvex.zav.tolvik.basic.DNItem;
import com.norvex.zav.tolvik.basic.KMSystem;
import com.norvex.zav.tolvik.basic.MSCertificateStore;
import java.io.File;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Comparator;
import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * TokensTest - the Java binding on a SoftHSM2 token and on the platform certificate store. The
 * test's SOFTHSM2_CONF and ZAVKM_P11_REGISTRY name files under the working directory, made here
 * before the first native call.
 */
class TokensTest {
    static final String MODULE = System.getProperty("zav.softhsm");
    static final Path WORK = Path.of(System.getenv("SOFTHSM2_CONF")).getParent();

    static String run(String... command) throws Exception {
        Process p = new ProcessBuilder(command).redirectErrorStream(true).start();
        String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, p.waitFor(), String.join(" ", command) + "\n" + out);
        return out;
    }

    @BeforeAll
    static void freshToken() throws Exception {
        if (Files.exists(WORK)) {
            try (Stream<Path> all = Files.walk(WORK)) {
                all.sorted(Comparator.reverseOrder()).map(Path::toFile).forEach(File::delete);
            }
        }
        Files.createDirectories(WORK.resolve("tokens"));
        Files.createDirectories(WORK.resolve("registry"));
        Files.writeString(WORK.resolve("softhsm2.conf"),
                "directories.tokendir = " + WORK.resolve("tokens") + "\nobjectstore.backend = file\n");
        Files.writeString(WORK.resolve("registry/p11-kit-trust.module"), "module: p11-kit-trust.so\n");
        Files.writeString(WORK.resolve("registry/softhsm2.module"), "module: " + MODULE + "\n");
        run("softhsm2-util", "--init-token", "--free", "--label", "jtok", "--pin", "1234",
                "--so-pin", "5678");
        assertEquals(0, KMSystem.c_ZAVKMInit(false));
    }

    static DNItem dn(String cn) {
        return new DNItem(cn, null, "Norvex", null, null, null, "DE", null, null);
    }

    @Test
    void tokenLabelsPasswordProbeAndSelfSignedCertificate() throws Exception {
        CryptographicToken.clearTokenLabels();
        assertEquals(0, CryptographicToken.c_GetCryptoTokenLabelList(MODULE));
        assertEquals(List.of("jtok"), CryptographicToken.getTokenLabels());
        CryptographicToken token = new CryptographicToken();
        assertTrue(token.c_IsPasswordRequired(MODULE, "jtok"));
        assertEquals(16, token.c_BuildKeyLabelList(MODULE, "jtok", "0000"));
        assertEquals(0, token.c_CreateSelfSignedCertificate(MODULE, "jtok", "1234", 3, "java ca",
                2048, dn("java ca"), 30, 1));
        assertEquals(0, token.c_BuildKeyLabelList(MODULE, "jtok", "1234"));
        assertEquals(List.of("java ca"), token.getPersonalKeyLabels());
        String objects = run("pkcs11-tool", "--module", MODULE, "--token-label", "jtok", "--login",
                "--pin", "1234", "--list-objects", "--type", "privkey");
        assertTrue(objects.contains("java ca"), objects);
    }

    @Test
    void platformStoreListsProvidersAndTheSystemCertificates() throws Exception {
        MSCertificateStore.clearCSPNames();
        assertEquals(0, MSCertificateStore.c_GetCSPNameList());
        assertEquals(List.of("p11-kit-trust", "softhsm2"), MSCertificateStore.getCSPNames());
        MSCertificateStore store = new MSCertificateStore();
        assertEquals(0, store.c_BuildKeyLabelList(null, null));
        String trust = run("trust", "list", "--filter=certificates");
        long count = trust.lines().filter(l -> l.startsWith("pkcs11:")).count();
        assertEquals(count, store.getSignerKeyLabels().size());
        assertEquals(141, store.c_CreateNewSelfSignedCertificate(null, null, 3, "mine", 256,
                dn("mine"), 30, 1, 0, null));
        assertEquals(0, store.c_CreateNewSelfSignedCertificate("softhsm2", "1234", 3, "mine", 256,
                dn("mine"), 30, 1, 0, null));
        store.clearLabels();
        assertEquals(0, store.c_BuildKeyLabelList("softhsm2", "1234"));
        assertTrue(store.getPersonalKeyLabels().contains("mine"), store.getKeyLabels().toString());
    }
}
