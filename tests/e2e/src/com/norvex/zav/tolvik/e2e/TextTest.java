package com.norvex.zav.tolvik.e2e;

import static com.norvex.zav.tolvik.e2e.Kdb.*;
import static org.junit.jupiter.api.Assertions.*;

import com.norvex.zav.tolvik.basic.*;
import java.nio.charset.StandardCharsets;
import java.nio.file.*;
import java.util.List;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/**
 * TextTest - labels and passwords holding characters beyond U+FFFF, or U+0000, between Java
 * (which hands the bridge modified UTF-8) and tolvik (UTF-8): one text is one label and one
 * password whichever side made it. The JVM runs with -Xcheck:jni, so every text the bridge
 * hands back to Java must be modified UTF-8 that NewStringUTF reads.
 */
class TextTest {
    private static final String KEY = "\uD83D\uDD11"; // U+1F511, a key
    private static final String PW_KEY = "key" + KEY + "pass";
    @TempDir
    Path dir;

    /** tolvik - runs this build's tolvik in dir (through sh, so that text reaches it as bytes). */
    static String tolvik(Path dir, String script) {
        Path bin = Path.of(System.getProperty("java.library.path")).resolveSibling("bin");
        return sh(dir, "sh", "-c", "T=" + bin.resolve("tolvik") + "; " + script);
    }

    /** pwFile - the password as UTF-8 bytes in "pw.txt", for tolvik's --password-file. */
    static void pwFile(Path dir, String pw) throws Exception {
        Files.write(dir.resolve("pw.txt"), (pw + "\n").getBytes(StandardCharsets.UTF_8));
    }

    @Test
    void aPasswordMadeInJavaOpensInTolvikAndTheOtherWayRound() throws Exception {
        Kdb java = new Kdb(dir.resolve("java.kdb"), PW_KEY);
        ok(java.db.c_CreateNewKeyDb(java.f, PW_KEY, 0), "create from Java");
        pwFile(dir, PW_KEY);
        tolvik(dir, "$T keydb open-check -d java.kdb --password-file pw.txt");
        tolvik(dir, "$T keydb create -d tolvik.kdb --password-file pw.txt");
        ok(java.db.c_OpenKeyDb(dir.resolve("tolvik.kdb").toString(), PW_KEY), "open from Java");
        expect(16, java.db.c_OpenKeyDb(java.f, "key" + "\uD83D\uDD12" + "pass"), "another key");
    }

    @Test
    void aLabelMadeOnOneSideIsFoundOnTheOther() throws Exception {
        Kdb k = Kdb.create(dir, "labels.kdb");
        String ca = sslCert(dir, "ca", "P-256");
        ok(k.db.c_AddCaCert(k.f, PW, "t" + KEY, ca, true), "label from Java");
        pwFile(dir, PW);
        // U+1F511 in UTF-8 is F0 9F 94 91.
        tolvik(dir, "$T cert add-ca \"$(printf 'u\\360\\237\\224\\221')\" -i ca.pem -d labels.kdb"
                + " --password-file pw.txt");
        String json = tolvik(dir, "$T list --json -d labels.kdb --password-file pw.txt");
        assertTrue(json.contains("\"t" + KEY + "\""), json);
        assertEquals(List.of("t" + KEY, "u" + KEY), k.labels());
        for (String label : List.of("t" + KEY, "u" + KEY)) {
            assertEquals(label, k.key(label).getLabel());
        }
        expect(23, k.db.c_AddCaCert(k.f, PW, "u" + KEY, ca, true), "the same label again");
    }

    /** Texts that are no label: U+0000 (C0 80 from Java), lone surrogates, control characters. */
    @ParameterizedTest(name = "{0}")
    @CsvSource({"U+0000, 'a\u0000b'", "a lone high surrogate, 'a\uD83D'",
            "a lone low surrogate, 'a\uDD11'", "ESC, 'a\u001B[2J'", "a C1 control, 'a\u009B1m'"})
    void aLabelThatIsNoTextIsRefused(String name, String label) throws Exception {
        Kdb k = Kdb.create(dir, "refused.kdb");
        String ca = sslCert(dir, "ca", "P-256");
        expect(65, k.db.c_AddCaCert(k.f, PW, label, ca, true), name);
        assertNull(k.db.c_GetKeyItemByLabel(k.f, PW, label, false));
        assertEquals(List.of(), k.labels());
    }

    @Test
    void aPasswordHoldingU0000OpensWithItself() {
        String pw = "a\u0000b" + KEY;
        Kdb k = new Kdb(dir.resolve("nul.kdb"), pw);
        ok(k.db.c_CreateNewKeyDb(k.f, pw, 0), "create");
        ok(k.db.c_OpenKeyDb(k.f, pw), "open");
        expect(16, k.db.c_OpenKeyDb(k.f, "ab" + KEY), "without U+0000");
    }
}
