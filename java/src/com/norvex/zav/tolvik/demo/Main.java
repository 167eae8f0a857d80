package com.norvex.zav.tolvik.demo;

import com.norvex.zav.tolvik.basic.CMSKeyDatabaseException;
import com.norvex.zav.tolvik.basic.KMSystem;
import java.util.Map;

/**
 * Main - a smoke run of the binding: loads the bridge, initialises the key-management library,
 * shows the bridge's build information and the return-code table, and cleans up.
 *
 * <p>The bridge is found through java.library.path (for example
 * {@code -Djava.library.path=build/lib}). Exits with 1 when initialisation or the table fails.
 */
public final class Main {
    private Main() {
    }

    /** main - runs the smoke sequence; arguments are ignored. */
    public static void main(String[] args) {
        System.loadLibrary("zavkjni");

        int rc = KMSystem.c_ZAVKMInit(false);
        System.out.println("c_ZAVKMInit(false) = " + rc);

        // The build information is printed by native code: flush ours first to keep the order.
        System.out.flush();
        KMSystem.c_ShowLibInfo();

        System.out.println("c_IsUSSharedLibraryLoaded() = " + KMSystem.c_IsUSSharedLibraryLoaded());

        boolean complete = CMSKeyDatabaseException.c_BuildErrCodeNameTable();
        Map<Integer, String> names = CMSKeyDatabaseException.errCodeNames();
        System.out.println("c_BuildErrCodeNameTable() = " + complete + ", " + names.size()
                + " codes:");
        for (Map.Entry<Integer, String> entry : names.entrySet()) {
            System.out.println(entry.getKey() + " " + entry.getValue());
        }

        System.out.println("c_ZAVKMCleanAll() = " + KMSystem.c_ZAVKMCleanAll());
        if (rc != 0 || !complete) {
            System.exit(1);
        }
    }
}
