// Class names and signatures of the Java value classes the bridge builds.
#pragma once

#define ZAVKJNI_PKG "com/norvex/zav/tolvik/basic/"

namespace zavkjni::sig {

inline constexpr const char* berObjectClass = ZAVKJNI_PKG "BERObject";
inline constexpr const char* dnItemClass = ZAVKJNI_PKG "DNItem";
inline constexpr const char* certItemClass = ZAVKJNI_PKG "CertificateItem";
inline constexpr const char* certReqItemClass = ZAVKJNI_PKG "CertificateRequestItem";
inline constexpr const char* keyItemClass = ZAVKJNI_PKG "KeyItem";
inline constexpr const char* epkiItemClass = ZAVKJNI_PKG "EncryptedPrivateKeyInfoItem";
inline constexpr const char* pkiItemClass = ZAVKJNI_PKG "PrivateKeyInfoItem";

inline constexpr const char* bytesCtor = "([B)V";
inline constexpr const char* stringField = "Ljava/lang/String;";
inline constexpr const char* labelCallback = "(Ljava/lang/String;)V";
inline constexpr const char* dnItemCtor =
    "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
    "Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;[B)V";
inline constexpr const char* certItemCtor =
    "(SSLjava/lang/String;L" ZAVKJNI_PKG "DNItem;L" ZAVKJNI_PKG "DNItem;JJL" ZAVKJNI_PKG
    "BERObject;L" ZAVKJNI_PKG "BERObject;[BL" ZAVKJNI_PKG
    "BERObject;Ljava/lang/String;Ljava/lang/String;[B[B)V";
inline constexpr const char* certReqItemCtor =
    "(SL" ZAVKJNI_PKG "DNItem;L" ZAVKJNI_PKG "BERObject;L" ZAVKJNI_PKG "BERObject;[BL" ZAVKJNI_PKG
    "BERObject;Ljava/lang/String;Ljava/lang/String;[B[B)V";
inline constexpr const char* keyItemCtor =
    "(Ljava/lang/String;SSL" ZAVKJNI_PKG "EncryptedPrivateKeyInfoItem;[L" ZAVKJNI_PKG
    "CertificateItem;L" ZAVKJNI_PKG "BERObject;ZZ)V";
inline constexpr const char* reqKeyItemCtor =
    "(Ljava/lang/String;SSL" ZAVKJNI_PKG "EncryptedPrivateKeyInfoItem;L" ZAVKJNI_PKG
    "CertificateRequestItem;L" ZAVKJNI_PKG "BERObject;)V";

}  // namespace zavkjni::sig
