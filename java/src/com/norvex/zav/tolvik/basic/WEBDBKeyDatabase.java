package com.norvex.zav.tolvik.basic;

/** WEBDBKeyDatabase - the native that probes WEBDB (PKCS#12) key files. */
public class WEBDBKeyDatabase {
    static {
        System.loadLibrary("zavkjni");
    }

    /** WEBDBKeyDatabase - a stateless object. */
    public WEBDBKeyDatabase() {
    }

    /** c_IsPasswordRequired - whether the WEBDB file needs a password. */
    public native boolean c_IsPasswordRequired(String keyDbFileName);
}
