// The paths of the cluster's state: what may stand where, whatever source it comes from. Which paths there
// are is in the schema (Schema.h).
#pragma once

#include <compare>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kelstore/Schema.h"

namespace Kelstore {

// The longest name of an interface, and the longest segment of a path.
inline constexpr size_t kMaxNameBytes = 4096;

// A plain value. Paths are ordered by kind, which is the order in which changes are applied, then by their
// variable segments.
class Path final {
 public:
  Path() = default;
  // The path's variable segments, as far as there are any. Requires: no zero byte in them.
  Path(Kind ofKind, std::string_view first, std::string_view second);

  std::string_view first() const { return std::string_view(names_).substr(0, names_.find('\0')); }
  std::string_view second() const;

  std::strong_ordering operator<=>(const Path&) const = default;

  // All segments, from the root of the tree.
  std::vector<std::string> segments() const;
  std::string text() const;

  Kind kind = Kind::sysname;

 private:
  std::string names_;  // the first one, and a zero byte and the second where there is one
};

// Segments separated by "/"; one that contains "/" or a character that would garble a line is quoted.
std::string pathText(std::span<const std::string> segments);

// What a position in the tree is.
struct Position {
  enum class What : uint8_t {
    unknown,    // nothing of the state
    badKey,     // a key that its level does not take; `expected` says what it takes
    interior,   // an object of further positions
    container,  // the same, and its being there is a value itself, under `path`
    leaf,       // a value, under `path`
  };
  What what = What::unknown;
  Path path;
  std::string expected;
};

// The position of these segments. Requires: the position above it is interior or container, or there are no
// segments.
Position positionOf(std::span<const std::string> segments);

// Walks from the root to the position of these segments, or to the first on the way at which it ends: what is
// not of the state, takes another key, or is a value already; `depth` is how many segments lead there.
struct Walk {
  Position position;
  size_t depth = 0;
};
Walk walk(std::span<const std::string> segments);

// Of a walk that ended at a bad key, what is wrong: "members/x: found "x", expected a member id, 0 to 255".
std::string badKeyText(std::span<const std::string> segments, const Walk& walk);

}  // namespace Kelstore
