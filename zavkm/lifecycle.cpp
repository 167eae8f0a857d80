// lifecycle.cpp - what ZAVKM_CleanAll releases.
#include "lifecycle.h"

#include "handles.h"
#include "kdf.h"
#include "state.h"

namespace zavkm {

void releaseProcessState() noexcept {
    removeAllHandles();
    wipeKdfCache();
    adoptCryptoInfo(nullptr);
    setFipsMode(false);
}

}  // namespace zavkm
