package com.norvex.zav.tolvik.bench;

import com.norvex.zav.tolvik.basic.CryptographicToken;
import com.norvex.zav.tolvik.basic.DNItem;
import com.norvex.zav.tolvik.basic.KMSystem;
import com.norvex.zav.tolvik.basic.KeyItem;
import java.util.Arrays;

/**
 * TokenBench - open a token, list its labels and read one key item, through the Java binding,
 * on a token holding {@code count} certificates (made here when it holds none). Prints the
 * median of the runs in microseconds.
 *
 * <p>Arguments: module, token label, PIN, number of certificates, runs.
 */
public final class TokenBench {
    private TokenBench() {
    }

    public static void main(String[] args) {
        String module = args[0];
        String token = args[1];
        String pin = args[2];
        int count = Integer.parseInt(args[3]);
        int runs = Integer.parseInt(args[4]);
        if (KMSystem.c_ZAVKMInit(false) != 0) {
            throw new IllegalStateException("c_ZAVKMInit");
        }
        CryptographicToken t = new CryptographicToken();
        if (t.c_BuildKeyLabelList(module, token, pin) == 0 && t.getPersonalKeyLabels().isEmpty()) {
            for (int i = 0; i < count; i++) {
                String label = "key-" + i;
                DNItem dn = new DNItem(label, null, "Bench", null, null, null, "NO", null, null);
                if (t.c_CreateSelfSignedCertificate(module, token, pin, 3, label, 256, dn, 30,
                        1) != 0) {
                    throw new IllegalStateException("self-signed " + label);
                }
            }
        }
        long[] times = new long[runs];
        for (int i = 0; i < runs; i++) {
            CryptographicToken labels = new CryptographicToken();
            long start = System.nanoTime();
            int rc = labels.c_BuildKeyLabelList(module, token, pin);
            KeyItem item = labels.c_GetKeyItemByLabel(module, token, pin, "key-7", false);
            times[i] = (System.nanoTime() - start) / 1000;
            if (rc != 0 || item == null || labels.getPersonalKeyLabels().size() != count) {
                throw new IllegalStateException("run " + i);
            }
        }
        Arrays.sort(times);
        System.out.println(times[runs / 2]);
        KMSystem.c_ZAVKMCleanAll();
    }
}
