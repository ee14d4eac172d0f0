#include "platform/snmp/ObjectIdentifier.h"

#include <algorithm>
#include <charconv>

namespace Snmp {

const std::string& ObjectIdentifier::text() const {
  static const auto* empty = new std::string;
  return dotted_ ? dotted_->text : *empty;
}

std::optional<std::vector<uint32_t>> ObjectIdentifier::subIds() const {
  std::vector<uint32_t> ids;
  const std::string& dotted = text();
  ids.reserve(static_cast<size_t>(std::ranges::count(dotted, '.')) + 1);
  const char* at = dotted.data();
  const char* end = at + dotted.size();
  if (at != end && *at == '.') ++at;
  while (true) {
    uint32_t id = 0;
    auto [after, error] = std::from_chars(at, end, id);
    if (error != std::errc() || ids.size() == kMaxSubIds) return std::nullopt;
    ids.push_back(id);
    if (after == end) break;
    if (*after != '.') return std::nullopt;
    at = after + 1;
  }
  // X.660: the root arcs are 0 to 2, and arcs 0 and 1 have at most 40 children.
  if (ids.size() < 2 || ids[0] > 2 || (ids[0] < 2 && ids[1] > 39)) return std::nullopt;
  return ids;
}

}  // namespace Snmp
