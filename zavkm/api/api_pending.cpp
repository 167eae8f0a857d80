// api_pending.cpp - operations not implemented yet: they check their arguments and report
// ZAVKM_ERR_NOT_INITIALIZED or ZAVKM_ERR_UNSUPPORTED_OPTION.
#include <initializer_list>

#include "state.h"
#include "trace.h"

using namespace zavkm;

namespace {
Rc pending(const char* name, std::initializer_list<const void*> required) noexcept {
    for (const void* p : required)
        if (p == nullptr) return traceResult(name, ZAVKM_ERR_NULL_PARAMETER);
    if (!isInitialized()) return traceResult(name, ZAVKM_ERR_NOT_INITIALIZED);
    return traceResult(name, ZAVKM_ERR_UNSUPPORTED_OPTION);
}
}  // namespace

extern "C" {

ZAVKM_ReturnCode ZAVKM_SetSecondaryKeyDb(ZAVKM_KeyDbHandle, ZAVKM_KeyDbHandle) noexcept {
    return pending(__func__, {});
}
ZAVKM_ReturnCode ZAVKM_UnsetSecondaryKeyDb(ZAVKM_KeyDbHandle) noexcept {
    return pending(__func__, {});
}

}  // extern "C"
