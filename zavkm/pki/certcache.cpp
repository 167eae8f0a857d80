// certcache.cpp - decoded certificates, most recently used first.
#include "pki/certcache.h"

#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

#include "pki/x509util.h"

namespace zavkm {
namespace {

constexpr size_t kCapacity = 256;

struct Cache {
    std::mutex mutex;
    std::list<std::pair<std::string, X509Ptr>> entries;  // most recently used first
    std::unordered_map<std::string, decltype(entries)::iterator> index;
};

Cache& cache() {
    static Cache* instance = new Cache();  // never destroyed: usable until exit
    return *instance;
}

X509Ptr newReference(X509* cert) {
    if (cert == nullptr || X509_up_ref(cert) != 1) return nullptr;
    return X509Ptr(cert);
}

}  // namespace

X509Ptr cachedCertificate(const Bytes& der, bool keep) {
    std::string key(der.begin(), der.end());
    Cache& c = cache();
    {
        std::lock_guard lock(c.mutex);
        auto it = c.index.find(key);
        if (it != c.index.end()) {
            c.entries.splice(c.entries.begin(), c.entries, it->second);
            return newReference(it->second->second.get());
        }
    }
    X509Ptr cert = parseCertificate(der.data(), der.size());
    if (!cert || !keep) return cert;
    X509Ptr result = newReference(cert.get());
    std::lock_guard lock(c.mutex);
    if (c.index.count(key) == 0) {
        c.entries.emplace_front(key, std::move(cert));
        c.index.emplace(std::move(key), c.entries.begin());
        while (c.entries.size() > kCapacity) {
            c.index.erase(c.entries.back().first);
            c.entries.pop_back();
        }
    }
    return result;
}

void clearCertificateCache() noexcept {
    Cache& c = cache();
    std::lock_guard lock(c.mutex);
    c.index.clear();
    c.entries.clear();
}

}  // namespace zavkm
