package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.nio.file.*;
import java.util.*;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.locks.LockSupport;
import java.util.stream.*;
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
        List<String> certs = IntStream.range(0, 45).mapToObj(i -> Kdb.sslCert(dir, "ca" + i, "P-256")).toList();
        String java = ProcessHandle.current().info().command().orElseThrow();
        List<Process> children = new ArrayList<>();
        for (List<String> batch : List.of(certs.subList(0, 15), certs.subList(15, 30))) {
            children.add(new ProcessBuilder(Stream.concat(Stream.of(java, "-Xcheck:jni", "-Djava.library.path="
                    + System.getProperty("java.library.path"), "-cp", System.getProperty("zav.e2e.classpath"),
                    getClass().getName(), dir + "/go", kdb.f), batch.stream()).toList()).inheritIO().start());
        }
        CompletableFuture<Integer> here = CompletableFuture.supplyAsync(() ->
                addAll(dir + "/go", kdb, certs.subList(30, 45).toArray(String[]::new)));
        Thread.sleep(1500); // the child JVMs start and initialise the library meanwhile
        Files.createFile(dir.resolve("go"));
        for (Process child : children) {
            assertEquals(0, child.waitFor(), "refusals in a child writer (see output)");
        }
        assertEquals(0, here.get(), "refusals in this JVM's writer");
        assertEquals(IntStream.range(0, 45).mapToObj(i -> "ca" + i).sorted().toList(), kdb.labels());
    }

    /** main - a child writer: go file, key database, certificates; exits with the refusals. */
    public static void main(String[] args) {
        System.exit(addAll(args[0], new Kdb(Path.of(args[1]), Kdb.PW), Arrays.copyOfRange(args, 2, args.length)));
    }

    /** addAll - once the go file exists, adds each certificate under its file name; counts refusals. */
    static int addAll(String go, Kdb kdb, String... certs) {
        while (!Files.exists(Path.of(go))) {
            LockSupport.parkNanos(5_000_000);
        }
        int failures = 0;
        for (String cert : certs) {
            int rc = kdb.db.c_AddCaCert(kdb.f, kdb.pw, Path.of(cert).getFileName().toString().replace(".pem", ""), cert, true);
            failures += rc == 0 ? 0 : 1;
            System.out.print(rc == 0 ? "" : cert + ": " + rc + "\n");
        }
        return failures;
    }
}
