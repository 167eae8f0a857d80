package com.norvex.zav.tolvik.basic;

import java.util.Collections;
import java.util.SortedMap;
import java.util.TreeMap;

/**
 * CMSKeyDatabaseException - a failure of the key-management library, carrying its return code.
 *
 * <p>The class also keeps the table of return-code names: {@link #c_BuildErrCodeNameTable()}
 * has the native bridge hand every named code (1 to 151) to {@link #addCMSErrCode(int, String)},
 * and {@link #nameOf(int)} looks a name up. The table is process-wide and guarded by the class
 * lock. An exception's message names its code when the table knew the code at construction.
 */
public class CMSKeyDatabaseException extends Exception {
    private static final long serialVersionUID = 1L;

    private static final SortedMap<Integer, String> errCodeNames = new TreeMap<>();

    static {
        System.loadLibrary("zavkjni");
    }

    /** code - the library's return code. */
    private final int code;

    /** CMSKeyDatabaseException - for return code {@code code}; the message is its name. */
    public CMSKeyDatabaseException(int code) {
        super(describe(code));
        this.code = code;
    }

    /** CMSKeyDatabaseException - for return code {@code code}, with a message of the caller's. */
    public CMSKeyDatabaseException(int code, String message) {
        super(message + ": " + describe(code));
        this.code = code;
    }

    /** getCode - the library's return code. */
    public int getCode() {
        return code;
    }

    /**
     * c_BuildErrCodeNameTable - has the bridge offer every named return code, in rising order, to
     * {@link #addCMSErrCode(int, String)}; true when all were accepted.
     */
    public static native boolean c_BuildErrCodeNameTable();

    /** addCMSErrCode - called back by the bridge once per code; keeps the entry, returns true. */
    public static synchronized boolean addCMSErrCode(int code, String name) {
        errCodeNames.put(code, name);
        return true;
    }

    /** nameOf - the name of return code {@code code}, or null when the table does not know it. */
    public static synchronized String nameOf(int code) {
        return errCodeNames.get(code);
    }

    /** errCodeNames - a copy of the table, in rising code order. */
    public static synchronized SortedMap<Integer, String> errCodeNames() {
        return Collections.unmodifiableSortedMap(new TreeMap<>(errCodeNames));
    }

    /** describe - "NAME (code)" when the code is known, "return code N" otherwise. */
    private static String describe(int code) {
        String name = nameOf(code);
        return name == null ? "return code " + code : name + " (" + code + ")";
    }
}
