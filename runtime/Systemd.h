// Notifies systemd when it started the daemon with Type=notify; otherwise nothing happens.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "runtime/EventLoop.h"

namespace Runtime {

class Systemd {
 public:
  // Keeps systemd's watchdog content, if it is set, as long as the loop turns and `alive`, asked each time,
  // says that the other threads do their work, too.
  Systemd(EventLoop& loop, std::function<bool()> alive);
  // Says that the daemon stops.
  ~Systemd();
  void ready() const;
  // Sets the line that `systemctl status` shows.
  void statusIs(const std::string& line) const;

 private:
  std::unique_ptr<Timer> watchdog_;
};

}  // namespace Runtime
