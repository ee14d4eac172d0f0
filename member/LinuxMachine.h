// LocalMachine on Linux: /proc through libproc2, the user accounting database, the mount table through
// libmount. Keeps nothing between questions.
#pragma once

#include "member/LocalMachine.h"
#include "member/MountTable.h"

namespace Member {

class LinuxMachine final : public LocalMachine {
 public:
  // Files that libproc2 does not read.
  struct Files {
    std::string proc = "/proc";
    std::string utmp = "/run/utmp";
    std::string mounts = "/proc/self/mountinfo";
    std::string sys = "/sys";
    std::string cgroup = "/sys/fs/cgroup";
  };

  LinuxMachine() = default;
  explicit LinuxMachine(Files files) : files_(std::move(files)) {}

  std::string name() override;
  absl::StatusOr<double> uptime() override;
  // As who(1) counts them. A machine without a database does not know: an error.
  absl::StatusOr<uint32_t> users() override;
  absl::StatusOr<uint32_t> processes() override;
  // In a container with limits these are the container's; see Cgroup.h.
  absl::StatusOr<MemoryInUse> memory() override;
  absl::StatusOr<std::vector<ProcessorTime>> processors() override;
  absl::StatusOr<std::vector<Mount>> mounts() override { return realMounts(files_.mounts, files_.sys); }
  // As df(1) shows it.
  absl::StatusOr<Room> room(const Mount& mount) override { return roomOf(mount); }

 private:
  Files files_;
};

}  // namespace Member
