// lifecycle.cpp - what ZAVKM_CleanAll releases.
#include "api/lifecycle.h"

#include "pki/certcache.h"
#include "store/file/connpool.h"
#include "api/handles.h"
#include "store/file/kdf.h"
#include "store/token/p11.h"
#include "store/file/pkcs12.h"
#include "base/state.h"

namespace zavkm {

void releaseProcessState() noexcept {
    removeAllHandles();
    finalizeModules();
    closeIdleConnections();
    wipeKdfCache();
    clearCertificateCache();
    unloadLegacyAlgorithms();
    adoptCryptoInfo(nullptr);
    setFipsMode(false);
}

}  // namespace zavkm
