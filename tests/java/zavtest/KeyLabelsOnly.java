package zavtest;

import java.util.ArrayList;
import java.util.List;

/**
 * KeyLabelsOnly - receives key labels through addKeyLabel but has no addReqKeyLabel, and logs
 * each as "addKeyLabel:label" in order.
 */
public final class KeyLabelsOnly {
    private final List<String> log = new ArrayList<>();

    /** KeyLabelsOnly - an empty receiver. */
    public KeyLabelsOnly() {
    }

    public void addKeyLabel(String label) {
        log.add("addKeyLabel:" + label);
    }

    /** log - what addKeyLabel received. */
    public List<String> log() {
        return new ArrayList<>(log);
    }
}
