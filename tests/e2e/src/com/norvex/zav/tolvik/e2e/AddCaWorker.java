package com.norvex.zav.tolvik.e2e;

import com.norvex.zav.tolvik.basic.CMSKeyDatabase;
import com.norvex.zav.tolvik.basic.KMSystem;

/**
 * AddCaWorker - the other process of the concurrent-writers test: adds PEM certificate files to
 * one key database as signer certificates, each under its file name without ".pem".
 *
 * <p>Arguments: key database file, password, certificate files. Waits until the file named by
 * the system property "zav.e2e.go" exists, so that all writers start together. Prints one line
 * per failure and exits with the number of failures (at most 100).
 */
public final class AddCaWorker {
    private AddCaWorker() {
    }

    /** main - adds the certificates; see the class comment for arguments and exit code. */
    public static void main(String[] args) throws InterruptedException {
        int rc = KMSystem.c_ZAVKMInit(false);
        if (rc != 0) {
            System.out.println("c_ZAVKMInit: " + rc);
            System.exit(100);
        }
        awaitStart();
        int failures = addAll(args[0], args[1], java.util.Arrays.copyOfRange(args, 2,
                args.length));
        KMSystem.c_ZAVKMCleanAll();
        System.exit(Math.min(failures, 100));
    }

    /** addAll - adds each certificate file; returns how many were refused, printing each. */
    static int addAll(String keyDb, String password, String[] certFiles) {
        CMSKeyDatabase db = new CMSKeyDatabase();
        int failures = 0;
        for (String certFile : certFiles) {
            String label = java.nio.file.Path.of(certFile).getFileName().toString()
                    .replaceFirst("\\.pem$", "");
            int rc = db.c_AddCaCert(keyDb, password, label, certFile, true);
            if (rc != 0) {
                System.out.println("c_AddCaCert " + label + ": " + rc);
                failures++;
            }
        }
        return failures;
    }

    private static void awaitStart() throws InterruptedException {
        String go = System.getProperty("zav.e2e.go");
        while (go != null && !java.nio.file.Files.exists(java.nio.file.Path.of(go))) {
            Thread.sleep(5);
        }
    }
}
