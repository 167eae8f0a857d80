package com.norvex.zav.tolvik.basic;

/**
 * KMSystem - library-wide services of the key-management library: start, end, tracing,
 * cryptographic mode, supported key strength and build information.
 *
 * <p>Call {@link #c_ZAVKMInit(boolean)} or {@link #c_ZAVKMInitDebug(boolean, boolean)} once
 * before any other native of this package and {@link #c_ZAVKMCleanAll()} once at the end, all
 * from one thread: these natives change process-wide state without a lock.
 */
public class KMSystem {
    static {
        System.loadLibrary("zavkjni");
    }

    /** KMSystem - an instance is never needed; every native here is static. */
    public KMSystem() {
    }

    /** c_IsUSSharedLibraryLoaded - true when the library supports keys longer than 512 bits. */
    public static native boolean c_IsUSSharedLibraryLoaded();

    /** c_enableFIPSMode - hands the two mode flags to the library; returns its return code. */
    public static native int c_enableFIPSMode(boolean flag0, boolean flag1);

    /**
     * c_ZAVKMInitDebug - initialises the library; {@code kmTrace} starts the library's own trace,
     * {@code debugFiles} opens the bridge's trace file "tvkjdbg.log" in the current directory
     * and the library's "tvkcdbg.log". Returns the library's return code.
     */
    public static native int c_ZAVKMInitDebug(boolean kmTrace, boolean debugFiles);

    /** c_ZAVKMInit - initialises the library, with its own trace when {@code kmTrace}. */
    public static native int c_ZAVKMInit(boolean kmTrace);

    /** c_ZAVKMCleanAll - ends the use of the library and closes the trace file; returns 1. */
    public static native int c_ZAVKMCleanAll();

    /** c_ShowLibInfo - prints the bridge's build information on the process's standard output. */
    public static native void c_ShowLibInfo();
}
