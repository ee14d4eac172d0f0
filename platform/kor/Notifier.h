// Synchronous change notification. A subscriber hears of every change made after it subscribed, before the
// call that made the change returns, once, in the order of the changes; subscribers are called in the order
// of subscription.
//
// Within a notification everything is allowed: a new subscriber does not hear of the change under way, one
// that left is not called any more, and when the notifier is destroyed nobody is. A change made from within a
// notification is delivered when everybody has heard of the change under way, so that nobody hears of the two
// in the wrong order. When a subscriber throws, the others are called all the same, and then the first
// exception leaves the call that made the change.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/kor/Subscription.h"

namespace Kor {

template <class... Args>
class Notifier {
 public:
  using Callback = std::function<void(const Args&...)>;

  Notifier() = default;
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;
  ~Notifier() {
    std::shared_ptr<State> state = std::move(state_);
    for (const auto& slot : state->slots) slot->leave();
  }

  // Const, since whoever may read a thing may follow it.
  [[nodiscard]] Subscription subscribe(Callback callback) const {
    sweep(*state_);
    state_->slots.push_back(std::make_shared<Slot>(std::move(callback)));
    return Subscription(state_->slots.back());
  }

  void notify(const Args&... args) const {
    if (state_->slots.empty()) return;
    // Held on its own, since a subscriber may destroy the notifier.
    std::shared_ptr<State> state = state_;
    Delivery delivery{{args...}, 0, state->slots.size(), state->current, nullptr};
    state->current = &delivery;
    deliver(*state, delivery);
    state->current = delivery.outer;
    sweep(*state);
    if (delivery.error) std::rethrow_exception(delivery.error);
  }

  size_t subscribers() const {
    size_t count = 0;
    for (const auto& slot : state_->slots) count += slot->active() ? 1 : 0;
    return count;
  }

 private:
  class Slot final : public SubscriberSlot {
   public:
    explicit Slot(Callback callback) : callback_(std::move(callback)) {}
    void call(const std::tuple<const Args&...>& args) {
      Running running(*this);
      std::apply(callback_, args);
    }

   private:
    // Emptied before what it held is destroyed, which may lead back here.
    void drop() override { Callback gone = std::exchange(callback_, nullptr); }
    Callback callback_;
  };

  // One change on its way. It lives on the stack of notify().
  struct Delivery {
    std::tuple<const Args&...> args;
    size_t next;
    size_t count;     // those that subscribed later do not hear of it
    Delivery* outer;  // the change from within whose notification this one was made
    std::exception_ptr error;
  };

  struct State {
    std::vector<std::shared_ptr<Slot>> slots;
    Delivery* current = nullptr;
  };

  static void deliver(State& state, Delivery& delivery) {
    if (delivery.outer != nullptr) deliver(state, *delivery.outer);
    while (delivery.next < delivery.count) {
      std::shared_ptr<Slot> slot = state.slots[delivery.next++];
      if (!slot->active()) continue;
      try {
        slot->call(delivery.args);
      } catch (...) {
        if (!delivery.error) delivery.error = std::current_exception();
      }
    }
  }

  // Not during a delivery, which counts places.
  static void sweep(State& state) {
    if (state.current == nullptr) {
      std::erase_if(state.slots, [](const auto& slot) { return !slot->active(); });
    }
  }

  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace Kor
