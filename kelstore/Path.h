// The paths of the cluster's state, the same for every source. Schema.h says which there are. On any thread.
#pragma once

#include <absl/strings/cord.h>

#include <compare>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kelstore/Schema.h"

namespace Kelstore {

// Bytes of an interface's name, or of a path's segment, at most.
inline constexpr size_t kMaxNameBytes = 4096;
// Bytes of any other text: as many as a DisplayString or an SnmpAdminString holds (RFC 2579, RFC 3411).
inline constexpr size_t kMaxTextBytes = 255;

// Ordered by kind, which is the order in which changes are applied, then by the variable segments.
class Path final {
 public:
  Path() = default;
  // first, second: the variable segments; empty where the kind has fewer. Requires: no zero byte in them.
  Path(Kind ofKind, std::string_view first, std::string_view second);

  std::string_view first() const { return names().substr(0, names().find('\0')); }
  std::string_view second() const;

  std::strong_ordering operator<=>(const Path& other) const {
    return kind == other.kind ? names() <=> other.names() : kind <=> other.kind;
  }
  bool operator==(const Path& other) const { return (*this <=> other) == 0; }

  // All segments, from the root of the tree. text(): the same, as pathText() writes them.
  std::vector<std::string> segments() const;
  std::string text() const;

  Kind kind = Kind::sysname;

 private:
  std::string_view names() const {
    auto flat = *names_.TryFlat();
    return {flat.data(), flat.size()};
  }

  // The first one, and a zero byte and the second where there is one; in one piece. A cord takes less room
  // than a string, and copies share what is long.
  absl::Cord names_;
};

// For people: the segments with "/" between them. A segment is quoted if it is empty or has a "/" or a
// control character in it, and cut if it is long.
std::string pathText(std::span<const std::string> segments);

// What a position in the tree is.
struct Position {
  enum class What : uint8_t {
    unknown,    // nothing of the state
    badKey,     // the last segment is not allowed here; `expected` says what is
    interior,   // an object of further positions
    container,  // the same, and its presence is a value itself, at `path`
    leaf,       // a value, at `path`
  };
  What what = What::unknown;
  Path path;
  std::string expected;
};

// The position of these segments. Requires: the one above it is interior or a container, or there are no
// segments.
Position positionOf(std::span<const std::string> segments);

// Follows the segments from the root: to their position, or to the first on the way that is unknown, a bad
// key or a leaf. `depth`: how many segments lead there.
struct Walk {
  Position position;
  size_t depth = 0;
};
Walk walk(std::span<const std::string> segments);

// What is wrong, such as: members/x: found "x", expected a member id, 0 to 255. Requires: the walk ended at a
// bad key.
std::string badKeyText(std::span<const std::string> segments, const Walk& walk);

}  // namespace Kelstore
