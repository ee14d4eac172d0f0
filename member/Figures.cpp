#include "Figures.h"

#include <algorithm>
#include <limits>

namespace Member {

// The kernel's counts of idle time may step back a little; nothing is made of that.
int16_t loadBetween(const ProcessorTime& before, const ProcessorTime& after) {
  if (after.total <= before.total) return kUnknownLoad;
  uint64_t total = after.total - before.total;
  uint64_t busy = std::min(total, after.busy - std::min(before.busy, after.busy));
  return static_cast<int16_t>((busy * 100 + total / 2) / total);
}

uint32_t kib(uint64_t amount) {
  return static_cast<uint32_t>(std::min<uint64_t>(amount, std::numeric_limits<uint32_t>::max()));
}

Kelstore::Memory memoryOf(const MemoryInUse& memory) {
  auto without = [&memory](uint64_t part) { return kib(memory.total - std::min(memory.total, part)); };
  return {kib(memory.total), kib(memory.free), kib(memory.available), without(memory.buffers),
          without(memory.pageCache)};
}

}  // namespace Member
