#include "platform/zavro/Clock.h"

#include <time.h>

namespace Zavro {
namespace {

uint64_t nowNs(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

uint64_t SystemClock::monotonicNs() const { return nowNs(CLOCK_BOOTTIME); }
uint64_t SystemClock::utcNs() const { return nowNs(CLOCK_REALTIME); }

}  // namespace Zavro
