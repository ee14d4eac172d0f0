// The paths of the state model: what may stand where in the cluster's state, whatever source it comes from.
//
// Used by the codec, the sources and the mirror. Paths are plain values; their order is the order in which
// changes are applied, so that what rows are computed from (storage mappings, interface indexes) is there
// before the rows' own inputs.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Kelstore {

enum class Kind : uint8_t {
  sysname,
  mountMapping,   // storageMappings/mounts/<mount point>
  memoryMapping,  // storageMappings/memory/<S32>
  interface,      // interfaces/<intfId>
  link,           // topology/<member>/<neighbour>
  system,         // members/<key>/system
  memory,         // members/<key>/memory
  processors,     // members/<key>/processors: that it is there
  processor,      // members/<key>/processors/<index>
  storageAreas,   // members/<key>/storage: that it is there
  storage,        // members/<key>/storage/<mount point>
  neighbours,     // members/<key>/reachability: that it is there
  reachability,   // members/<key>/reachability/<neighbour>
};

struct Path {
  Kind kind = Kind::sysname;
  std::string first;   // the path's first variable segment, empty when it has none
  std::string second;  // and its second

  std::strong_ordering operator<=>(const Path&) const = default;

  // All segments, from the root of the tree.
  std::vector<std::string> segments() const;
  std::string text() const;
};

// Segments separated by "/"; one that contains "/" or a character that would garble a line is quoted.
std::string pathText(std::span<const std::string> segments);

// What a position in the tree is.
struct Position {
  enum class What : uint8_t {
    unknown,    // nothing of the state model
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

}  // namespace Kelstore
