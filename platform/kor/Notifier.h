// Synchronous change notification. A subscriber hears of every change made after it subscribed, before the
// call that made the change returns, once; subscribers are called in the order of subscription.
//
// Within a notification subscribers may come and go: a new one does not hear of the change under way, one
// that left is not called any more. What is being notified of does not change again, and is not destroyed,
// until everybody has heard of it: the process ends otherwise. When a subscriber throws, the others are
// called all the same, and then the first exception leaves the call that made the change.
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

  // Const, since whoever may read a thing may follow it.
  [[nodiscard]] Subscription subscribe(Callback callback) const {
    sweep();
    slots_.push_back(std::make_shared<Slot>(std::move(callback)));
    return Subscription(slots_.back());
  }

  void notify(const Args&... args) const {
    zavroAssert(!notifying_ && "changed during publication");
    notifying_ = true;
    std::exception_ptr error;
    // Those that subscribe meanwhile stand behind.
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
    // Emptied before what it held is destroyed, which may lead back here.
    void drop() override { Callback gone = std::exchange(callback_, nullptr); }
    Callback callback_;
  };

  // Not during a notification, which counts places.
  void sweep() const {
    if (!notifying_) std::erase_if(slots_, [](const auto& slot) { return !slot->active(); });
  }

  mutable std::vector<std::shared_ptr<Slot>> slots_;
  mutable bool notifying_ = false;
};

}  // namespace Kor
