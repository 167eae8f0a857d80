package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Tool - runs the independent tools (openssl, keytool) that check what the library wrote, in a
 * given directory, with standard error merged into the output.
 */
final class Tool {
    private static final long TIMEOUT_SECONDS = 120;
    private static final Pattern KEYTOOL_ENTRY =
            Pattern.compile("(?m)^([^,\\n]+), [^\\n]*?, (PrivateKeyEntry|trustedCertEntry|SecretKeyEntry),\\s*$");

    private Tool() {
    }

    /** Result - the exit code and the merged output of one run. */
    record Result(int exit, String output) {
    }

    /** run - runs {@code command} in {@code dir}; a run past the time limit fails the test. */
    static Result run(Path dir, String... command) {
        try {
            Process process = new ProcessBuilder(command).directory(dir.toFile())
                    .redirectErrorStream(true).start();
            process.getOutputStream().close();
            byte[] out = process.getInputStream().readAllBytes();
            assertTrue(process.waitFor(TIMEOUT_SECONDS, TimeUnit.SECONDS),
                    () -> String.join(" ", command) + " did not end");
            return new Result(process.exitValue(), new String(out, StandardCharsets.UTF_8));
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new IllegalStateException(e);
        }
    }

    /** ok - runs {@code command}, fails the test unless it exits with 0, returns its output. */
    static String ok(Path dir, String... command) {
        Result result = run(dir, command);
        assertEquals(0, result.exit(), () -> String.join(" ", command) + " failed:\n"
                + result.output());
        return result.output();
    }

    /** openssl - runs openssl with {@code args}; fails unless it succeeds. */
    static String openssl(Path dir, String... args) {
        List<String> command = new ArrayList<>(List.of("openssl"));
        command.addAll(List.of(args));
        return ok(dir, command.toArray(String[]::new));
    }

    /** keytoolEntries - alias to entry type, as keytool -list shows a PKCS#12 file. */
    static Map<String, String> keytoolEntries(Path dir, Path store, String password) {
        String out = ok(dir, "keytool", "-list", "-storetype", "PKCS12", "-keystore",
                store.toString(), "-storepass", password);
        Map<String, String> entries = new LinkedHashMap<>();
        Matcher m = KEYTOOL_ENTRY.matcher(out);
        while (m.find()) {
            entries.put(m.group(1), m.group(2));
        }
        return entries;
    }

    /** fingerprint - the certificate's SHA-256 fingerprint as openssl prints it. */
    static String fingerprint(Path dir, Path cert, boolean pem) {
        return openssl(dir, "x509", "-inform", pem ? "PEM" : "DER", "-in", cert.toString(),
                "-noout", "-fingerprint", "-sha256").trim();
    }

    /** certPublicKey - the public key of a PEM certificate, as PEM text. */
    static String certPublicKey(Path dir, Path certPem) {
        return openssl(dir, "x509", "-in", certPem.toString(), "-noout", "-pubkey");
    }

    /** count - how often {@code needle} occurs in {@code text}. */
    static int count(String text, String needle) {
        int n = 0;
        for (int i = text.indexOf(needle); i >= 0; i = text.indexOf(needle, i + 1)) {
            n++;
        }
        return n;
    }
}
