// Names of interfaces.
#pragma once

#include <atomic>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace Lanix {

// An interned name: equal ids share one copy of it, which lives as long as one of them. An id is as large as
// a pointer, and equality compares pointers. Ids may be created, copied and destroyed on any thread, also
// during static destruction.
class IntfId {
 public:
  IntfId() = default;  // the empty name; no interface has it
  explicit IntfId(std::string_view name);
  const std::string& name() const { return name_ ? name_->text : empty(); }
  const std::string& text() const { return name(); }
  bool operator==(const IntfId& other) const { return name_ == other.name_; }
  // By name.
  std::strong_ordering operator<=>(const IntfId& other) const {
    return *this == other ? std::strong_ordering::equal : name() <=> other.name();
  }

 private:
  class Names;
  struct Name {
    explicit Name(std::string_view name) : text(name) {}
    void release() const;
    friend void intrusive_ptr_add_ref(const Name* name) {
      name->holders.fetch_add(1, std::memory_order_relaxed);
    }
    friend void intrusive_ptr_release(const Name* name) { name->release(); }

    const std::string text;
    mutable std::atomic<uint32_t> holders = 0;
  };

  static const std::string& empty();

  boost::intrusive_ptr<const Name> name_;  // null: the empty name
};

class BackplaneChannelIntfId {
 public:
  // A backplane channel interface is called `Backplane` followed by a digit, such as "Backplane1/2".
  static bool isBackplaneChannelIntfId(const IntfId& id);
};

}  // namespace Lanix
