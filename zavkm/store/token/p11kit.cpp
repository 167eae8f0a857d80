// p11kit.cpp - p11-kit through dlopen, once per process, kept until exit.
#include "store/token/p11kit.h"

#include <dlfcn.h>

#include "base/trace.h"

namespace zavkm {
namespace {

template <class Function>
bool resolve(void* library, const char* name, Function& out) {
    out = reinterpret_cast<Function>(::dlsym(library, name));
    return out != nullptr;
}

const P11Kit* load() {
    void* library = ::dlopen("libp11-kit.so.0", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        trace("p11-kit not loaded: %s", ::dlerror());
        return nullptr;
    }
    static P11Kit functions{};
    if (resolve(library, "p11_kit_module_load", functions.moduleLoad) &&
        resolve(library, "p11_kit_module_release", functions.moduleRelease) &&
        resolve(library, "p11_kit_modules_load", functions.modulesLoad) &&
        resolve(library, "p11_kit_modules_release", functions.modulesRelease) &&
        resolve(library, "p11_kit_module_get_name", functions.moduleName) &&
        resolve(library, "p11_kit_module_get_filename", functions.moduleFile) &&
        resolve(library, "p11_kit_message", functions.message))
        return &functions;
    trace("p11-kit lacks a function: %s", ::dlerror());
    return nullptr;
}

}  // namespace

const P11Kit* p11kit() noexcept {
    static const P11Kit* const functions = load();
    return functions;
}

}  // namespace zavkm
