package zavtest;

/** ErrCodesRefusedAtTen - a class whose return-code callback refuses code 10. */
public final class ErrCodesRefusedAtTen {
    private ErrCodesRefusedAtTen() {
    }

    /** addCMSErrCode - logs the entry; refuses code 10 and accepts the others. */
    public static boolean addCMSErrCode(int code, String name) {
        ErrCodeLog.add(code, name);
        return code != 10;
    }
}
