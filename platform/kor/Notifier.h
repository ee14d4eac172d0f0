// Synchronous change notification: notify() calls every subscriber once, in the order of subscription, before
// it returns.
//
// Subscribers may be added and removed during a notification: a new one is not called for that change, a
// removed one is not called any more. A second change, or the destruction of the notifier, during a
// notification ends the process. When a subscriber throws, the others are still called; then the first
// exception leaves notify().
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "platform/kor/Subscription.h"
#include "platform/zavro/Assert.h"

namespace Kor {

template <class... Args>
class Notifier {
 public:
  using Callback = std::function<void(const Args&...)>;

  Notifier() = default;
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;
  ~Notifier() {
    zavroAssert(!notifying_ && "destroyed during publication");
    for (const auto& slot : slots_) slot->leave();
  }

  // Const: read access to an object is enough to follow its changes.
  [[nodiscard]] Subscription subscribe(Callback callback) const {
    sweep();
    slots_.push_back(std::make_shared<Slot>(std::move(callback)));
    return Subscription(slots_.back());
  }

  void notify(const Args&... args) const {
    zavroAssert(!notifying_ && "changed during publication");
    notifying_ = true;
    std::exception_ptr error;
    // The count is taken first: subscribers that are added meanwhile are not called.
    for (size_t i = 0, count = slots_.size(); i < count; ++i) {
      std::shared_ptr<Slot> slot = slots_[i];
      try {
        if (slot->active()) slot->call(args...);
      } catch (...) {
        if (!error) error = std::current_exception();
      }
    }
    notifying_ = false;
    sweep();
    if (error) std::rethrow_exception(error);
  }

  size_t subscribers() const {
    size_t count = 0;
    for (const auto& slot : slots_) count += slot->active() ? 1 : 0;
    return count;
  }

 private:
  class Slot final : public SubscriberSlot {
   public:
    explicit Slot(Callback callback) : callback_(std::move(callback)) {}
    void call(const Args&... args) {
      Running running(*this);
      callback_(args...);
    }

   private:
    // Emptied first: destroying the callback may call drop() again.
    void drop() override { Callback gone = std::exchange(callback_, nullptr); }
    Callback callback_;
  };

  // Erases nothing during a notification, which walks the list by index.
  void sweep() const {
    if (!notifying_) std::erase_if(slots_, [](const auto& slot) { return !slot->active(); });
  }

  mutable std::vector<std::shared_ptr<Slot>> slots_;
  mutable bool notifying_ = false;
};

}  // namespace Kor
