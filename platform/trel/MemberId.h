// The id of a cluster member, 0 to 255.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace Trel {

class MemberId {
 public:
  constexpr MemberId() = default;
  constexpr explicit MemberId(uint8_t id) : id_(id) {}
  // From a decimal number of 0 to 255, with or without leading zeros; any other text yields member 0.
  static MemberId fromString(std::string_view text);

  constexpr uint8_t id() const { return id_; }
  std::string text() const { return std::to_string(id_); }
  constexpr auto operator<=>(const MemberId&) const = default;

 private:
  uint8_t id_ = 0;
};

}  // namespace Trel
