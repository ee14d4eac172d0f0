// The file in which indexes of mount points are kept from one life of the process to the next, as JSON:
// {"version": 1, "mounts": {"/var": 1001}}.
//
// Both functions are for a thread off the loop; they may hang as long as the file's file system does.
#pragma once

#include <string>

#include "member/LocalMachine.h"
#include "member/StorageIndexes.h"

namespace Member {

struct KeptIndexes {
  StorageIndexes::ByMountPoint indexes;
  std::string damage;  // one line, when there was a file that could not be used and was set aside; or empty
};

// What is kept; nothing when there is no file. A file that is damaged, or of a version that is not known, is
// set aside as "<path>.damaged" (or, if there is one already, "<path>.damaged.2" and so on) and never
// overwritten. Fails when there is a file that can be neither read nor set aside.
absl::StatusOr<KeptIndexes> readIndexes(const std::string& path);

// Replaces the file at once, or not at all; makes its directory where that is missing.
absl::Status writeIndexes(const std::string& path, const StorageIndexes::ByMountPoint& indexes);

}  // namespace Member
