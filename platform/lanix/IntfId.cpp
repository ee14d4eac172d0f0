#include "lanix/IntfId.h"

#include <string_view>

namespace Lanix {

bool BackplaneChannelIntfId::isBackplaneChannelIntfId(const IntfId& id) {
  constexpr std::string_view kPrefix = "Backplane";
  std::string_view name = id.name();
  if (!name.starts_with(kPrefix) || name.size() == kPrefix.size()) return false;
  char next = name[kPrefix.size()];
  return next >= '0' && next <= '9';
}

}  // namespace Lanix
