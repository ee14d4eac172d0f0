// An object identifier in its dotted form, such as "1.3.6.1.2.1.25.2.1.4".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Snmp {

class ObjectIdentifier {
 public:
  static constexpr size_t kMaxSubIds = 128;  // RFC 2578, section 3.5

  ObjectIdentifier() = default;  // empty
  // Accepts any text; subIds() checks it.
  explicit ObjectIdentifier(std::string dotted) : dotted_(std::move(dotted)) {}

  const std::string& text() const { return dotted_; }
  // The sub-identifiers. Nothing unless the text is 2 to 128 decimal numbers below 2^32, separated by dots,
  // with at most one leading dot; the first at most 2, and the second at most 39 when the first is 0 or 1.
  std::optional<std::vector<uint32_t>> subIds() const;

  bool operator==(const ObjectIdentifier&) const = default;

 private:
  std::string dotted_;
};

}  // namespace Snmp
