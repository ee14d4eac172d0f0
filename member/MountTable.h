// The file systems that are mounted on this machine, out of all that the kernel calls a mount.
#pragma once

#include <string>
#include <vector>

#include "member/LocalMachine.h"

namespace Member {

// Those that hold data: not what is a view of the kernel, nor mounted below /proc or /sys, nor a trigger for
// something that is yet to be mounted. Of several mounts on one another, the one on top; of several of one
// file system, the one of the most of it, or else the oldest. `mountInfo` is a file such as
// /proc/self/mountinfo, `sys` where sysfs is mounted.
absl::StatusOr<std::vector<Mount>> realMounts(const std::string& mountInfo, const std::string& sys);

// May hang, as long as the file system does.
absl::StatusOr<Room> roomOf(const Mount& mount);

}  // namespace Member
