#include "runtime/EventLoop.h"

#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Runtime {
namespace {

sigset_t setOf(int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  return set;
}

Descriptor signalsOf(int signal) {
  sigset_t set = setOf(signal);
  Descriptor signals(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
  if (!signals.opened()) throw std::runtime_error(std::string("no event loop: ") + std::strerror(errno));
  return signals;
}

// With too few descriptors for the first loop, libuv aborts the process.
void needDescriptors() {
  std::array<Descriptor, 8> spare;
  for (Descriptor& one : spare) {
    one = Descriptor(eventfd(0, EFD_CLOEXEC));
    if (!one.opened()) throw std::runtime_error(std::string("no event loop: ") + std::strerror(errno));
  }
}

}  // namespace

EventLoop::EventLoop() {
  needDescriptors();
  int result = uv_loop_init(&loop_);
  if (result != 0) throw std::runtime_error(std::string("no event loop: ") + uv_strerror(result));
}

EventLoop::~EventLoop() {
  uv_run(&loop_, UV_RUN_DEFAULT);
  if (uv_loop_close(&loop_) == 0) return;
  std::fputs("EventLoop: destroyed while something still uses it\n", stderr);
  std::abort();
}

Timer::Timer(EventLoop& loop, std::function<void()> elapsed)
    : elapsed_(std::move(elapsed)),
      timer_([&](uv_timer_t* timer) { return uv_timer_init(loop.uv(), timer); }) {
  timer_->data = this;
}

void Timer::start(uint64_t milliseconds, uint64_t repeatMilliseconds) {
  auto elapsed = [](uv_timer_t* timer) { static_cast<Timer*>(timer->data)->elapsed_(); };
  uv_timer_start(timer_.get(), elapsed, milliseconds, repeatMilliseconds);
}

void Timer::stop() { uv_timer_stop(timer_.get()); }

SignalWatch::SignalWatch(EventLoop& loop, int signal, std::function<void()> received)
    : received_(std::move(received)),
      signal_([&](uv_signal_t* handle) { return uv_signal_init(loop.uv(), handle); }) {
  signal_->data = this;
  uv_signal_start(
      signal_.get(), [](uv_signal_t* handle, int) { static_cast<SignalWatch*>(handle->data)->received_(); },
      signal);
}

ReadWatch::ReadWatch(EventLoop& loop, int fd, std::function<void()> readable)
    : readable_(std::move(readable)),
      poll_([&](uv_poll_t* poll) { return uv_poll_init(loop.uv(), poll, fd); }) {
  poll_->data = this;
  // On an error it calls back, too: reading tells which.
  uv_poll_start(poll_.get(), UV_READABLE,
                [](uv_poll_t* poll, int, int) { static_cast<ReadWatch*>(poll->data)->readable_(); });
}

void holdSignal(int signal) {
  sigset_t set = setOf(signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // Whoever started the process may have had the signal ignored; then it would not even be pending.
  std::signal(signal, SIG_DFL);
}

HeldSignalWatch::HeldSignalWatch(EventLoop& loop, int signal, std::function<void()> received)
    : received_(std::move(received)),
      signals_(signalsOf(signal)),
      watch_(loop, signals_.get(), [this] { readable(); }) {}

void HeldSignalWatch::readable() {
  signalfd_siginfo taken{};
  if (read(signals_.get(), &taken, sizeof taken) == sizeof taken) received_();
}

TurnWatch::TurnWatch(EventLoop& loop, std::function<void()> turned)
    : turned_(std::move(turned)),
      prepare_([&](uv_prepare_t* prepare) { return uv_prepare_init(loop.uv(), prepare); }) {
  prepare_->data = this;
  uv_prepare_start(prepare_.get(),
                   [](uv_prepare_t* prepare) { static_cast<TurnWatch*>(prepare->data)->turned_(); });
}

}  // namespace Runtime
