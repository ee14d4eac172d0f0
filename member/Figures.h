// From the answers of the machine to published values.
#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "kelstore/Schema.h"
#include "member/LocalMachine.h"

namespace Member {

// The load of a processor if it is not known.
inline constexpr int16_t kUnknownLoad = -1;

// Percent of the time between two answers that the processor was busy, 0 to 100, rounded. kUnknownLoad if the
// processor counted no time between them.
int16_t loadBetween(const ProcessorTime& before, const ProcessorTime& after);

// The processor's index in tables. These begin with 1, the kernel's numbers with 0.
inline uint32_t processorIndex(uint32_t number) { return number + 1; }

// An amount in KiB, limited to 2^32 - 1.
uint32_t kib(uint64_t amount);

// nonBuffer and nonCache are the total without buffers and without page cache: total minus such an amount is
// what a row shows as used, as it is with free.
Kelstore::Memory memoryOf(const MemoryInUse& memory);

// The mappings of the kinds of memory, by number. A mapping's index decides how the use is computed.
std::vector<std::pair<int32_t, Kelstore::Mapping>> memoryMappings();

// In larger units than the file system's if the number of units does not fit an SNMP INTEGER. Nothing if the
// size is 0.
std::optional<Kelstore::Storage> storageOf(Room room);

// The registered hrStorageType of RFC 2790.
Snmp::ObjectIdentifier storageType(MountKind kind);

}  // namespace Member
