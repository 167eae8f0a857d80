// lifecycle.h - what ZAVKM_CleanAll releases: every open store and every cached derived key.
#pragma once

namespace zavkm {

// releaseProcessState - closes every handle still open and wipes the derived-key cache.
void releaseProcessState() noexcept;

}  // namespace zavkm
