// p11stop.cpp - a PKCS#11 module in front of another one (ZAV_P11STOP_MODULE) that ends the
// process with _exit(9) instead of making the n-th call that creates or destroys an object
// (ZAV_P11STOP_AT=n), as a crash at that moment would. Without ZAV_P11STOP_AT it only passes
// the calls on. The crash test (token_crash.cpp) stops a writer at every such step in turn.
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace {

CK_FUNCTION_LIST* real = nullptr;
CK_FUNCTION_LIST shown;
std::atomic<long> changes{0};

void beforeChange() {
    const char* at = std::getenv("ZAV_P11STOP_AT");
    if (at != nullptr && ++changes == std::atol(at)) ::_exit(9);
}

CK_RV createObject(CK_SESSION_HANDLE s, CK_ATTRIBUTE_PTR t, CK_ULONG n, CK_OBJECT_HANDLE_PTR o) {
    beforeChange();
    return real->C_CreateObject(s, t, n, o);
}

CK_RV destroyObject(CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o) {
    beforeChange();
    return real->C_DestroyObject(s, o);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(
    CK_FUNCTION_LIST_PTR_PTR list) {
    if (real == nullptr) {
        const char* path = std::getenv("ZAV_P11STOP_MODULE");
        void* module = path != nullptr ? ::dlopen(path, RTLD_NOW | RTLD_LOCAL) : nullptr;
        auto get = module != nullptr
                       ? reinterpret_cast<CK_C_GetFunctionList>(::dlsym(module, "C_GetFunctionList"))
                       : nullptr;
        if (get == nullptr || get(&real) != CKR_OK) return CKR_GENERAL_ERROR;
        shown = *real;
        shown.C_GetFunctionList = C_GetFunctionList;
        shown.C_CreateObject = createObject;
        shown.C_DestroyObject = destroyObject;
    }
    *list = &shown;
    return CKR_OK;
}
