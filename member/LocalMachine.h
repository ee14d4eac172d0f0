// What a machine tells of itself. One small question for each collector, so that each can be asked, and can
// fail or hang, alone.
//
// Asked on any thread: different questions at the same time, the same one never twice at the same time. A
// question may take long; it may never be answered.
#pragma once

#include <absl/status/statusor.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Member {

// In KiB.
struct MemoryInUse {
  uint64_t total = 0;
  uint64_t free = 0;
  uint64_t available = 0;  // free, or reclaimable without swapping
  uint64_t buffers = 0;
  uint64_t pageCache = 0;  // without reclaimable slabs, which some tools add to it
};

// What a processor has done since the machine started, in ticks of the kernel.
struct ProcessorTime {
  uint32_t number = 0;  // the kernel's, from 0
  uint64_t busy = 0;
  uint64_t total = 0;
};

enum class MountKind : uint8_t { fixedDisk, removableDisk, compactDisc, ramDisk, flashMemory, networkDisk };

// A file system that is mounted.
struct Mount {
  std::string point;
  MountKind kind = MountKind::fixedDisk;
  uint64_t id = 0;  // the kernel's; another one when something is mounted there anew
  bool operator==(const Mount&) const = default;
};

// How much there is room for, and how much of it is not used. Of no size: there is nothing to tell.
struct Room {
  uint64_t unitBytes = 0;
  uint64_t size = 0;  // in units
  uint64_t free = 0;  // in units
};

// Errors are one line, such as "/run/utmp: Permission denied".
class LocalMachine {
 public:
  virtual ~LocalMachine() = default;
  // Seconds since the machine started.
  virtual absl::StatusOr<double> uptime() = 0;
  // Sessions of users that are logged in.
  virtual absl::StatusOr<uint32_t> users() = 0;
  virtual absl::StatusOr<uint32_t> processes() = 0;
  virtual absl::StatusOr<MemoryInUse> memory() = 0;
  // The processors that are online, by number.
  virtual absl::StatusOr<std::vector<ProcessorTime>> processors() = 0;
  // The mounted file systems that hold data, each at one mount point.
  virtual absl::StatusOr<std::vector<Mount>> mounts() = 0;
  // May be asked for several mounts at the same time. Of no size when it is not to be reached under its name.
  virtual absl::StatusOr<Room> room(const Mount& mount) = 0;
};

}  // namespace Member
