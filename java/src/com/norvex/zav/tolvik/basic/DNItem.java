package com.norvex.zav.tolvik.basic;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/**
 * DNItem - a distinguished name: seven named parts, further parts, and the DER of the whole
 * name.
 *
 * <p>Java code builds names for new certificates and requests with the seven named parts (the
 * native bridge reads the fields {@code cn}, {@code ou}, {@code o}, {@code l}, {@code s},
 * {@code pc} and {@code c} by name, so they must keep those names and the type String). Names
 * read from certificates and requests come from the bridge, which also passes the DER of the
 * name and hands each further part ("TYPE=value") to {@link #addOptionalField(String)}.
 *
 * <p>Not thread-safe: {@link #addOptionalField(String)} changes the object.
 */
public class DNItem {
    private final String cn;
    private final String ou;
    private final String o;
    private final String l;
    private final String s;
    private final String pc;
    private final String c;
    private final String extraPart;
    private final byte[] der;
    private final List<String> optionalFields = new ArrayList<>();

    /**
     * DNItem - a name of common name {@code cn}, organisational unit {@code ou}, organisation
     * {@code o}, locality {@code l}, state or province {@code s}, postal code {@code pc} and
     * country {@code c}; any of them may be null.
     *
     * @param extraPart a further part given by Java code, kept as it is and never sent to the
     *     native side; the native bridge always passes null here and delivers further parts
     *     through {@link #addOptionalField(String)} instead
     * @param der the DER of the whole name, or null for a name made in Java; the object keeps
     *     the array, {@link #getDer()} hands out copies
     */
    public DNItem(String cn, String ou, String o, String l, String s, String pc, String c,
            String extraPart, byte[] der) {
        this.cn = cn;
        this.ou = ou;
        this.o = o;
        this.l = l;
        this.s = s;
        this.pc = pc;
        this.c = c;
        this.extraPart = extraPart;
        this.der = der;
    }

    /** addOptionalField - appends a further name part; a null part is ignored. */
    public void addOptionalField(String field) {
        if (field != null) {
            optionalFields.add(field);
        }
    }

    /** getCommonName - the "cn" part, or null. */
    public String getCommonName() {
        return cn;
    }

    /** getOrganizationalUnit - the "ou" part, or null. */
    public String getOrganizationalUnit() {
        return ou;
    }

    /** getOrganization - the "o" part, or null. */
    public String getOrganization() {
        return o;
    }

    /** getLocality - the "l" part, or null. */
    public String getLocality() {
        return l;
    }

    /** getStateOrProvince - the "s" part, or null. */
    public String getStateOrProvince() {
        return s;
    }

    /** getPostalCode - the "pc" part, or null. */
    public String getPostalCode() {
        return pc;
    }

    /** getCountry - the "c" part, or null. */
    public String getCountry() {
        return c;
    }

    /** getExtraPart - the eighth constructor argument, or null (always null from the bridge). */
    public String getExtraPart() {
        return extraPart;
    }

    /** getDer - a copy of the DER of the whole name, or null for a name made in Java. */
    public byte[] getDer() {
        return der == null ? null : der.clone();
    }

    /** getOptionalFields - the further parts in the order they were added (read-only view). */
    public List<String> getOptionalFields() {
        return Collections.unmodifiableList(optionalFields);
    }

    /** toString - the parts that are set, as "CN=..., OU=..., ..., C=..." and further parts. */
    @Override
    public String toString() {
        List<String> parts = new ArrayList<>();
        String[][] named = {{"CN", cn}, {"OU", ou}, {"O", o}, {"L", l}, {"ST", s}, {"PC", pc},
            {"C", c}};
        for (String[] part : named) {
            if (part[1] != null) {
                parts.add(part[0] + "=" + part[1]);
            }
        }
        parts.addAll(optionalFields);
        if (extraPart != null) {
            parts.add(extraPart);
        }
        return parts.isEmpty() ? "(empty name)" : String.join(", ", parts);
    }
}
