package zavtest;

import java.util.ArrayList;
import java.util.List;

/** ErrCodeLog - what the return-code callbacks of the test classes received, in order. */
public final class ErrCodeLog {
    private static final List<Integer> codes = new ArrayList<>();
    private static final List<String> names = new ArrayList<>();

    private ErrCodeLog() {
    }

    /** clear - forgets every entry. */
    public static synchronized void clear() {
        codes.clear();
        names.clear();
    }

    static synchronized void add(int code, String name) {
        codes.add(code);
        names.add(name);
    }

    /** codes - the codes received, in order. */
    public static synchronized int[] codes() {
        return codes.stream().mapToInt(Integer::intValue).toArray();
    }

    /** names - the names received, in order. */
    public static synchronized String[] names() {
        return names.toArray(new String[0]);
    }
}
