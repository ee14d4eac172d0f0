#include "platform/zavro/Clock.h"

#include <chrono>

namespace Zavro {
namespace {

template <class Source>
uint64_t nowNs() {
  auto sinceEpoch = std::chrono::duration_cast<std::chrono::nanoseconds>(Source::now().time_since_epoch());
  return static_cast<uint64_t>(sinceEpoch.count());
}

}  // namespace

uint64_t SystemClock::monotonicNs() const { return nowNs<std::chrono::steady_clock>(); }
uint64_t SystemClock::utcNs() const { return nowNs<std::chrono::system_clock>(); }

}  // namespace Zavro
