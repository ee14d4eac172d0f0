#include "platform/lanix/IntfId.h"

#include <absl/container/flat_hash_set.h>

#include <mutex>

namespace Lanix {

// The interned names. A name gets its first holder, and loses its last one, under the lock, so that intern()
// never returns a name that is about to be destroyed.
class IntfId::Names {
 public:
  static Names& all() {
    static auto* names = new Names;
    return *names;
  }

  boost::intrusive_ptr<const Name> intern(std::string_view text) {
    std::lock_guard lock(mutex_);
    auto found = names_.find(text);
    if (found != names_.end()) return *found;
    boost::intrusive_ptr<const Name> made(new Name(text));
    names_.insert(made.get());
    return made;
  }

  void dropLast(const Name* name) {
    {
      std::lock_guard lock(mutex_);
      // intern() may have returned it again meanwhile.
      if (name->holders.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
      names_.erase(name);
    }
    delete name;
  }

 private:
  static std::string_view textOf(std::string_view text) { return text; }
  static std::string_view textOf(const Name* name) { return name->text; }
  struct Hash {
    using is_transparent = void;
    size_t operator()(const auto& name) const { return absl::HashOf(textOf(name)); }
  };
  struct Equal {
    using is_transparent = void;
    bool operator()(const auto& a, const auto& b) const { return textOf(a) == textOf(b); }
  };

  std::mutex mutex_;
  absl::flat_hash_set<const Name*, Hash, Equal> names_;
};

void IntfId::Name::release() const {
  uint32_t now = holders.load(std::memory_order_relaxed);
  while (now > 1) {
    if (holders.compare_exchange_weak(now, now - 1, std::memory_order_release, std::memory_order_relaxed)) {
      return;
    }
  }
  Names::all().dropLast(this);
}

IntfId::IntfId(std::string_view name) {
  if (!name.empty()) name_ = Names::all().intern(name);
}

const std::string& IntfId::empty() {
  static const auto* text = new std::string;
  return *text;
}

bool BackplaneChannelIntfId::isBackplaneChannelIntfId(const IntfId& id) {
  constexpr std::string_view kPrefix = "Backplane";
  std::string_view name = id.name();
  if (!name.starts_with(kPrefix) || name.size() == kPrefix.size()) return false;
  char next = name[kPrefix.size()];
  return next >= '0' && next <= '9';
}

}  // namespace Lanix
