#include "member/Links.h"

#include <algorithm>

namespace Member {

std::optional<Device> LinkTable::find(const std::string& name) const {
  auto found = std::find_if(byIndex_.begin(), byIndex_.end(),
                            [&](const auto& entry) { return entry.second.name == name; });
  if (!known_ || found == byIndex_.end()) return std::nullopt;
  return found->second.device;
}

void LinkTable::listingBegins() {
  for (auto& [index, entry] : byIndex_) entry.listed = false;
}

void LinkTable::listingEnds() {
  std::erase_if(byIndex_, [](const auto& entry) { return !entry.second.listed; });
  known_ = true;
}

// If another device had the name, that device was renamed or is gone, and the message was missed.
bool LinkTable::deviceIs(const std::string& name, const Device& device) {
  std::erase_if(byIndex_,
                [&](const auto& entry) { return entry.second.name == name && entry.first != device.index; });
  Entry& entry = byIndex_[device.index];
  bool news = entry.name != name || entry.device != device;
  entry = {name, device, true};
  return news;
}

bool LinkTable::deviceIsGone(uint32_t index) { return byIndex_.erase(index) > 0; }

}  // namespace Member
