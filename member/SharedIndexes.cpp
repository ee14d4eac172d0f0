#include "member/SharedIndexes.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <map>

#include "runtime/Text.h"

namespace Member {

std::vector<std::string> sharedIndexes(const std::vector<PublishedIndex>& published) {
  std::map<uint32_t, std::vector<std::string>> byIndex;
  for (const auto& [interface, ifIndex] : published) {
    if (ifIndex != 0) byIndex[ifIndex].push_back(Runtime::escaped(interface));
  }
  std::vector<std::string> lines;
  for (const auto& [ifIndex, interfaces] : byIndex) {
    if (interfaces.size() < 2) continue;
    lines.push_back(
        fmt::format("interfaces {}: published with one ifIndex, {}, so that they share a row; set "
                    "another ifIndex for all but one",
                    fmt::join(interfaces, " and "), ifIndex));
  }
  return lines;
}

std::vector<PublishedIndex> publishedIndexes(const Config& config,
                                             const std::function<uint32_t(const std::string&)>& indexOf) {
  std::vector<PublishedIndex> published;
  for (const NeighbourConfig& neighbour : config.neighbours) {
    published.push_back(
        {neighbour.interface, neighbour.ifIndex != 0 ? neighbour.ifIndex : indexOf(neighbour.device)});
  }
  return published;
}

}  // namespace Member
