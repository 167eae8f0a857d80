// p11kit.h - p11-kit, loaded on first use: a process that only uses key database files never
// maps it (nor the libraries it needs), which saves every short-lived process a millisecond.
#pragma once

#include <p11-kit/p11-kit.h>

namespace zavkm {

// P11Kit - the p11-kit functions the token backend and the platform store call.
struct P11Kit {
    decltype(&p11_kit_module_load) moduleLoad;
    decltype(&p11_kit_module_release) moduleRelease;
    decltype(&p11_kit_modules_load) modulesLoad;
    decltype(&p11_kit_modules_release) modulesRelease;
    decltype(&p11_kit_module_get_name) moduleName;
    decltype(&p11_kit_module_get_filename) moduleFile;
    decltype(&p11_kit_message) message;
};

// p11kit - the functions of libp11-kit.so.0, loaded once; null when it cannot be loaded (traced).
const P11Kit* p11kit() noexcept;

}  // namespace zavkm
