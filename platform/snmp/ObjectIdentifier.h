// An object identifier in its dotted form, such as "1.3.6.1.2.1.25.2.1.4".
#pragma once

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Snmp {

// Immutable; copies share the text, also on several threads.
class ObjectIdentifier {
 public:
  static constexpr size_t kMaxSubIds = 128;  // RFC 2578, section 3.5

  ObjectIdentifier() = default;  // empty
  // Accepts any text; subIds() checks it.
  explicit ObjectIdentifier(std::string dotted) {
    if (!dotted.empty()) dotted_ = new Dotted(std::move(dotted));
  }

  const std::string& text() const;
  // The sub-identifiers. Nothing unless the text is 2 to 128 decimal numbers below 2^32, separated by dots,
  // with at most one leading dot; the first at most 2, and the second at most 39 when the first is 0 or 1.
  std::optional<std::vector<uint32_t>> subIds() const;

  bool operator==(const ObjectIdentifier& other) const {
    return dotted_ == other.dotted_ || text() == other.text();
  }

 private:
  struct Dotted : boost::intrusive_ref_counter<Dotted> {
    explicit Dotted(std::string dotted) : text(std::move(dotted)) {}
    const std::string text;
  };
  boost::intrusive_ptr<const Dotted> dotted_;  // null: empty
};

}  // namespace Snmp
