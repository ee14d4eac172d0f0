#include "runtime/Systemd.h"

#include <systemd/sd-daemon.h>

#include <utility>

#include "runtime/Text.h"

namespace Runtime {

Systemd::Systemd(EventLoop& loop, std::function<bool()> alive) {
  uint64_t microseconds = 0;
  if (sd_watchdog_enabled(/*unset_environment=*/0, &microseconds) <= 0) return;
  watchdog_ = std::make_unique<Timer>(loop, [alive = std::move(alive)] {
    if (alive()) sd_notify(0, "WATCHDOG=1");
  });
  uint64_t interval = microseconds / 1000 / 2;
  watchdog_->start(0, interval == 0 ? 1 : interval);
}

Systemd::~Systemd() { sd_notify(0, "STOPPING=1"); }

void Systemd::ready() const { sd_notify(0, "READY=1"); }

void Systemd::statusIs(const std::string& line) const {
  // Escaped, as a newline would begin another assignment.
  sd_notify(0, ("STATUS=" + escaped(line)).c_str());
}

}  // namespace Runtime
