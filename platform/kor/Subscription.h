// A subscription to a Kor::Notifier: the callback is called as long as the Subscription exists.
#pragma once

#include <memory>
#include <utility>

namespace Kor {

// One subscriber's place in the list of a notifier.
class SubscriberSlot {
 public:
  virtual ~SubscriberSlot() = default;
  bool active() const { return active_; }
  // Ends the subscription. The callback is destroyed now, or, if it is running, when it returns.
  void leave() {
    active_ = false;
    if (!running_) drop();
  }

 protected:
  // The callback is running as long as this object exists.
  class Running {
   public:
    explicit Running(SubscriberSlot& slot) : slot_(slot) { slot_.running_ = true; }
    ~Running() {
      slot_.running_ = false;
      if (!slot_.active_) slot_.drop();
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

   private:
    SubscriberSlot& slot_;
  };
  virtual void drop() = 0;

 private:
  bool active_ = true;
  bool running_ = false;
};

// Unsubscribes when it is destroyed. May outlive the notifier.
class Subscription {
 public:
  Subscription() = default;
  explicit Subscription(std::shared_ptr<SubscriberSlot> slot) : slot_(std::move(slot)) {}
  Subscription(Subscription&&) noexcept = default;
  Subscription& operator=(Subscription&& other) noexcept {
    if (this != &other) Subscription(std::move(other)).slot_.swap(slot_);
    return *this;
  }
  ~Subscription() { reset(); }

  void reset() {
    if (auto slot = std::move(slot_)) slot->leave();
  }
  explicit operator bool() const { return slot_ != nullptr; }

 private:
  std::shared_ptr<SubscriberSlot> slot_;
};

}  // namespace Kor
