// What trelctl takes from the daemons' configurations, trelsnmpd.json and trelmemberd.json of a directory,
// where no option gives it. Blocks.
#pragma once

#include <string>

#include "kelstore/etcd/Access.h"

namespace TrelCtl {

inline constexpr const char* kConfigDirectory = "/etc/trel";

// The daemon's socket; empty when the configuration does not set it, or cannot be read.
std::string controlIn(const std::string& directory);

struct DefaultStore {
  std::string store;
  Kelstore::Etcd::Access access;
};
// The first store that trelsnmpd follows, else that of trelmemberd. Throws Unusable when there is none, or a
// file cannot be read.
DefaultStore storeIn(const std::string& directory);

}  // namespace TrelCtl
