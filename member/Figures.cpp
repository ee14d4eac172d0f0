#include "member/Figures.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

namespace Member {
namespace {

constexpr uint64_t kMaxUnits = std::numeric_limits<int32_t>::max();
constexpr uint64_t kMaxUnitBytes = uint64_t{1} << 30;

// Numbers below hrStorageTypes.
enum class StorageType : uint8_t {
  other = 1,
  ram = 2,
  fixedDisk = 4,
  removableDisk = 5,
  compactDisc = 7,
  ramDisk = 8,
  flashMemory = 9,
  networkDisk = 10,
};

Snmp::ObjectIdentifier oidOf(StorageType type) {
  return Snmp::ObjectIdentifier(fmt::format("1.3.6.1.2.1.25.2.1.{}", static_cast<int>(type)));
}

}  // namespace

// The kernel's idle time may step back a little.
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

std::vector<std::pair<int32_t, Kelstore::Mapping>> memoryMappings() {
  return {{1, {oidOf(StorageType::ram), "Physical memory", 1}},
          {2, {oidOf(StorageType::other), "Memory buffers", 2}},
          {3, {oidOf(StorageType::other), "Cached memory", 3}},
          {100, {oidOf(StorageType::other), "Unavailable memory", 100}}};
}

std::optional<Kelstore::Storage> storageOf(Room room) {
  if (room.size == 0 || room.unitBytes == 0) return std::nullopt;
  while (room.size > kMaxUnits && room.unitBytes < kMaxUnitBytes) {
    room.unitBytes *= 2;
    room.size /= 2;
    room.free /= 2;
  }
  return Kelstore::Storage{static_cast<uint32_t>(std::min(room.unitBytes, kMaxUnitBytes)),
                           std::min(room.size, kMaxUnits), std::min({room.free, room.size, kMaxUnits})};
}

Snmp::ObjectIdentifier storageType(MountKind kind) {
  switch (kind) {
    case MountKind::fixedDisk:
      return oidOf(StorageType::fixedDisk);
    case MountKind::removableDisk:
      return oidOf(StorageType::removableDisk);
    case MountKind::compactDisc:
      return oidOf(StorageType::compactDisc);
    case MountKind::ramDisk:
      return oidOf(StorageType::ramDisk);
    case MountKind::flashMemory:
      return oidOf(StorageType::flashMemory);
    case MountKind::networkDisk:
      break;
  }
  return oidOf(StorageType::networkDisk);
}

}  // namespace Member
