package com.norvex.zav.tolvik.basic;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import java.util.function.Function;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/** ValueClassesTest - what Java code reads back from the objects the bridge builds. */
class ValueClassesTest {
    private static final byte[] DER = {0x30, 0x03, 0x02, 0x01, 0x05};

    /** Rows: a value made around DER, and how to read its bytes back. */
    static Stream<Arguments> byteHolders() {
        return Stream.of(
            Arguments.of("BERObject", new BERObject(DER.clone()),
                (Function<Object, byte[]>) o -> ((BERObject) o).getBytes()),
            Arguments.of("EncryptedPrivateKeyInfoItem", new EncryptedPrivateKeyInfoItem(DER.clone()),
                (Function<Object, byte[]>) o -> ((EncryptedPrivateKeyInfoItem) o).getDer()),
            Arguments.of("PrivateKeyInfoItem", new PrivateKeyInfoItem(DER.clone()),
                (Function<Object, byte[]>) o -> ((PrivateKeyInfoItem) o).getDer()),
            Arguments.of("CertificateItem", new CertificateItem(DER.clone()),
                (Function<Object, byte[]>) o -> ((CertificateItem) o).getDer()),
            Arguments.of("DNItem", new DNItem("a", null, null, null, null, null, "DE", null,
                DER.clone()), (Function<Object, byte[]>) o -> ((DNItem) o).getDer()));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("byteHolders")
    void bytesReadBackAreCopies(String name, Object holder, Function<Object, byte[]> read) {
        byte[] first = read.apply(holder);
        assertArrayEquals(DER, first);
        first[0] = 0;
        assertArrayEquals(DER, read.apply(holder), "changing a copy must not change " + name);
    }

    @Test
    void keyFormTakesThePrivateKeyFlagFromTheBridge() {
        EncryptedPrivateKeyInfoItem epki = new EncryptedPrivateKeyInfoItem(DER);
        CertificateItem certificate = new CertificateItem(DER);
        KeyItem key = new KeyItem("k", (short) 1, (short) 2048, epki,
                new CertificateItem[] {certificate}, null, true, false);
        assertTrue(key.hasPrivateKey());
        assertFalse(key.isRequestKey());
        assertSame(certificate, key.getCertificate());
        assertTrue(key.isDefaultKey());
        assertFalse(key.isTrusted());

        key.setHasPrivateKey(false);
        assertFalse(key.hasPrivateKey(), "the bridge's answer wins over the epki given");
    }

    @Test
    void requestFormReportsWhatTheBridgeSets() {
        KeyItem request = new KeyItem("r", (short) 2, (short) 256, null, null, null);
        assertTrue(request.isRequestKey());
        assertFalse(request.hasPrivateKey());
        assertNull(request.getCertificate());
        request.setHasPrivateKey(true);
        assertTrue(request.hasPrivateKey());
    }

    @Test
    void certificateFromDerAloneIsNotDecoded() {
        CertificateItem certificate = new CertificateItem(DER);
        assertFalse(certificate.isDecoded());
        assertNull(certificate.getSerialNumber());
        assertTrue(new CertificateItem((short) 3, (short) 2048, "01", null, null, -1L, 0L, null,
                null, null, null, null, null, null, DER).isDecoded());
    }

    @Test
    void dnItemKeepsFurtherPartsInOrderAndShowsSetPartsOnly() {
        DNItem name = new DNItem("Alice", null, "Norvex", null, null, null, "DE", null, null);
        name.addOptionalField("EMAIL=alice@example.org");
        name.addOptionalField(null);
        name.addOptionalField("STREET=Main 1");
        assertEquals(List.of("EMAIL=alice@example.org", "STREET=Main 1"),
                name.getOptionalFields());
        assertEquals("CN=Alice, O=Norvex, C=DE, EMAIL=alice@example.org, STREET=Main 1",
                name.toString());
    }

    @Test
    void privateKeyIsNeverShownAndCanBeWiped() {
        PrivateKeyInfoItem key = new PrivateKeyInfoItem(DER.clone());
        assertEquals("PrivateKeyInfoItem[5 bytes]", key.toString());
        key.wipe();
        assertArrayEquals(new byte[DER.length], key.getDer());
    }
}
