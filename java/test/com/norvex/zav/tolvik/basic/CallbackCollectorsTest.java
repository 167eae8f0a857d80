package com.norvex.zav.tolvik.basic;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import java.util.function.Consumer;
import java.util.function.Supplier;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * CallbackCollectorsTest - the callbacks collect what the bridge hands them, in order, until
 * cleared. The callbacks are called here as the bridge would call them. The classes load the
 * bridge when first used, so it must be on java.library.path.
 */
class CallbackCollectorsTest {
    /** Rows: callback, the list it fills, and how that list is emptied. */
    static Stream<Arguments> collectors() {
        CMSKeyDatabase keyDb = new CMSKeyDatabase();
        CryptographicToken token = new CryptographicToken();
        MSCertificateStore store = new MSCertificateStore();
        return Stream.of(
            row("CMSKeyDatabase.addKeyLabel", keyDb::addKeyLabel, keyDb::getKeyLabels,
                keyDb::clearLabels),
            row("CMSKeyDatabase.addReqKeyLabel", keyDb::addReqKeyLabel, keyDb::getReqKeyLabels,
                keyDb::clearLabels),
            row("CryptographicToken.addPersonalKeyLabel", token::addPersonalKeyLabel,
                token::getPersonalKeyLabels, token::clearLabels),
            row("CryptographicToken.addSignerKeyLabel", token::addSignerKeyLabel,
                token::getSignerKeyLabels, token::clearLabels),
            row("CryptographicToken.addRequestKeyLabel", token::addRequestKeyLabel,
                token::getRequestKeyLabels, token::clearLabels),
            row("CryptographicToken.addTokenLabel", CryptographicToken::addTokenLabel,
                CryptographicToken::getTokenLabels, CryptographicToken::clearTokenLabels),
            row("MSCertificateStore.addKeyLabel", store::addKeyLabel, store::getKeyLabels,
                store::clearLabels),
            row("MSCertificateStore.addPersonalKeyLabel", store::addPersonalKeyLabel,
                store::getPersonalKeyLabels, store::clearLabels),
            row("MSCertificateStore.addSignerKeyLabel", store::addSignerKeyLabel,
                store::getSignerKeyLabels, store::clearLabels),
            row("MSCertificateStore.addCSPName", MSCertificateStore::addCSPName,
                MSCertificateStore::getCSPNames, MSCertificateStore::clearCSPNames));
    }

    private static Arguments row(String name, Consumer<String> callback,
            Supplier<List<String>> list, Runnable clear) {
        return Arguments.of(name, callback, list, clear);
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("collectors")
    void labelsAreCollectedInOrderUntilCleared(String name, Consumer<String> callback,
            Supplier<List<String>> list, Runnable clear) {
        clear.run();
        callback.accept("first");
        callback.accept("zweite \u00fc");
        List<String> seen = list.get();
        assertEquals(List.of("first", "zweite \u00fc"), seen);
        callback.accept("third");
        assertEquals(2, seen.size(), "a list handed out is a snapshot");
        assertThrows(UnsupportedOperationException.class, () -> seen.add("x"));
        clear.run();
        assertTrue(list.get().isEmpty());
    }

    @Test
    void errorCodeTableNamesTheCodesItWasGiven() {
        assertTrue(CMSKeyDatabaseException.addCMSErrCode(65, "ZAVKM_ERR_PARAMETER"));
        assertEquals("ZAVKM_ERR_PARAMETER", CMSKeyDatabaseException.nameOf(65));
        assertNull(CMSKeyDatabaseException.nameOf(999));

        assertEquals("ZAVKM_ERR_PARAMETER (65)", new CMSKeyDatabaseException(65).getMessage());
        assertEquals("return code 999", new CMSKeyDatabaseException(999).getMessage());
        CMSKeyDatabaseException withText = new CMSKeyDatabaseException(65, "opening k.kdb");
        assertEquals("opening k.kdb: ZAVKM_ERR_PARAMETER (65)", withText.getMessage());
        assertEquals(65, withText.getCode());
    }
}
