// Whether two interfaces of this member are published with one ifIndex: they would share a row of the tables.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "member/Config.h"

namespace Member {

struct PublishedIndex {
  std::string interface;
  uint32_t ifIndex = 0;  // 0: it is not published
};

// A line for each index that several interfaces have, with what to do.
std::vector<std::string> sharedIndexes(const std::vector<PublishedIndex>& published);

// With which index each interface is published. indexOf: a device's own index, 0 if there is no device.
std::vector<PublishedIndex> publishedIndexes(const Config& config,
                                             const std::function<uint32_t(const std::string&)>& indexOf);

}  // namespace Member
