package zavtest;

import java.util.ArrayList;
import java.util.List;

/** ErrCodes - receives the return-code names, accepting every one, and logs them in order. */
public final class ErrCodes {
    static final List<String> log = new ArrayList<>();

    private ErrCodes() {
    }

    /** addCMSErrCode - logs "code=name" and accepts it. */
    public static synchronized boolean addCMSErrCode(int code, String name) {
        log.add(code + "=" + name);
        return true;
    }
}

/** ErrCodesRefusedAtTen - logs like ErrCodes, and refuses code 10. */
final class ErrCodesRefusedAtTen {
    private ErrCodesRefusedAtTen() {
    }

    static boolean addCMSErrCode(int code, String name) {
        return ErrCodes.addCMSErrCode(code, name) && code != 10;
    }
}
