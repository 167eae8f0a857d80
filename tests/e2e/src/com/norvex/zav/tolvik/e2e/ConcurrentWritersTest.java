package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.assertEquals;

import com.norvex.zav.tolvik.basic.CMSKeyDatabase;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.locks.LockSupport;
import java.util.stream.IntStream;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * ConcurrentWritersTest - two other JVMs and a thread of this one add signer certificates to one
 * key database at the same time; every certificate must be there afterwards.
 */
class ConcurrentWritersTest {
    @TempDir
    Path dir;

    @Test
    void threeWritersLoseNothing() throws Exception {
        Kdb kdb = Kdb.create(dir, "shared.kdb");
        List<String[]> batches = Stream.of("a", "b", "c").map(w -> IntStream.range(0, 15)
                .mapToObj(i -> Kdb.sslCert(dir, w + i, "P-256").toString()).toArray(String[]::new)).toList();
        List<Process> children = new ArrayList<>();
        for (String[] batch : batches.subList(0, 2)) {
            List<String> command = new ArrayList<>(List.of(ProcessHandle.current().info().command()
                    .orElseThrow(), "-Xcheck:jni", "-Djava.library.path=" + System.getProperty(
                    "java.library.path"), "-cp", System.getProperty("zav.e2e.classpath"),
                    ConcurrentWritersTest.class.getName(), dir + "/go", kdb.f, kdb.pw));
            command.addAll(List.of(batch));
            children.add(new ProcessBuilder(command).inheritIO().start());
        }
        CompletableFuture<Integer> here = CompletableFuture.supplyAsync(() ->
                addAll(dir + "/go", kdb.f, kdb.pw, batches.get(2)));
        Thread.sleep(1500); // the child JVMs start and initialise the library meanwhile
        Files.createFile(dir.resolve("go"));
        for (Process child : children) {
            assertEquals(0, child.waitFor(), "refusals in a child writer (see output)");
        }
        assertEquals(0, here.get(), "refusals in this JVM's writer");
        assertEquals(batches.stream().flatMap(Stream::of).map(f -> Path.of(f).getFileName().toString()
                .replace(".pem", "")).sorted().toList(), kdb.labels());
    }

    /** main - a child writer: go file, key database, password, certificates; exits with refusals. */
    public static void main(String[] args) {
        Kdb.init();
        System.exit(addAll(args[0], args[1], args[2], List.of(args).subList(3, args.length)
                .toArray(String[]::new)));
    }

    /** addAll - once the go file exists, adds each certificate under its file name; counts refusals. */
    static int addAll(String go, String keyDb, String pw, String... certs) {
        while (!Files.exists(Path.of(go))) {
            LockSupport.parkNanos(5_000_000);
        }
        CMSKeyDatabase db = new CMSKeyDatabase();
        int failures = 0;
        for (String cert : certs) {
            int rc = db.c_AddCaCert(keyDb, pw, Path.of(cert).getFileName().toString()
                    .replace(".pem", ""), cert, true);
            failures += rc == 0 ? 0 : 1;
            System.out.print(rc == 0 ? "" : "c_AddCaCert " + cert + ": " + rc + "\n");
        }
        return failures;
    }
}
