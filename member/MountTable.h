// The file systems that hold data, out of all that the kernel calls a mount. On any thread.
#pragma once

#include <string>
#include <vector>

#include "member/LocalMachine.h"

namespace Member {

// Leaves out
//  - views of the kernel, and mounts below /proc and /sys;
//  - automount triggers and what is mounted at or below them, which looking at would keep from expiring;
//  - what has neither a device nor a server nor a pool, such as tmpfs and overlay, at mount points of more
//    than two components: each container and each session has such mounts, but / and /var/log are the
//    machine's;
//  - files that are mounted over files, as in a container.
// Of mounts on top of each other the top one counts; of several of one file system, of one btrfs or of one
// zfs pool, that at /, else the one that shows most of it, then the oldest. mountInfo: a file such as
// /proc/self/mountinfo. sys: where sysfs is mounted. root: where the mount points are found, "" or a
// directory.
absl::StatusOr<std::vector<Mount>> realMounts(const std::string& mountInfo, const std::string& sys,
                                              const std::string& root = "");

// Size 0 if the mount cannot be reached under its name. Hangs while the file system hangs.
absl::StatusOr<Room> roomOf(const Mount& mount);

}  // namespace Member
