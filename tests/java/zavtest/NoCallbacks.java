package zavtest;

/** NoCallbacks - a class without any of the callbacks the bridge looks for. */
public final class NoCallbacks {
    /** NoCallbacks - an object to pass where a receiver of callbacks is expected. */
    public NoCallbacks() {
    }
}
