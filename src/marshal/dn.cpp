// Distinguished names: Java DNItem to the library's record and back.
#include <cstdlib>
#include <cstring>

#include "marshal/classes.h"
#include "marshal/jni_access.h"
#include "marshal/records.h"
#include "trace/trace.h"

namespace zavkjni {
namespace {

// The seven named parts in the order they are read, stored and traced.
struct NamedPart {
    const char* field;
    char* ZAVKM_DNItem::*member;
    const char* traceFormat;
};
constexpr NamedPart namedParts[] = {
    {"cn", &ZAVKM_DNItem::cn, "JNI_DEBUG......ccn = %s\n"},
    {"ou", &ZAVKM_DNItem::ou, "JNI_DEBUG......cou = %s\n"},
    {"o", &ZAVKM_DNItem::o, "JNI_DEBUG......co = %s\n"},
    {"l", &ZAVKM_DNItem::l, "JNI_DEBUG......cl = %s\n"},
    {"s", &ZAVKM_DNItem::s, "JNI_DEBUG......cs = %s\n"},
    {"pc", &ZAVKM_DNItem::pc, "JNI_DEBUG......cpc = %s\n"},
    {"c", &ZAVKM_DNItem::c, "JNI_DEBUG......cc = %s\n"},
};
constexpr size_t partCount = sizeof namedParts / sizeof namedParts[0];

}  // namespace

void JavaDNItem2CDN(JNIEnv* env, jobject dnItem, ZAVKM_DNItem** out) noexcept {
    if (out == nullptr) return;
    *out = nullptr;
    if (dnItem == nullptr) return;
    jclass cls = env->GetObjectClass(dnItem);
    if (cls == nullptr) return;
    jfieldID fields[partCount];
    for (size_t i = 0; i < partCount; ++i) {
        fields[i] = env->GetFieldID(cls, namedParts[i].field, sig::stringField);
    }
    jstring values[partCount];
    for (size_t i = 0; i < partCount; ++i) {
        values[i] = static_cast<jstring>(env->GetObjectField(dnItem, fields[i]));
    }
    // The record is allocated here (zeroed, so that it is never released uninitialised) and
    // prepared by the library; ZAVKM_FreeDNItem releases it and its texts. Should the library
    // fail, or hand back a record of its own, ours is given back rather than lost.
    auto* made = static_cast<ZAVKM_DNItem*>(malloc(sizeof(ZAVKM_DNItem)));
    if (made == nullptr) return;
    memset(made, 0, sizeof *made);
    *out = made;
    if (ZAVKM_InitDNItem(out) != 0) {
        if (*out != made && *out != nullptr) ZAVKM_FreeDNItem(*out);
        free(made);
        *out = nullptr;
        return;
    }
    if (*out != made) free(made);
    ZAVKM_DNItem* record = *out;
    if (record == nullptr) return;
    for (size_t i = 0; i < partCount; ++i) {
        const char* text =
            values[i] != nullptr ? env->GetStringUTFChars(values[i], nullptr) : nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        traceMessage(namedParts[i].traceFormat, orNull(text));
#pragma GCC diagnostic pop
        if (text != nullptr) {
            record->*namedParts[i].member = ZAVKM_Strdup(text);
            env->ReleaseStringUTFChars(values[i], text);
        }
    }
}

jobject getJavaDNItem(JNIEnv* env, const ZAVKM_DNItem* dn) noexcept {
    if (dn == nullptr) return nullptr;
    jclass cls = env->FindClass(sig::dnItemClass);
    if (cls == nullptr) return nullptr;
    jmethodID ctor = env->GetMethodID(cls, "<init>", sig::dnItemCtor);
    if (ctor == nullptr) return nullptr;
    jbyteArray der = newJavaByteArray(env, dn->der, dn->derLength);
    if (der == nullptr) return nullptr;
    jstring parts[partCount];
    for (size_t i = 0; i < partCount; ++i) {
        parts[i] = newJavaStringUTF(env, dn->*namedParts[i].member);
    }
    const char* const furtherTexts[] = {dn->optionalField1, dn->optionalField2,
                                        dn->optionalField3, dn->optionalField4};
    jstring further[4];
    bool anyFurther = false;
    for (size_t i = 0; i < 4; ++i) {
        further[i] = newJavaStringUTF(env, furtherTexts[i]);
        anyFurther = anyFurther || further[i] != nullptr;
    }
    // The eighth string is always null.
    jobject object = env->NewObject(cls, ctor, parts[0], parts[1], parts[2], parts[3], parts[4],
                                    parts[5], parts[6], nullptr, der);
    if (anyFurther) {
        jmethodID add = env->GetMethodID(cls, "addOptionalField", sig::labelCallback);
        if (add == nullptr) return nullptr;
        // Nonvirtual: DNItem's own implementation runs, even on a subclass.
        for (jstring part : further) {
            if (part != nullptr) env->CallNonvirtualVoidMethod(object, cls, add, part);
        }
    }
    traceMessage("JNI_DEBUG......jDNItemClass = 0x%x, retObj = 0x%x\n", ref(cls), ref(object));
    return object;
}

}  // namespace zavkjni
