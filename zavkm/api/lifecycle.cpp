// lifecycle.cpp - what ZAVKM_CleanAll releases.
#include "lifecycle.h"

#include "certcache.h"
#include "connpool.h"
#include "handles.h"
#include "kdf.h"
#include "p11.h"
#include "pkcs12.h"
#include "state.h"

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
