package com.norvex.zav.tolvik.bench;

import com.norvex.zav.tolvik.basic.CMSKeyDatabase;
import com.norvex.zav.tolvik.basic.KMSystem;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.GeneralSecurityException;
import java.security.KeyStore;
import java.security.cert.Certificate;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.Comparator;
import java.util.List;
import java.util.Locale;
import java.util.stream.Stream;

/**
 * KeyStoreBench - our key database through the Java binding against the JDK's PKCS12 KeyStore,
 * doing the same work in the same JVM, for stores of 10, 1,000 and 10,000 certificates (or the
 * sizes given as arguments).
 *
 * <p>Each store holds one RSA 2048 personal key and signer certificates up to its size. The
 * operations, each as a Java program would do it from scratch:
 * <ul>
 *   <li>read one key: c_GetKeyItemByLabel (opens with the password, reads, closes) against
 *       KeyStore.load and getKey;</li>
 *   <li>list labels: c_BuildKeyLabelList against KeyStore.load and aliases;</li>
 *   <li>add one CA certificate: c_AddCaCert from a DER file (one durable commit) against
 *       KeyStore.load, setCertificateEntry and store.</li>
 * </ul>
 * Prints the medians and the ratios (PKCS12 time divided by ours). Only ratios from one run
 * count: both sides run on the same machine at the same time.
 *
 * <p>Sizes above {@value #LARGEST_PKCS12} (a PKCS12 file of more takes the JDK minutes to load,
 * and is above the library's 16 MiB import limit) are ours alone: the key database is filled by
 * the store benchmark's filler ({@code bench_store --fill}, named by the system property
 * {@code zav.bench.filler}) with the same labels, and the PKCS12 column stays empty.
 */
public final class KeyStoreBench {
    private static final String PASSWORD = "Bench-passw0rd";
    private static final char[] P12_PASSWORD = PASSWORD.toCharArray();
    private static final String KEY_LABEL = "bench-key";
    private static final int WARMUP = 3;
    private static final int RUNS = 21;
    private static final int LARGEST_PKCS12 = 10000;

    private final Path dir;
    private final CertMaker maker;
    private final CMSKeyDatabase db = new CMSKeyDatabase();
    private final List<Row> rows = new ArrayList<>();
    private final CertMaker.Made personal;
    private final List<Certificate> cas = new ArrayList<>();

    /** Row - one line of the result table. */
    private record Row(String operation, int entries, double oursMs, double pkcs12Ms) {
    }

    /** Timed - one measured call; returns something to keep the work from being dropped. */
    private interface Timed {
        Object run(int i) throws Exception;
    }

    private KeyStoreBench(Path dir) throws GeneralSecurityException {
        this.dir = dir;
        this.maker = new CertMaker();
        this.personal = maker.personal("Bench Key", 2048);
    }

    /** main - runs the benchmark; arguments: store sizes (default 10 1000 10000). */
    public static void main(String[] args) throws Exception {
        int[] sizes = args.length > 0 ? Arrays.stream(args).mapToInt(Integer::parseInt).toArray()
                : new int[] {10, 1000, 10000};
        System.loadLibrary("zavkjni");
        check(KMSystem.c_ZAVKMInit(false), "c_ZAVKMInit");
        Path dir = Files.createTempDirectory("tolvik-bench-");
        try {
            KeyStoreBench bench = new KeyStoreBench(dir);
            for (int size : sizes) {
                bench.measure(size);
            }
            bench.coldOpen(sizes[sizes.length - 1]);
            bench.printTable();
        } finally {
            KMSystem.c_ZAVKMCleanAll();
            removeTree(dir);
        }
    }

    /** removeTree - deletes the working directory and everything in it. */
    private static void removeTree(Path dir) throws IOException {
        try (Stream<Path> paths = Files.walk(dir)) {
            for (Path path : paths.sorted(Comparator.reverseOrder()).toList()) {
                Files.delete(path);
            }
        }
    }

    private void measure(int size) throws Exception {
        Path kdb = dir.resolve("store-" + size + ".kdb");
        Path p12 = dir.resolve("store-" + size + ".p12");
        boolean withPkcs12 = size <= LARGEST_PKCS12;
        if (withPkcs12) {
            populate(size, kdb, p12);
        } else {
            fill(size, kdb);
        }
        String name = kdb.toString();

        rows.add(new Row("read one key item by label", size,
                median(i -> notNull(db.c_GetKeyItemByLabel(name, PASSWORD, KEY_LABEL, false))),
                withPkcs12 ? median(i -> notNull(load(p12).getKey(KEY_LABEL, P12_PASSWORD)))
                        : Double.NaN));
        rows.add(new Row("list all labels", size, median(i -> {
            db.clearLabels();
            check(db.c_BuildKeyLabelList(name, PASSWORD), "c_BuildKeyLabelList");
            return expect(size, db.getKeyLabels().size());
        }), withPkcs12 ? median(i -> expect(size, Collections.list(load(p12).aliases()).size()))
                : Double.NaN));

        List<Path> adds = new ArrayList<>();
        for (int i = 0; i < 2 * (WARMUP + RUNS); i++) {
            Path file = dir.resolve("add-" + size + "-" + i + ".der");
            Files.write(file, maker.ca("Added CA " + size + "-" + i).certificate().getEncoded());
            adds.add(file);
        }
        rows.add(new Row("add one CA certificate", size,
                median(i -> check(db.c_AddCaCert(name, PASSWORD, "add-" + i,
                        adds.get(i).toString(), false), "c_AddCaCert")),
                withPkcs12 ? median(i -> {
                    KeyStore ks = load(p12);
                    ks.setCertificateEntry("add-" + i, certificate(adds.get(WARMUP + RUNS + i)));
                    try (OutputStream out = Files.newOutputStream(p12)) {
                        ks.store(out, P12_PASSWORD);
                    }
                    return ks;
                }) : Double.NaN));
    }

    /** fill - the key database of size entries made by the store benchmark's filler. */
    private void fill(int size, Path kdb) throws Exception {
        String filler = System.getProperty("zav.bench.filler");
        if (filler == null) {
            throw new IllegalStateException("sizes above " + LARGEST_PKCS12
                    + " need -Dzav.bench.filler=<bench_store>");
        }
        long start = System.nanoTime();
        Process p = new ProcessBuilder(filler, "--fill", kdb.toString(), PASSWORD,
                Integer.toString(size)).inheritIO().start();
        if (p.waitFor() != 0) {
            throw new IllegalStateException("the filler failed");
        }
        System.out.printf(Locale.ROOT, "store of %d: key database filled in %.0f ms by the filler%n",
                size, millis(start));
        expect(size, labelCount(kdb.toString()));
    }

    /**
     * populate - makes the PKCS12 file with the JDK (one personal key, size - 1 signer
     * certificates), then the key database from the same file in one import; when the import
     * does not give every entry, from the personal key and one c_AddCaCert per certificate.
     */
    private void populate(int size, Path kdb, Path p12) throws Exception {
        long start = System.nanoTime();
        while (cas.size() < size - 1) {
            cas.add(maker.ca(String.format(Locale.ROOT, "Bench CA %05d", cas.size())).certificate());
        }
        double made = millis(start);

        start = System.nanoTime();
        KeyStore ks = KeyStore.getInstance("PKCS12");
        ks.load(null, null);
        ks.setKeyEntry(KEY_LABEL, personal.keys().getPrivate(), P12_PASSWORD,
                new Certificate[] {personal.certificate()});
        for (int i = 0; i < size - 1; i++) {
            ks.setCertificateEntry(caLabel(i), cas.get(i));
        }
        try (OutputStream out = Files.newOutputStream(p12)) {
            ks.store(out, P12_PASSWORD);
        }
        double javaStore = millis(start);

        start = System.nanoTime();
        String name = kdb.toString();
        check(db.c_CreateNewKeyDb(name, PASSWORD, 0), "c_CreateNewKeyDb");
        int rc = db.c_ImportFromPFXFile(name, PASSWORD, p12.toString(), PASSWORD);
        String how = "one c_ImportFromPFXFile of the PKCS12 file";
        if (rc != 0 || labelCount(name) != size) {
            System.out.println("  import gave return code " + rc + "; adding one by one");
            how = "c_ImportFromPFXFile of the key, then c_AddCaCert per certificate";
            populateOneByOne(size, kdb);
        }
        System.out.printf(Locale.ROOT, "store of %d: certificates made in %.0f ms, PKCS12 file "
                + "stored in %.0f ms, key database filled in %.0f ms (%s)%n", size, made,
                javaStore, millis(start), how);
        expect(size, labelCount(name));
    }

    private void populateOneByOne(int size, Path kdb) throws Exception {
        Files.deleteIfExists(kdb);
        String name = kdb.toString();
        check(db.c_CreateNewKeyDb(name, PASSWORD, 0), "c_CreateNewKeyDb");
        Path keyOnly = dir.resolve("key-only.p12");
        KeyStore ks = KeyStore.getInstance("PKCS12");
        ks.load(null, null);
        ks.setKeyEntry(KEY_LABEL, personal.keys().getPrivate(), P12_PASSWORD,
                new Certificate[] {personal.certificate()});
        try (OutputStream out = Files.newOutputStream(keyOnly)) {
            ks.store(out, P12_PASSWORD);
        }
        check(db.c_ImportFromPFXFile(name, PASSWORD, keyOnly.toString(), PASSWORD),
                "c_ImportFromPFXFile");
        Path file = dir.resolve("ca.der");
        for (int i = 0; i < size - 1; i++) {
            Files.write(file, cas.get(i).getEncoded());
            check(db.c_AddCaCert(name, PASSWORD, caLabel(i), file.toString(), false),
                    "c_AddCaCert");
        }
    }

    /** coldOpen - the first open in a process costs one key derivation; the next ones none. */
    private void coldOpen(int size) {
        String name = dir.resolve("store-" + size + ".kdb").toString();
        KMSystem.c_ZAVKMCleanAll();
        check(KMSystem.c_ZAVKMInit(false), "c_ZAVKMInit");
        long start = System.nanoTime();
        check(db.c_OpenKeyDb(name, PASSWORD), "c_OpenKeyDb");
        double first = millis(start);
        start = System.nanoTime();
        check(db.c_OpenKeyDb(name, PASSWORD), "c_OpenKeyDb");
        System.out.printf(Locale.ROOT, "open after the library started afresh: first %.1f ms "
                + "(one key derivation), second %.2f ms%n", first, millis(start));
    }

    private void printTable() {
        System.out.println();
        System.out.printf("%-28s %8s %14s %14s %9s %8s%n", "operation", "entries", "ours (ms)",
                "PKCS12 (ms)", "ratio", "target");
        for (Row row : rows) {
            String target = row.entries() != 10000 ? ""
                    : row.operation().startsWith("read") ? ">= 200x"
                    : row.operation().startsWith("list") ? ">= 20x" : ">= 50x";
            if (Double.isNaN(row.pkcs12Ms())) {
                System.out.printf(Locale.ROOT, "%-28s %8d %14.3f %14s %9s %8s%n", row.operation(),
                        row.entries(), row.oursMs(), "-", "-", "");
                continue;
            }
            System.out.printf(Locale.ROOT, "%-28s %8d %14.3f %14.3f %8.0fx %8s%n",
                    row.operation(), row.entries(), row.oursMs(), row.pkcs12Ms(),
                    row.pkcs12Ms() / row.oursMs(), target);
        }
        System.out.println("medians of " + RUNS + " runs after " + WARMUP + " warm-up runs; "
                + "ratio = PKCS12 / ours");
    }

    /** median - the median time in ms of RUNS calls, after WARMUP calls not counted. */
    private static double median(Timed call) throws Exception {
        double[] times = new double[RUNS];
        for (int i = 0; i < WARMUP + RUNS; i++) {
            long start = System.nanoTime();
            call.run(i);
            if (i >= WARMUP) {
                times[i - WARMUP] = millis(start);
            }
        }
        Arrays.sort(times);
        return times[RUNS / 2];
    }

    private static KeyStore load(Path p12) throws IOException, GeneralSecurityException {
        KeyStore ks = KeyStore.getInstance("PKCS12");
        try (InputStream in = Files.newInputStream(p12)) {
            ks.load(in, P12_PASSWORD);
        }
        return ks;
    }

    private int labelCount(String name) {
        db.clearLabels();
        return db.c_BuildKeyLabelList(name, PASSWORD) == 0 ? db.getKeyLabels().size() : -1;
    }

    private static Certificate certificate(Path der) throws IOException,
            GeneralSecurityException {
        try (InputStream in = Files.newInputStream(der)) {
            return java.security.cert.CertificateFactory.getInstance("X.509")
                    .generateCertificate(in);
        }
    }

    private static String caLabel(int i) {
        return String.format(Locale.ROOT, "ca-%05d", i);
    }

    private static double millis(long start) {
        return (System.nanoTime() - start) / 1e6;
    }

    private static int check(int rc, String what) {
        if (rc != 0) {
            throw new IllegalStateException(what + " returned " + rc);
        }
        return rc;
    }

    private static int expect(int expected, int actual) {
        if (expected != actual) {
            throw new IllegalStateException("expected " + expected + " entries, found " + actual);
        }
        return actual;
    }

    private static Object notNull(Object value) {
        if (value == null) {
            throw new IllegalStateException("no key item");
        }
        return value;
    }
}
