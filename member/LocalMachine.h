// The machine that this process runs on, as it answers questions about itself. Each collector has a question
// of its own, so that one that fails or hangs affects no other.
//
// On any thread. Different questions may be asked at the same time; one question is asked once at a time. An
// answer may take long, or never come.
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
  uint64_t available = 0;  // free or reclaimable without swapping
  uint64_t buffers = 0;
  uint64_t pageCache = 0;  // without reclaimable slabs, which some tools include
};

// Time since the machine started, in ticks of the kernel.
struct ProcessorTime {
  uint32_t number = 0;  // the kernel's, from 0
  uint64_t busy = 0;
  uint64_t total = 0;
};

enum class MountKind : uint8_t { fixedDisk, removableDisk, compactDisc, ramDisk, flashMemory, networkDisk };

// A mounted file system.
struct Mount {
  std::string point;
  MountKind kind = MountKind::fixedDisk;
  uint64_t id = 0;  // the kernel's; each mount has a new one, also at the same point
  bool operator==(const Mount&) const = default;
};

// The size of a file system, and how much is free. Size 0: there is nothing to publish.
struct Room {
  uint64_t unitBytes = 0;
  uint64_t size = 0;  // in units
  uint64_t free = 0;  // in units
};

// Error messages are one line, such as "/run/utmp: Permission denied".
class LocalMachine {
 public:
  virtual ~LocalMachine() = default;
  // Of the host. Answers at once.
  virtual std::string name() = 0;
  // Seconds since the machine started.
  virtual absl::StatusOr<double> uptime() = 0;
  // Sessions of logged-in users.
  virtual absl::StatusOr<uint32_t> users() = 0;
  virtual absl::StatusOr<uint32_t> processes() = 0;
  virtual absl::StatusOr<MemoryInUse> memory() = 0;
  // The processors that are online, by number.
  virtual absl::StatusOr<std::vector<ProcessorTime>> processors() = 0;
  // The mounted file systems that hold data, each at one mount point.
  virtual absl::StatusOr<std::vector<Mount>> mounts() = 0;
  // Size 0 if the mount cannot be reached under its name any more. May be asked for several mounts at the
  // same time.
  virtual absl::StatusOr<Room> room(const Mount& mount) = 0;
};

}  // namespace Member
