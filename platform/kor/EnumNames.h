// Names of an enumeration's values, declared beside the enumeration in the order of its values, which begin
// with 0:
//
//   enum State : uint8_t { unknown, running };
//   friend constexpr auto namesOf(State) { return std::to_array<std::string_view>({"unknown", "running"}); }
//
// An enumeration of what others say, who may be newer, has a value for all that is not among these:
//
//   enum State : uint8_t { unknown, running, unrecognized = 255 };
#pragma once

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace Kor {

template <class Enum>
concept Named = std::is_enum_v<Enum> && requires(Enum value) {
  namesOf(value);
};

// The names, indexed by value.
template <Named Enum>
inline constexpr auto kNames = namesOf(Enum{});

template <class Enum>
concept Growing = Named<Enum> && requires {
  Enum::unrecognized;
};
inline constexpr std::string_view kUnrecognized = "unrecognized";

// The value's name, or its number when it has none.
template <Named Enum>
std::string nameOf(Enum value) {
  if constexpr (Growing<Enum>) {
    if (value == Enum::unrecognized) return std::string(kUnrecognized);
  }
  auto ordinal = static_cast<size_t>(value);
  return ordinal < kNames<Enum>.size() ? std::string(kNames<Enum>[ordinal]) : std::to_string(ordinal);
}

// The value of that name, or nothing.
template <Named Enum>
std::optional<Enum> named(std::string_view name) {
  const auto* found = std::find(kNames<Enum>.begin(), kNames<Enum>.end(), name);
  if (found == kNames<Enum>.end()) return std::nullopt;
  return static_cast<Enum>(found - kNames<Enum>.begin());
}

}  // namespace Kor
