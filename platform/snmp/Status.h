// Whether the SNMP agent of this process is initialised. The host sets it, the agent's status watcher follows
// it.
#pragma once

#include "platform/kor/Entity.h"
#include "platform/kor/Notifier.h"
#include "platform/kor/Publication.h"

namespace Snmp {

class Status final : public Kor::Entity {
 public:
  using Entity::Entity;

  bool initialized() const { return initialized_; }
  // Notifies when the flag changes.
  void initializedIs(bool initialized) {
    Kor::Publication::expectNone();
    if (initialized == initialized_) return;
    initialized_ = initialized;
    notifier_.notify();
  }
  [[nodiscard]] Kor::Subscription subscribeInitialized(std::function<void()> callback) const {
    return notifier_.subscribe(std::move(callback));
  }

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  bool initialized_ = false;
  Kor::Notifier<> notifier_;
};

}  // namespace Snmp
