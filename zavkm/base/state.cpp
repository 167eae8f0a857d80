// state.cpp - the library's process-wide switches.
#include "base/state.h"

#include <atomic>
#include <cstdlib>

namespace zavkm {
namespace {
std::atomic<bool> initialized{false};
std::atomic<bool> fips{false};
std::atomic<void*> cryptoInfoBlock{nullptr};
}  // namespace

void setInitialized(bool on) noexcept { initialized.store(on); }
bool isInitialized() noexcept { return initialized.load(); }
void setFipsMode(bool on) noexcept { fips.store(on); }
bool fipsMode() noexcept { return fips.load(); }
void adoptCryptoInfo(void* block) noexcept { std::free(cryptoInfoBlock.exchange(block)); }

}  // namespace zavkm
