/*
 * token_floor - the PKCS#11 calls our library makes when the binding lists a token's labels and
 * reads one key item (two calls, each opening the token), made straight on the module, timed.
 * Prints the median of the runs in microseconds.
 *
 *   token_floor <module> <token label> <pin> <key label> [runs]   (key label: unused)
 */
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static CK_FUNCTION_LIST* f;

static double now_us(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1e6 + t.tv_nsec / 1e3;
}

static int find(CK_SESSION_HANDLE s, CK_ATTRIBUTE* tmpl, CK_ULONG n, CK_OBJECT_HANDLE* out,
                CK_ULONG max) {
    CK_ULONG count = 0, got = 0;
    if (f->C_FindObjectsInit(s, tmpl, n) != CKR_OK) return -1;
    while (count < max && f->C_FindObjects(s, out + count, max - count, &got) == CKR_OK && got > 0)
        count += got;
    f->C_FindObjectsFinal(s);
    return (int)count;
}

static CK_SLOT_ID slot_of(const char* label) {
    CK_SLOT_ID slots[64];
    CK_ULONG n = 64;
    if (f->C_GetSlotList(CK_TRUE, slots, &n) != CKR_OK) return (CK_SLOT_ID)-1;
    for (CK_ULONG i = 0; i < n; ++i) {
        CK_TOKEN_INFO info;
        if (f->C_GetTokenInfo(slots[i], &info) != CKR_OK) continue;
        size_t len = sizeof info.label;
        while (len > 0 && info.label[len - 1] == ' ') --len;
        if (len == strlen(label) && memcmp(info.label, label, len) == 0) return slots[i];
    }
    return (CK_SLOT_ID)-1;
}

/* read_all - every object of a class with the given attributes, each in two calls. */
static int read_all(CK_SESSION_HANDLE s, CK_OBJECT_CLASS cls, const CK_ATTRIBUTE_TYPE* types,
                    int ntypes) {
    CK_ATTRIBUTE byClass = {CKA_CLASS, &cls, sizeof cls};
    CK_OBJECT_HANDLE objs[1024];
    int n = find(s, &byClass, 1, objs, 1024);
    static unsigned char buf[4][8192];
    for (int i = 0; i < n; ++i) {
        CK_ATTRIBUTE a[4];
        for (int k = 0; k < ntypes; ++k) a[k] = (CK_ATTRIBUTE){types[k], NULL, 0};
        f->C_GetAttributeValue(s, objs[i], a, (CK_ULONG)ntypes);
        for (int k = 0; k < ntypes; ++k) a[k].pValue = buf[k];
        f->C_GetAttributeValue(s, objs[i], a, (CK_ULONG)ntypes);
    }
    return n;
}

/* session - open, login, read what a lookup needs (certificates' label, id and value, private
 * keys' id), close: what each of the binding's calls does. */
static int session(const char* token, const char* pin, int requests) {
    CK_SESSION_HANDLE s;
    CK_SLOT_ID slot = slot_of(token);
    if (f->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, NULL, NULL, &s) != CKR_OK)
        return 1;
    if (f->C_Login(s, CKU_USER, (CK_UTF8CHAR*)pin, strlen(pin)) != CKR_OK) return 1;
    const CK_ATTRIBUTE_TYPE certAttrs[] = {CKA_LABEL, CKA_ID, CKA_VALUE}, keyAttrs[] = {CKA_ID};
    const CK_ATTRIBUTE_TYPE dataAttrs[] = {CKA_LABEL};
    if (read_all(s, CKO_CERTIFICATE, certAttrs, 3) <= 0) return 1;
    read_all(s, CKO_PRIVATE_KEY, keyAttrs, 1);
    if (requests) read_all(s, CKO_DATA, dataAttrs, 1);
    f->C_CloseSession(s);
    return 0;
}

/* one - list the labels (with the request labels), then read one key: two sessions. */
static int one(const char* token, const char* pin) {
    return session(token, pin, 1) || session(token, pin, 0);
}

static int cmp(const void* a, const void* b) {
    double x = *(const double*)a, y = *(const double*)b;
    return x < y ? -1 : x > y;
}

int main(int argc, char** argv) {
    if (argc < 5) {
        fprintf(stderr, "usage: %s module token pin key [runs]\n", argv[0]);
        return 2;
    }
    int runs = argc > 5 ? atoi(argv[5]) : 50;
    void* lib = dlopen(argv[1], RTLD_NOW);
    CK_C_GetFunctionList get = lib ? (CK_C_GetFunctionList)dlsym(lib, "C_GetFunctionList") : NULL;
    if (get == NULL || get(&f) != CKR_OK || f->C_Initialize(NULL) != CKR_OK) return 1;
    double* t = calloc((size_t)runs, sizeof *t);
    for (int i = 0; i < runs; ++i) {
        double start = now_us();
        if (one(argv[2], argv[3]) != 0) return 1;
        t[i] = now_us() - start;
    }
    qsort(t, (size_t)runs, sizeof *t, cmp);
    printf("%.0f\n", t[runs / 2]);
    f->C_Finalize(NULL);
    return 0;
}
