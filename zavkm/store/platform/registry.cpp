// registry.cpp - the providers registered with p11-kit, or in the directory ZAVKM_P11_REGISTRY
// names.
#include "store/platform/registry.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "store/token/p11kit.h"

namespace zavkm {
namespace {

constexpr char kModuleDir[] = P11_MODULE_DIR;

std::string trimmed(const std::string& s) {
    size_t a = s.find_first_not_of(" \t\r");
    size_t b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
}

// moduleLine - the module path of a ".module" file; empty when it has none.
std::string moduleLine(const std::filesystem::path& file) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        line = trimmed(line);
        if (line.rfind("module:", 0) != 0) continue;
        std::string path = trimmed(line.substr(7));
        if (!path.empty() && path.front() != '/') path = std::string(kModuleDir) + "/" + path;
        return path;
    }
    return {};
}

Rc providersInDirectory(const char* dir, std::vector<Provider>& out) {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
        if (entry.path().extension() != ".module") continue;
        std::string path = moduleLine(entry.path());
        if (!path.empty()) out.push_back({entry.path().stem().string(), path});
    }
    return ZAVKM_OK;
}

void freeModules(CK_FUNCTION_LIST** modules) noexcept { p11kit()->modulesRelease(modules); }

Rc providersOfP11Kit(std::vector<Provider>& out) {
    const P11Kit* kit = p11kit();
    if (kit == nullptr) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED;
    Owned<CK_FUNCTION_LIST*, freeModules> modules(kit->modulesLoad(nullptr, 0));
    if (!modules) return ZAVKM_OK;  // nothing registered
    for (CK_FUNCTION_LIST** m = modules.get(); *m != nullptr; ++m) {
        Owned<char, free> name(kit->moduleName(*m));
        Owned<char, free> file(kit->moduleFile(*m));
        if (name && file) out.push_back({name.get(), file.get()});
    }
    return ZAVKM_OK;
}

}  // namespace

Rc registeredProviders(std::vector<Provider>& out) {
    const char* dir = getenv("ZAVKM_P11_REGISTRY");
    Rc rc = isEmpty(dir) ? providersOfP11Kit(out) : providersInDirectory(dir, out);
    std::sort(out.begin(), out.end(),
              [](const Provider& a, const Provider& b) { return a.name < b.name; });
    return rc;
}

Rc providerToken(const char* providerName, TokenSpec& out) {
    std::string name = !isEmpty(providerName) ? providerName : "";
    if (name.empty()) {
        const char* fallback = getenv("ZAVKM_CERT_STORE_PROVIDER");
        name = !isEmpty(fallback) ? fallback : "p11-kit-trust";
    }
    std::string token;
    if (size_t slash = name.find('/'); slash != std::string::npos) {
        token = name.substr(slash + 1);
        name.resize(slash);
    }
    std::vector<Provider> providers;
    if (Rc rc = registeredProviders(providers); rc != ZAVKM_OK) return rc;
    for (const Provider& p : providers)
        if (p.name == name) {
            out = {p.modulePath, token};
            return ZAVKM_OK;
        }
    return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST;
}

}  // namespace zavkm
