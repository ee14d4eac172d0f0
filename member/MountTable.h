// The file systems that hold data, out of all that the kernel calls a mount. On any thread.
#pragma once

#include <string>
#include <vector>

#include "member/LocalMachine.h"

namespace Member {

// Leaves out views of the kernel, mounts below /proc and /sys, and automount triggers. Of mounts on top of
// each other the top one counts; of several of one file system the one that shows most of it, then the
// oldest. mountInfo: a file such as /proc/self/mountinfo. sys: where sysfs is mounted.
absl::StatusOr<std::vector<Mount>> realMounts(const std::string& mountInfo, const std::string& sys);

// Size 0 if the mount cannot be reached under its name. Hangs while the file system hangs.
absl::StatusOr<Room> roomOf(const Mount& mount);

}  // namespace Member
