// What trelctl takes from the daemons' configurations, trelsnmpd.json and trelmemberd.json of a directory,
// where no option gives it. Blocks.
#pragma once

#include <optional>
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
// The first store that trelsnmpd follows, and that of trelmemberd; nothing: there is none. These throw
// Unusable when a file cannot be read.
std::optional<DefaultStore> agentStore(const std::string& directory);
std::optional<DefaultStore> memberStore(const std::string& directory);
// The member that trelmemberd publishes; nothing: it is not configured.
std::optional<uint8_t> memberIn(const std::string& directory);
// The first store that trelsnmpd follows, else that of trelmemberd; nothing: there is none. Throws Unusable
// when a file cannot be read.
std::optional<DefaultStore> configuredStore(const std::string& directory);
// The same, but also throws when there is none.
DefaultStore storeIn(const std::string& directory);

}  // namespace TrelCtl
