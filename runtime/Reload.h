// What a daemon does at SIGHUP: reopen its log and read its configuration again. For the loop's thread.
// Requires: main() has called holdSignal(SIGHUP).
#pragma once

#include <csignal>
#include <functional>
#include <memory>
#include <utility>

#include "runtime/EventLoop.h"
#include "runtime/OffLoop.h"

namespace Runtime {

template <class Config>
class Reload final {
 public:
  // How long a reading may take before `waits` is called.
  static constexpr uint64_t kPatienceMs = 2000;

  struct Steps {
    std::function<void()> asked;   // at each signal, at once
    std::function<Config()> read;  // on a thread, as the file may be on a file system that hangs
    std::function<void()> waits;   // a reading takes longer than kPatienceMs
    std::function<void(const Config&)> configured;  // with what was read
  };

  // All steps but `read` are called on the loop. A signal during a reading leads to one more reading after
  // it, and to one more call of `waits` if that had been called. Loop and io outlive this.
  Reload(EventLoop& loop, Io& io, Steps steps)
      : io_(io), steps_(std::move(steps)), offLoop_(io), hangup_(loop, SIGHUP, [this] { asked(); }) {}

 private:
  void asked() {
    steps_.asked();
    again_ = reading_;
    bePatient();
    if (!reading_) read();
  }

  void bePatient() {
    if (patience_) return;
    patience_ = io_.after(kPatienceMs, [this] {
      patience_.reset();
      steps_.waits();
    });
  }

  void read() {
    reading_ = true;
    offLoop_.run(steps_.read, [this](const Config& config) { answered(config); });
  }

  // Configures also when another signal came meanwhile. Otherwise frequent signals would prevent it for ever.
  void answered(const Config& config) {
    reading_ = false;
    patience_.reset();
    steps_.configured(config);
    if (!std::exchange(again_, false)) return;
    bePatient();
    read();
  }

  Io& io_;
  Steps steps_;
  bool reading_ = false;
  bool again_ = false;
  std::unique_ptr<Io::Activity> patience_;
  OffLoop offLoop_;
  HeldSignalWatch hangup_;
};

}  // namespace Runtime
