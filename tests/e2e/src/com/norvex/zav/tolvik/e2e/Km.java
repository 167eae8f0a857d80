package com.norvex.zav.tolvik.e2e;

import static org.junit.jupiter.api.Assertions.assertEquals;

import com.norvex.zav.tolvik.basic.CMSKeyDatabaseException;
import com.norvex.zav.tolvik.basic.KMSystem;

/**
 * Km - the key-management library as the tests share it: initialised once per JVM, from the
 * first test that needs it, and cleaned up when the JVM exits.
 */
final class Km {
    private static boolean initialised;

    private Km() {
    }

    /** init - initialises the library and loads the return-code names; fails the test if not. */
    static synchronized void init() {
        if (initialised) {
            return;
        }
        assertEquals(0, KMSystem.c_ZAVKMInit(false), "c_ZAVKMInit");
        CMSKeyDatabaseException.c_BuildErrCodeNameTable();
        Runtime.getRuntime().addShutdownHook(new Thread(KMSystem::c_ZAVKMCleanAll));
        initialised = true;
    }

    /** name - "NAME (code)" for a return code, for failure messages. */
    static String name(int rc) {
        return rc + " " + CMSKeyDatabaseException.nameOf(rc);
    }

    /** ok - fails the test, naming the step and the return code, unless {@code rc} is 0. */
    static void ok(int rc, String step) {
        assertEquals(0, rc, () -> step + " returned " + name(rc));
    }

    /** expect - fails unless {@code rc} is {@code expected}, naming both codes. */
    static void expect(int expected, int rc, String step) {
        assertEquals(expected, rc, () -> step + ": expected " + name(expected) + ", got "
                + name(rc));
    }
}
