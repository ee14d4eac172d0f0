// An object identifier in its dotted form, such as "1.3.6.1.2.1.25.2.1.4".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Snmp {

class ObjectIdentifier {
 public:
  static constexpr size_t kMaxSubIds = 128;  // RFC 2578, section 3.5

  ObjectIdentifier() = default;  // empty
  // Any text is taken; whether it spells an object identifier shows in subIds().
  explicit ObjectIdentifier(std::string dotted) : dotted_(std::move(dotted)) {}

  const std::string& text() const { return dotted_; }
  // The sub-identifiers, or nothing when the text is not 2 to 128 decimal numbers below 2^32 separated by
  // dots (one leading dot is allowed) whose first is at most 2 and whose second is at most 39 below a first
  // of 0 or 1.
  std::optional<std::vector<uint32_t>> subIds() const;

  bool operator==(const ObjectIdentifier&) const = default;

 private:
  std::string dotted_;
};

}  // namespace Snmp
