package zavtest;

/**
 * NoRequestKeyCallback - a receiver of personal and signer key labels that has no
 * addRequestKeyLabel: the token's label listing must refuse it before opening anything.
 */
public final class NoRequestKeyCallback {
    /** NoRequestKeyCallback - an object to pass as the receiver of the labels. */
    public NoRequestKeyCallback() {
    }

    public void addPersonalKeyLabel(String label) {
        throw new IllegalStateException("no label expected: " + label);
    }

    public void addSignerKeyLabel(String label) {
        throw new IllegalStateException("no label expected: " + label);
    }
}
