// From what the machine tells to what it publishes of itself.
#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "kelstore/Schema.h"
#include "member/LocalMachine.h"

namespace Member {

// The load of a processor that is not known.
inline constexpr int16_t kUnknownLoad = -1;

// Percent of the time between two looks that the processor was busy, rounded; unknown when no time has passed
// between them by the processor's own count.
int16_t loadBetween(const ProcessorTime& before, const ProcessorTime& after);

// The processor's index: the kernel's numbers begin with 0, indexes in tables with 1.
inline uint32_t processorIndex(uint32_t number) { return number + 1; }

// KiB, or the largest number there is for more.
uint32_t kib(uint64_t amount);

// What is not buffers and what is not page cache is given, so that the total less such an amount is the size
// of the buffers and of the page cache, as the total less the free amount is what is used.
Kelstore::Memory memoryOf(const MemoryInUse& memory);

// The kinds of memory that have a row, with the indexes by which their use is computed.
std::vector<std::pair<int32_t, Kelstore::Mapping>> memoryMappings();

// In larger units than the file system's own where the number of units would not fit an SNMP INTEGER. Nothing
// when there is no room at all.
std::optional<Kelstore::Storage> storageOf(Room room);

// The registered hrStorageType of RFC 2790.
Snmp::ObjectIdentifier storageType(MountKind kind);

}  // namespace Member
