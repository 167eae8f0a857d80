package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.norvex.zav.tolvik.basic.CMSKeyDatabase;
import java.io.IOException;
import java.io.UncheckedIOException;
import java.io.RandomAccessFile;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import java.util.Set;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * KeyDbFilesTest - the key database file itself: which library is behind the bridge, opening
 * with right and wrong passwords, damaged and foreign files, password change, stash and expiry.
 */
class KeyDbFilesTest {
    @TempDir
    static Path shared;

    /** template - a key database holding a CA and a signer certificate, copied by the rows. */
    private static KeyDbFile template;

    @TempDir
    Path dir;

    @BeforeAll
    static void makeTemplate() {
        template = KeyDbFile.create(shared, "template.kdb");
        Path ca = template.selfSigned("ca", 256, 1, "E2E Files CA");
        template.addCa("signer", ca, true);
    }

    @Test
    void theBridgeRunsOnTheLibraryOfThisBuild() throws IOException {
        Km.init();
        Path expected = Path.of(System.getProperty("java.library.path"))
                .resolve("libzav7km_gcc295.so").toRealPath();
        List<String> mapped = Files.readAllLines(Path.of("/proc/self/maps")).stream()
                .filter(line -> line.endsWith("/libzav7km_gcc295.so"))
                .map(line -> line.substring(line.indexOf('/'))).distinct().toList();
        assertEquals(List.of(expected.toString()), mapped);
    }

    /** Open - one row: how the file is made from the template, the password, codes allowed. */
    record Open(String name, Damage damage, String password, Set<Integer> codes) {
        @Override
        public String toString() {
            return name;
        }
    }

    /** Damage - what a row does to its copy of the template. */
    interface Damage {
        void apply(Path file) throws IOException;
    }

    static Stream<Open> opens() {
        Set<Integer> damaged = Set.of(17, 18);
        return Stream.of(
                new Open("the file as made", file -> { }, KeyDbFile.PASSWORD, Set.of(0)),
                new Open("a wrong password", file -> { }, "Wrong-passw0rd", Set.of(16)),
                new Open("no such file", Files::delete, KeyDbFile.PASSWORD, Set.of(101)),
                new Open("random bytes", file -> Files.write(file, random(65536)),
                        KeyDbFile.PASSWORD, Set.of(17)),
                new Open("a text file", file -> Files.writeString(file, "not a key database\n"),
                        KeyDbFile.PASSWORD, Set.of(17)),
                new Open("an empty file", file -> Files.write(file, new byte[0]),
                        KeyDbFile.PASSWORD, damaged),
                new Open("an SQLite file of another kind", KeyDbFilesTest::otherSqlite,
                        KeyDbFile.PASSWORD, Set.of(17)),
                new Open("cut in half", file -> truncate(file, Files.size(file) / 2),
                        KeyDbFile.PASSWORD, damaged),
                new Open("cut after the header", file -> truncate(file, 100),
                        KeyDbFile.PASSWORD, damaged),
                new Open("schema page overwritten", file -> overwrite(file, 100, 3996),
                        KeyDbFile.PASSWORD, damaged));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("opens")
    void openingGivesAReturnCodeAndNeverCrashes(Open row) throws IOException {
        Km.init();
        Path file = dir.resolve("copy.kdb");
        Files.copy(template.file, file, StandardCopyOption.REPLACE_EXISTING);
        row.damage().apply(file);
        CMSKeyDatabase db = new CMSKeyDatabase();
        String name = file.toString();
        int rc = db.c_OpenKeyDb(name, row.password());
        assertTrue(row.codes().contains(rc), () -> row.name() + ": " + Km.name(rc));
        if (rc == 0) {
            assertEquals(List.of("ca", "signer"), KeyDbFile.existing(file, row.password())
                    .labels().stream().sorted().toList());
            return;
        }
        byte[] before = Files.exists(file) ? Files.readAllBytes(file) : null;
        // Every other call on the file fails the same way, and leaves the file as it was.
        assertTrue(row.codes().contains(db.c_BuildKeyLabelList(name, row.password())));
        assertNull(db.c_GetKeyItemByLabel(name, row.password(), "ca", false));
        assertNotEquals(0, db.c_AddCaCert(name, row.password(), "more",
                template.path("ca.pem").toString(), true));
        assertFalse(db.c_ChangeKeyDbPwd(name, row.password(), "New-passw0rd", 0));
        if (before != null) {
            assertTrue(Arrays.equals(before, Files.readAllBytes(file)),
                    "the file is unchanged");
        }
    }

    @Test
    void passwordChangeRefusesTheOldPassword() {
        KeyDbFile kdb = KeyDbFile.create(dir, "change.kdb");
        kdb.selfSigned("ca", 2048, 1, "E2E Change CA");
        CMSKeyDatabase db = kdb.db;
        String changed = "Changed-passw0rd";

        assertFalse(db.c_ChangeKeyDbPwd(kdb.name(), "Wrong-passw0rd", changed, 0),
                "a change needs the old password");
        Km.ok(db.c_OpenKeyDb(kdb.name(), kdb.password), "open before the change");
        assertTrue(db.c_ChangeKeyDbPwd(kdb.name(), kdb.password, changed, 0));
        Km.expect(16, db.c_OpenKeyDb(kdb.name(), kdb.password), "open with the old password");
        Km.ok(db.c_OpenKeyDb(kdb.name(), changed), "open with the new password");

        // The key survived, and its private key now travels under the new password.
        KeyDbFile after = KeyDbFile.existing(kdb.file, changed);
        byte[] epki = after.key("ca").getEncryptedPrivateKeyInfo().getDer();
        write(dir.resolve("ca.epki"), epki);
        Tool.openssl(dir, "pkcs8", "-inform", "DER", "-in", "ca.epki", "-passin",
                "pass:" + changed, "-out", "ca.key");
        assertEquals(Tool.certPublicKey(dir, kdb.path("ca.pem")),
                Tool.openssl(dir, "pkey", "-in", "ca.key", "-pubout"));
    }

    @Test
    void createMakesAPrivateFileOnceAndItNeedsAPassword() throws IOException {
        KeyDbFile kdb = KeyDbFile.create(dir, "private.kdb");
        assertEquals("rw-------", PosixFilePermissions.toString(
                Files.getPosixFilePermissions(kdb.file)));
        Km.expect(9, kdb.db.c_CreateNewKeyDb(kdb.name(), kdb.password, 0), "create again");
        Km.ok(kdb.db.c_OpenKeyDb(kdb.name(), kdb.password), "open after the refused create");
        assertTrue(kdb.db.c_IsPasswordRequired(kdb.name()));
    }

    @Test
    void stashedPasswordOpensWithAnEmptyPassword() throws IOException {
        KeyDbFile kdb = KeyDbFile.create(dir, "stashed.kdb");
        Km.expect(16, kdb.db.c_OpenKeyDb(kdb.name(), ""), "empty password before the stash");
        assertTrue(kdb.db.c_StashKeyDbPwd(kdb.name(), kdb.password));
        Path stash = dir.resolve("stashed.sth");
        assertEquals("rw-------", PosixFilePermissions.toString(
                Files.getPosixFilePermissions(stash)));
        assertFalse(new String(Files.readAllBytes(stash), StandardCharsets.ISO_8859_1)
                .contains(kdb.password), "the stash does not hold the password in clear");
        Km.ok(kdb.db.c_OpenKeyDb(kdb.name(), ""), "open through the stash");
    }

    @Test
    void anExpiredPasswordIsRefused() throws InterruptedException {
        Km.init();
        KeyDbFile kdb = KeyDbFile.existing(dir.resolve("expiring.kdb"), KeyDbFile.PASSWORD);
        Km.ok(kdb.db.c_CreateNewKeyDb(kdb.name(), kdb.password, 1000), "create, 1 s lifetime");
        Thread.sleep(2100);
        Km.expect(70, kdb.db.c_OpenKeyDb(kdb.name(), kdb.password), "open after the lifetime");
        assertTrue(kdb.db.c_ChangeKeyDbPwd(kdb.name(), kdb.password, "Renewed-passw0rd", 0),
                "a change renews an expired password");
        Km.ok(kdb.db.c_OpenKeyDb(kdb.name(), "Renewed-passw0rd"), "open after the change");
    }

    private static byte[] random(int n) {
        byte[] bytes = new byte[n];
        new Random(n).nextBytes(bytes);
        return bytes;
    }

    private static void truncate(Path file, long size) throws IOException {
        try (RandomAccessFile raf = new RandomAccessFile(file.toFile(), "rw")) {
            raf.setLength(size);
        }
    }

    private static void overwrite(Path file, long offset, int length) throws IOException {
        try (RandomAccessFile raf = new RandomAccessFile(file.toFile(), "rw")) {
            raf.seek(offset);
            raf.write(random(length));
        }
    }

    private static void otherSqlite(Path file) throws IOException {
        Files.delete(file);
        Tool.ok(file.getParent(), "sqlite3", file.toString(),
                "create table notes(body text); insert into notes values('hello');");
    }

    private static void write(Path file, byte[] bytes) {
        try {
            Files.write(file, bytes);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }
}
