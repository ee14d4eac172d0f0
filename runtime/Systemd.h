// What systemd is told, when the daemon runs under it (Type=notify); nothing happens otherwise.
#pragma once

#include <memory>

#include "runtime/EventLoop.h"

namespace Runtime {

class Systemd {
 public:
  // Feeds systemd's watchdog, if it asks for that, for as long as the loop turns.
  explicit Systemd(EventLoop& loop);
  ~Systemd();  // tells that the daemon stops
  void ready() const;

 private:
  std::unique_ptr<Timer> watchdog_;
};

}  // namespace Runtime
