// What systemd is told, when the daemon runs under it (Type=notify); nothing happens otherwise.
#pragma once

#include <memory>
#include <string>

#include "runtime/EventLoop.h"

namespace Runtime {

class Systemd {
 public:
  // Feeds systemd's watchdog, if it asks for that, for as long as the loop turns.
  explicit Systemd(EventLoop& loop);
  ~Systemd();  // tells that the daemon stops
  void ready() const;
  // Shows one line, until another is shown, beside the daemon's name (systemctl status).
  void statusIs(const std::string& line) const;

 private:
  std::unique_ptr<Timer> watchdog_;
};

}  // namespace Runtime
