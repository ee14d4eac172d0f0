// From the keys of a store to the state document that they stand for: worked out from the text of the keys
// alone, without a line of the library's that reads them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "kelstore/etcd/Client.h"

namespace Faults {

inline constexpr const char* kPrefix = "trel";
// From the first key below it up to, not including, this end.
inline const Kelstore::Etcd::KeyRange kAll{std::string(kPrefix) + "/", std::string(kPrefix) + "0"};

// Requires: every key is one of the state, every value can be used.
nlohmann::json documentOf(const Kelstore::Etcd::Listing& listing);

// As a segment of a key.
std::string spelt(const std::string& segment);

}  // namespace Faults
