// What a daemon does when the process gets SIGHUP: it reads its configuration again. For the loop's thread.
// Requires: main() holds SIGHUP.
#pragma once

#include <csignal>
#include <functional>
#include <utility>

#include "runtime/EventLoop.h"
#include "runtime/OffLoop.h"

namespace Runtime {

template <class Config>
class Reload final {
 public:
  // At each signal calls `read` on a thread, as the file may be on a file system that hangs, and then `take`
  // on the loop. Of signals that come meanwhile, one more reading takes care. Loop and io outlive this.
  Reload(EventLoop& loop, Io& io, std::function<Config()> read, std::function<void(const Config&)> take)
      : read_(std::move(read)),
        take_(std::move(take)),
        offLoop_(io),
        hangup_(loop, SIGHUP, [this] { asked(); }) {}

 private:
  void asked() {
    again_ = reading_;
    if (std::exchange(reading_, true)) return;
    offLoop_.run(read_, [this](const Config& config) {
      reading_ = false;
      if (again_) return asked();
      take_(config);
    });
  }

  std::function<Config()> read_;
  std::function<void(const Config&)> take_;
  bool reading_ = false;
  bool again_ = false;
  OffLoop offLoop_;
  HeldSignalWatch hangup_;
};

}  // namespace Runtime
