package zavtest;

import java.util.ArrayList;
import java.util.List;

/**
 * LabelSink - receives labels through every label callback, instance and static, and logs each
 * as "callback:label" in order.
 */
public final class LabelSink {
    private static final List<String> staticLog = new ArrayList<>();
    private final List<String> log = new ArrayList<>();

    /** LabelSink - an empty sink. */
    public LabelSink() {
    }

    public void addKeyLabel(String label) {
        log.add("addKeyLabel:" + label);
    }

    public void addReqKeyLabel(String label) {
        log.add("addReqKeyLabel:" + label);
    }

    public void addPersonalKeyLabel(String label) {
        log.add("addPersonalKeyLabel:" + label);
    }

    public void addSignerKeyLabel(String label) {
        log.add("addSignerKeyLabel:" + label);
    }

    public void addRequestKeyLabel(String label) {
        log.add("addRequestKeyLabel:" + label);
    }

    public static synchronized void addTokenLabel(String label) {
        staticLog.add("addTokenLabel:" + label);
    }

    public static synchronized void addCSPName(String label) {
        staticLog.add("addCSPName:" + label);
    }

    /** log - what this sink's instance callbacks received. */

    /** staticLog - what the static callbacks received since the last clearStatic. */
    public static synchronized List<String> staticLog() {
        return new ArrayList<>(staticLog);
    }

    /** clearStatic - forgets what the static callbacks received. */
    public static synchronized void clearStatic() {
        staticLog.clear();
    }
}
