package com.norvex.zav.tolvik.basic;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.lang.reflect.Constructor;
import java.lang.reflect.Executable;
import java.lang.reflect.Field;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.ArrayList;
import java.util.List;
import java.util.Set;
import java.util.TreeSet;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Test;

/**
 * BindingContractTest - pins what the native bridge relies on: every native (name, JNI
 * descriptor, static or not), every callback, every constructor and the DNItem fields.
 *
 * <p>JNI resolves natives by name alone, so a changed parameter type would not fail to link; it
 * would hand the bridge wrong arguments. The expectations are written out here by hand, in JNI
 * descriptor form with "$Name" standing for a value class of this package or String. Classes are only
 * inspected, never initialised, so the bridge need not be present.
 */
class BindingContractTest {
    private static final String PACKAGE = "com.norvex.zav.tolvik.basic.";

    private static final String[] CLASSES_WITH_NATIVES = {"KMSystem", "CMSKeyDatabaseException",
        "CMSKeyDatabase", "WEBDBKeyDatabase", "CryptographicToken", "MSCertificateStore"};

    /** NATIVES - one row a native: [static] class name descriptor. */
    private static final String NATIVES = """
        static KMSystem c_IsUSSharedLibraryLoaded ()Z
        static KMSystem c_enableFIPSMode (ZZ)I
        static KMSystem c_ZAVKMInitDebug (ZZ)I
        static KMSystem c_ZAVKMInit (Z)I
        static KMSystem c_ZAVKMCleanAll ()I
        static KMSystem c_ShowLibInfo ()V
        static CMSKeyDatabaseException c_BuildErrCodeNameTable ()Z
        CMSKeyDatabase c_CreateNewKeyDb ($String$StringJ)I
        CMSKeyDatabase c_OpenKeyDb ($String$String)I
        CMSKeyDatabase c_ChangeKeyDbPwd ($String$String$StringJ)Z
        CMSKeyDatabase c_StashKeyDbPwd ($String$String)Z
        CMSKeyDatabase c_BuildKeyLabelList ($String$String)I
        CMSKeyDatabase c_GetKeyItemByLabel ($String$String$StringZ)$KeyItem
        CMSKeyDatabase c_GetKeyItemListByLabel ($String$String$String)[$KeyItem
        CMSKeyDatabase c_IsPrivateKeyPresent ($String$String$String)Z
        CMSKeyDatabase c_GetDefaultKeyItem ($String$String)$KeyItem
        CMSKeyDatabase c_GetKeyItemsByPublicKey ($String$StringI[B)[$KeyItem
        CMSKeyDatabase c_CreateNewSelfSignedCertificate ($String$StringI$StringZI$DNItemI$StringZ)I
        CMSKeyDatabase c_CreateNewSelfSignedCertificateSigExt ($String$StringI$StringZI$DNItemIII[B$StringZ)I
        CMSKeyDatabase c_CreateNewCertRequest ($String$String$StringI$DNItem$StringZ)I
        CMSKeyDatabase c_CreateNewCertRequestSigExt ($String$String$StringI$DNItemII[B$StringZ)I
        CMSKeyDatabase c_IssueCertificate ($String$String$StringI$StringI$String$StringZ)I
        CMSKeyDatabase c_IssueCertificateSig ($String$String$StringI$StringII$String$StringZ)I
        CMSKeyDatabase c_DeleteKeyByLabel ($String$String$StringZ)I
        CMSKeyDatabase c_InsertKey ($String$String$StringI[BI[BZZ)I
        CMSKeyDatabase c_InsertReqKey ($String$String$StringI[BI[B)I
        CMSKeyDatabase c_SetDefaultKey ($String$String$String)I
        CMSKeyDatabase c_SetKeyTrust ($String$String$StringZ)I
        CMSKeyDatabase c_EncryptPrivateKey (I[B$String)$EncryptedPrivateKeyInfoItem
        CMSKeyDatabase c_DecryptPrivateKey (I[B$String)$PrivateKeyInfoItem
        CMSKeyDatabase c_ExportToPFXFile ($String$String$String$String[$String)I
        CMSKeyDatabase c_ImportFromPFXFile ($String$String$String$String)I
        CMSKeyDatabase c_ReceiveCert ($String$String$StringZZ)I
        CMSKeyDatabase c_AddCaCert ($String$String$String$StringZ)I
        CMSKeyDatabase c_ExtractCert ($String$String$String$StringZ)I
        CMSKeyDatabase c_ExtractCertReq ($String$String$String$String)I
        CMSKeyDatabase c_ExtractCertReqSig ($String$String$StringI$String)I
        CMSKeyDatabase c_ExtractCertFromPKCS7Data ($StringZ)[$CertificateItem
        CMSKeyDatabase c_CheckCertAsRenewal ($String$StringI[B)Z
        CMSKeyDatabase c_RenewCert ($String$StringI[B)I
        CMSKeyDatabase c_ValidateCertificateChain ($String$String[BI)Z
        CMSKeyDatabase c_Kyr2Kdb ($String$String$String$String)I
        CMSKeyDatabase c_Kdb2Kyr ($String$String$String$String)I
        CMSKeyDatabase c_IsPasswordRequired ($String)Z
        WEBDBKeyDatabase c_IsPasswordRequired ($String)Z
        static CryptographicToken c_GetCryptoTokenLabelList ($String)I
        CryptographicToken c_IsPasswordRequired ($String$String)Z
        CryptographicToken c_ChangeKeyDbPwd ($String$String$String$String)I
        CryptographicToken c_BuildKeyLabelList ($String$String$String)I
        CryptographicToken c_GetKeyItemByLabel ($String$String$String$StringZ)$KeyItem
        CryptographicToken c_DeleteKeyItemByLabel ($String$String$String$StringZ)I
        CryptographicToken c_ReceivePersonalCertificate ($String$String$String$String$String$StringZ)I
        CryptographicToken c_ImportCertificate ($String$String$String$String$String$StringI[BI[B)I
        CryptographicToken c_AddSignerCertificate ($String$String$String$String$StringZ)I
        CryptographicToken c_ExtractCertificate ($String$String$String$String$StringZ)I
        CryptographicToken c_ImportPersonalCertificateRequest ($String$String$String$StringI[BI[B)I
        CryptographicToken c_RecreatePersonalCertificateRequest ($String$String$String$StringI$String)I
        CryptographicToken c_CreateSelfSignedCertificate ($String$String$StringI$StringI$DNItemII)I
        CryptographicToken c_CreatePersonalCertificateRequest ($String$String$String$StringI$DNItemI$String)I
        CryptographicToken c_ExtractPersonalCertificateRequest ($String$String$String$String$String)I
        CryptographicToken c_IsPersonalCertificateRenewal ($String$String$StringI[B)Z
        CryptographicToken c_RenewPersonalCertificate ($String$String$StringI[B)I
        static MSCertificateStore c_GetCSPNameList ()I
        MSCertificateStore c_BuildKeyLabelList ($String$String)I
        MSCertificateStore c_GetKeyItemByLabel ($String$String$String)$KeyItem
        MSCertificateStore c_GetKeyItemListByLabel ($String$String$String)[$KeyItem
        MSCertificateStore c_GetKeyItemsByPublicKey ($String$StringI[B)[$KeyItem
        MSCertificateStore c_DeleteKeyItemByLabel ($String$String$String)I
        MSCertificateStore c_ImportCertificate ($String$String$StringI[BI[B)I
        MSCertificateStore c_AddSignerCertificate ($String$String$String$StringZ)I
        MSCertificateStore c_CreateNewSelfSignedCertificate ($String$StringI$StringI$DNItemIII[B)I
        """;

    /** CALLBACKS - the methods the bridge calls back, looked up by name and descriptor. */
    private static final String CALLBACKS = """
        static CMSKeyDatabaseException addCMSErrCode (I$String)Z
        CMSKeyDatabase addKeyLabel ($String)V
        CMSKeyDatabase addReqKeyLabel ($String)V
        CryptographicToken addPersonalKeyLabel ($String)V
        CryptographicToken addSignerKeyLabel ($String)V
        CryptographicToken addRequestKeyLabel ($String)V
        static CryptographicToken addTokenLabel ($String)V
        MSCertificateStore addKeyLabel ($String)V
        MSCertificateStore addPersonalKeyLabel ($String)V
        MSCertificateStore addSignerKeyLabel ($String)V
        static MSCertificateStore addCSPName ($String)V
        DNItem addOptionalField ($String)V
        KeyItem setHasPrivateKey (Z)V
        """;

    /** CONSTRUCTORS - every public constructor of the value classes the bridge builds. */
    private static final String CONSTRUCTORS = """
        BERObject <init> ([B)V
        DNItem <init> ($String$String$String$String$String$String$String$String[B)V
        CertificateItem <init> (SS$String$DNItem$DNItemJJ$BERObject$BERObject[B$BERObject$String$String[B[B)V
        CertificateItem <init> ([B)V
        CertificateRequestItem <init> (S$DNItem$BERObject$BERObject[B$BERObject$String$String[B[B)V
        KeyItem <init> ($StringSS$EncryptedPrivateKeyInfoItem[$CertificateItem$BERObjectZZ)V
        KeyItem <init> ($StringSS$EncryptedPrivateKeyInfoItem$CertificateRequestItem$BERObject)V
        EncryptedPrivateKeyInfoItem <init> ([B)V
        PrivateKeyInfoItem <init> ([B)V
        """;

    @Test
    void nativesAreExactlyTheContractedOnes() throws Exception {
        Set<String> actual = new TreeSet<>();
        int count = 0;
        for (String simpleName : CLASSES_WITH_NATIVES) {
            for (Method method : inspect(simpleName).getDeclaredMethods()) {
                if (Modifier.isNative(method.getModifiers())) {
                    actual.add(row(method));
                    count++;
                }
            }
        }
        assertEquals(expand(NATIVES), actual);
        assertEquals(71, count);
    }

    @Test
    void callbacksHaveTheContractedShape() throws Exception {
        Set<String> actual = new TreeSet<>();
        for (String expected : expand(CALLBACKS)) {
            String[] parts = expected.replace("static ", "").split(" ");
            for (Method method : inspect(parts[0]).getDeclaredMethods()) {
                if (method.getName().equals(parts[1]) && !method.isSynthetic()) {
                    actual.add(row(method));
                }
            }
        }
        assertEquals(expand(CALLBACKS), actual);
    }

    @Test
    void valueClassesHaveExactlyTheContractedConstructors() throws Exception {
        Set<String> actual = new TreeSet<>();
        for (String simpleName : List.of("BERObject", "DNItem", "CertificateItem",
                "CertificateRequestItem", "KeyItem", "EncryptedPrivateKeyInfoItem",
                "PrivateKeyInfoItem")) {
            for (Constructor<?> constructor : inspect(simpleName).getDeclaredConstructors()) {
                actual.add(row(constructor));
            }
        }
        assertEquals(expand(CONSTRUCTORS), actual);
    }

    @Test
    void dnItemHasTheSevenStringFieldsTheBridgeReads() throws Exception {
        Class<?> dnItem = inspect("DNItem");
        for (String name : List.of("cn", "ou", "o", "l", "s", "pc", "c")) {
            Field field = dnItem.getDeclaredField(name);
            assertEquals(String.class, field.getType(), name);
            assertEquals(false, Modifier.isStatic(field.getModifiers()), name);
        }
    }

    /** inspect - the class of this package, loaded without running its static initialiser. */
    private static Class<?> inspect(String simpleName) throws ClassNotFoundException {
        return Class.forName(PACKAGE + simpleName, false,
                BindingContractTest.class.getClassLoader());
    }

    /** row - "[static ]Class name descriptor" of a public method or constructor, as in tables. */
    private static String row(Executable executable) {
        StringBuilder text = new StringBuilder();
        int modifiers = executable.getModifiers();
        text.append(Modifier.isPublic(modifiers) ? "" : "non-public ");
        text.append(Modifier.isStatic(modifiers) ? "static " : "");
        text.append(executable.getDeclaringClass().getSimpleName()).append(' ');
        text.append(executable instanceof Constructor ? "<init>" : executable.getName());
        text.append(" (");
        for (Class<?> type : executable.getParameterTypes()) {
            text.append(descriptor(type));
        }
        Class<?> result = executable instanceof Method ? ((Method) executable).getReturnType()
                : void.class;
        return text.append(')').append(descriptor(result)).toString();
    }

    /** descriptor - the JNI descriptor of a type. */
    private static String descriptor(Class<?> type) {
        if (type.isArray()) {
            return "[" + descriptor(type.getComponentType());
        }
        if (type.isPrimitive()) {
            return switch (type.getName()) {
                case "boolean" -> "Z";
                case "byte" -> "B";
                case "short" -> "S";
                case "int" -> "I";
                case "long" -> "J";
                case "void" -> "V";
                default -> throw new IllegalArgumentException("unexpected type " + type);
            };
        }
        return "L" + type.getName().replace('.', '/') + ";";
    }

    /** expand - the rows of a table with "$Name" written out as a JNI class descriptor. */
    private static Set<String> expand(String table) {
        Pattern shorthand = Pattern.compile("\\$(String|DNItem|BERObject|KeyItem|CertificateItem"
                + "|CertificateRequestItem|EncryptedPrivateKeyInfoItem|PrivateKeyInfoItem)");
        Set<String> rows = new TreeSet<>();
        for (String line : table.strip().split("\n")) {
            String[] parts = line.strip().split(" ");
            int last = parts.length - 1;
            Matcher matcher = shorthand.matcher(parts[last]);
            StringBuilder expanded = new StringBuilder();
            while (matcher.find()) {
                String name = matcher.group(1);
                String path = name.equals("String") ? "java/lang/String"
                        : (PACKAGE + name).replace('.', '/');
                matcher.appendReplacement(expanded, Matcher.quoteReplacement("L" + path + ";"));
            }
            matcher.appendTail(expanded);
            List<String> words = new ArrayList<>(List.of(parts).subList(0, last));
            words.add(expanded.toString());
            rows.add(String.join(" ", words));
        }
        return rows;
    }
}
