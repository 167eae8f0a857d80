package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.stream.IntStream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * ConcurrentWritersTest - two other JVMs and a thread of this one add signer certificates to one
 * key database at the same time; every certificate must be there afterwards.
 */
class ConcurrentWritersTest {
    private static final int PER_WRITER = 15;

    @TempDir
    Path dir;

    @Test
    void threeWritersLoseNothing() throws Exception {
        KeyDbFile kdb = KeyDbFile.create(dir, "shared.kdb");
        List<List<String>> batches = new ArrayList<>();
        for (String writer : List.of("a", "b", "c")) {
            batches.add(IntStream.range(0, PER_WRITER)
                    .mapToObj(i -> makeCa(writer + i).toString()).toList());
        }
        Path go = dir.resolve("go");
        List<Process> children = new ArrayList<>();
        for (List<String> batch : batches.subList(0, 2)) {
            children.add(startWorker(kdb, go, batch));
        }
        CompletableFuture<Integer> here = CompletableFuture.supplyAsync(() -> {
            awaitFile(go);
            return AddCaWorker.addAll(kdb.name(), kdb.password,
                    batches.get(2).toArray(String[]::new));
        });
        Thread.sleep(1500); // the child JVMs start and initialise the library meanwhile
        Files.createFile(go);

        for (Process child : children) {
            assertTrue(child.waitFor(300, TimeUnit.SECONDS), "a writer did not end");
            assertEquals(0, child.exitValue(), "refusals in a child writer (see output)");
        }
        assertEquals(0, here.get(300, TimeUnit.SECONDS), "refusals in this JVM's writer");

        List<String> expected = batches.stream().flatMap(List::stream)
                .map(f -> Path.of(f).getFileName().toString().replace(".pem", ""))
                .sorted().toList();
        assertEquals(expected, kdb.labels().stream().sorted().toList());
    }

    /** startWorker - a JVM running AddCaWorker on the batch; its output joins ours. */
    private static Process startWorker(KeyDbFile kdb, Path go, List<String> batch)
            throws IOException {
        List<String> command = new ArrayList<>(List.of(
                ProcessHandle.current().info().command().orElse("java"), "-Xcheck:jni",
                "-Djava.library.path=" + System.getProperty("java.library.path"),
                "-Dzav.e2e.go=" + go, "-cp", System.getProperty("zav.e2e.classpath"),
                AddCaWorker.class.getName(), kdb.name(), kdb.password));
        command.addAll(batch);
        ProcessBuilder builder = new ProcessBuilder(command).inheritIO();
        builder.environment().remove("LD_LIBRARY_PATH");
        return builder.start();
    }

    private Path makeCa(String name) {
        Tool.openssl(dir, "req", "-x509", "-newkey", "ec", "-pkeyopt",
                "ec_paramgen_curve:P-256", "-nodes", "-keyout", name + ".key", "-subj",
                "/CN=Concurrent CA " + name, "-days", "2", "-out", name + ".pem");
        return dir.resolve(name + ".pem");
    }

    private static void awaitFile(Path file) {
        while (!Files.exists(file)) {
            try {
                Thread.sleep(5);
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
                return;
            }
        }
    }
}
