// Nodes of the reactive runtime: objects that react to changes while they are notification-active.
#pragma once

#include "platform/kor/Type.h"

namespace Zavro {

class Node : public Kor::Object {
 public:
  bool hasNotificationActive() const { return notificationActive_; }
  // Turns reacting on or off. A change of the flag pulses the zombie-reactors flag, so that reactors that
  // were pending while the node was inactive are evaluated.
  void hasNotificationActiveIs(bool active) {
    if (active == notificationActive_) return;
    notificationActive_ = active;
    bool before = zombieReactors_;
    korDoZombieReactors(true);
    zombieReactors_ = before;
  }
  bool hasZombieReactors() const { return zombieReactors_; }

 protected:
  // Sets the zombie-reactors flag. Each time it is set to true, also during an evaluation, onZombieReactors()
  // evaluates pending reactors.
  void korDoZombieReactors(bool on) {
    zombieReactors_ = on;
    if (on) onZombieReactors();
  }
  virtual void onZombieReactors() {}

 private:
  bool notificationActive_ = false;
  bool zombieReactors_ = false;
};

}  // namespace Zavro
