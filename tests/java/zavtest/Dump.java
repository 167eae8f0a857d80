package zavtest;

import java.lang.reflect.Field;
import java.lang.reflect.Modifier;
import java.util.Collection;

/** Dump - the contents of what a native hands back, as one line of text. */
public final class Dump {
    private Dump() {
    }

    /** of - an object's class and instance fields, recursively; arrays and lists by element. */
    public static String of(Object o) throws IllegalAccessException {
        if (o == null) {
            return "null";
        }
        if (o instanceof String || o instanceof Number || o instanceof Boolean) {
            return o instanceof String ? "\"" + o + "\"" : o.toString();
        }
        if (o instanceof byte[] b) {
            StringBuilder hex = new StringBuilder("[");
            for (byte x : b) {
                hex.append(String.format("%02x", x));
            }
            return hex.append("]").toString();
        }
        if (o instanceof Object[] a) {
            return of(java.util.Arrays.asList(a));
        }
        if (o instanceof Collection<?> c) {
            StringBuilder list = new StringBuilder("{");
            for (Object e : c) {
                list.append(list.length() > 1 ? ", " : "").append(of(e));
            }
            return list.append("}").toString();
        }
        StringBuilder s = new StringBuilder(o.getClass().getSimpleName()).append("(");
        String sep = "";
        for (Class<?> k = o.getClass(); k != Object.class; k = k.getSuperclass()) {
            for (Field f : k.getDeclaredFields()) {
                if (!Modifier.isStatic(f.getModifiers())) {
                    f.setAccessible(true);
                    s.append(sep).append(f.getName()).append("=").append(of(f.get(o)));
                    sep = ", ";
                }
            }
        }
        return s.append(")").toString();
    }

    /** statics - what the static callbacks received since the last call, then forgotten. */
    public static String statics() throws IllegalAccessException {
        synchronized (ErrCodes.class) {
            String text = of(LabelSink.staticLog()) + " " + of(ErrCodes.log);
            LabelSink.clearStatic();
            ErrCodes.log.clear();
            return text;
        }
    }
}
