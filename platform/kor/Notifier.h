// Synchronous change notification. A subscriber hears of every change made after it subscribed, in the call
// that made the change, in the order of subscription. Subscribing, unsubscribing and changing are allowed
// from within a notification: a new subscriber does not hear of the change under way, one that left is not
// called any more.
#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace Kor {

// Unsubscribes when it is destroyed. May outlive what it subscribes to.
class Subscription {
 public:
  Subscription() = default;
  explicit Subscription(std::shared_ptr<bool> active) : active_(std::move(active)) {}
  Subscription(Subscription&&) noexcept = default;
  Subscription& operator=(Subscription&& other) noexcept {
    reset();
    active_ = std::move(other.active_);
    return *this;
  }
  ~Subscription() { reset(); }

  void reset() {
    if (active_) *active_ = false;
    active_.reset();
  }
  explicit operator bool() const { return active_ != nullptr; }

 private:
  std::shared_ptr<bool> active_;
};

template <class... Args>
class Notifier {
 public:
  using Callback = std::function<void(const Args&...)>;

  // Const, since whoever may read a thing may follow it.
  [[nodiscard]] Subscription subscribe(Callback callback) const {
    sweep();
    auto slot = std::make_shared<Slot>(Slot{true, std::move(callback)});
    slots_->push_back(slot);
    return Subscription(std::shared_ptr<bool>(slot, &slot->active));
  }

  void notify(const Args&... args) const {
    // The list is held on its own, since a subscriber may destroy the notifier; so is each slot, since a
    // subscriber may unsubscribe itself.
    std::shared_ptr<Slots> slots = slots_;
    size_t count = slots->size();
    ++*depth_;
    std::shared_ptr<int> depth = depth_;
    for (size_t i = 0; i < count; ++i) {
      std::shared_ptr<Slot> slot = (*slots)[i];
      if (slot->active) slot->callback(args...);
    }
    --*depth;
  }

  size_t subscribers() const {
    sweep();
    size_t count = 0;
    for (const auto& slot : *slots_) count += slot->active ? 1 : 0;
    return count;
  }

 private:
  struct Slot {
    bool active;
    Callback callback;
  };
  using Slots = std::vector<std::shared_ptr<Slot>>;

  void sweep() const {
    if (*depth_ == 0) std::erase_if(*slots_, [](const auto& slot) { return !slot->active; });
  }

  std::shared_ptr<Slots> slots_ = std::make_shared<Slots>();
  std::shared_ptr<int> depth_ = std::make_shared<int>(0);
};

}  // namespace Kor
