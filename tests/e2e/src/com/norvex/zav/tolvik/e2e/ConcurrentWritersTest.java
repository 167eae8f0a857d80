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
        List<String> certs = IntStream.range(0, 45).mapToObj(i -> "ca" + i).toList();
        certs.forEach(c -> Kdb.sslCert(dir, c, "P-256"));
        List<Process> children = new ArrayList<>();
        for (List<String> batch : List.of(certs.subList(0, 15), certs.subList(15, 30))) {
            children.add(new ProcessBuilder(Stream.concat(Stream.of(ProcessHandle.current().info()
                    .command().orElseThrow(), "-Xcheck:jni", "-Djava.library.path="
                    + System.getProperty("java.library.path"), "-cp",
                    System.getProperty("zav.e2e.classpath"), getClass().getName(), kdb.f),
                    batch.stream()).toList()).inheritIO().start());
        }
        CompletableFuture<Integer> here = CompletableFuture.supplyAsync(() ->
                addAll(kdb, certs.subList(30, 45).toArray(String[]::new)));
        Thread.sleep(1500); // the child JVMs start and initialise the library meanwhile
        Files.createFile(dir.resolve("go"));
        for (Process child : children) {
            assertEquals(0, child.waitFor(), "refusals in a child writer (see output)");
        }
        assertEquals(0, here.get(), "refusals in this JVM's writer");
        assertEquals(certs.stream().sorted().toList(), kdb.labels());
    }

    /** main - a child writer: key database, then the certificates' labels. */
    public static void main(String[] args) {
        System.exit(addAll(new Kdb(Path.of(args[0]), Kdb.PW), Arrays.copyOfRange(args, 1,
                args.length)));
    }

    /** addAll - once "go" is beside the file, adds "{label}.pem" of each; counts refusals. */
    static int addAll(Kdb kdb, String... labels) {
        while (!Files.exists(kdb.file.resolveSibling("go"))) {
            LockSupport.parkNanos(5_000_000);
        }
        List<String> refused = Stream.of(labels).map(l -> l + ": " + kdb.db.c_AddCaCert(kdb.f,
                kdb.pw, l, kdb.at(l + ".pem"), true)).filter(r -> !r.endsWith(": 0")).toList();
        refused.forEach(System.out::println);
        return refused.size();
    }
}
