#include "platform/trel/MemberId.h"

#include <charconv>

namespace Trel {

MemberId MemberId::fromString(std::string_view text) {
  uint8_t id = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
  return error == std::errc() && end == text.data() + text.size() ? MemberId(id) : MemberId();
}

}  // namespace Trel
