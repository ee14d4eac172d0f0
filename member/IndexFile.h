// The file that keeps the indexes of mount points over restarts, as JSON:
// {"version": 1, "mounts": {"/var": 1001}}.
//
// Both functions are for threads off the loop: they hang while the file's file system hangs.
#pragma once

#include <string>

#include "member/LocalMachine.h"
#include "member/StorageIndexes.h"

namespace Member {

struct KeptIndexes {
  StorageIndexes::ByMountPoint indexes;
  std::string damage;  // one line if a file could not be used and was set aside; else empty
};

// The kept indexes; none if there is no file. A file that is damaged or of an unknown version is renamed to
// "<path>.damaged", or "<path>.damaged.2" and so on if there is one, and never overwritten. An error: the
// file can be neither read nor renamed.
absl::StatusOr<KeptIndexes> readIndexes(const std::string& path);

// Replaces the file atomically; creates its directory if that is missing.
absl::Status writeIndexes(const std::string& path, const StorageIndexes::ByMountPoint& indexes);

}  // namespace Member
