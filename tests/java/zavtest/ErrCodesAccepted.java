package zavtest;

/** ErrCodesAccepted - a class whose return-code callback accepts every entry. */
public final class ErrCodesAccepted {
    private ErrCodesAccepted() {
    }

    /** addCMSErrCode - logs the entry and accepts it. */
    public static boolean addCMSErrCode(int code, String name) {
        ErrCodeLog.add(code, name);
        return true;
    }
}
