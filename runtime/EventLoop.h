// A process's event loop, a libuv loop, and what calls back on it: timers, signals, readable descriptors. All
// callbacks come on the thread that calls run(). A watch calls back as long as it lives; the loop outlives
// it.
#pragma once

#include <uv.h>

#include <functional>
#include <memory>
#include <vector>

#include "runtime/File.h"
#include "runtime/UvHandle.h"

namespace Runtime {

class EventLoop {
 public:
  // Throws std::runtime_error, in one line, when the system has no descriptors for it.
  EventLoop();
  // Requires: all that uses the loop is gone; aborts otherwise.
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  uv_loop_t* uv() { return &loop_; }
  // Returns after stop().
  void run() { uv_run(&loop_, UV_RUN_DEFAULT); }
  void stop() { uv_stop(&loop_); }

 private:
  uv_loop_t loop_;
};

class Timer {
 public:
  Timer(EventLoop& loop, std::function<void()> elapsed);
  // Calls back after that time, and then at every repetition; 0: only once. A second start() replaces the
  // first.
  void start(uint64_t milliseconds, uint64_t repeatMilliseconds = 0);
  void stop();

 private:
  std::function<void()> elapsed_;
  UvHandle<uv_timer_t> timer_;
};

// Calls back when the process gets the signal.
class SignalWatch {
 public:
  SignalWatch(EventLoop& loop, int signal, std::function<void()> received);

 private:
  std::function<void()> received_;
  UvHandle<uv_signal_t> signal_;
};

// Calls back while the descriptor, which outlives this, is readable or has an error.
class ReadWatch {
 public:
  ReadWatch(EventLoop& loop, int fd, std::function<void()> readable);

 private:
  std::function<void()> readable_;
  UvHandle<uv_poll_t> poll_;
};

// From now on the signal does not end the process but waits for a HeldSignalWatch. To be called in main()
// before there are threads, which inherit this.
void holdSignal(int signal);

// Calls back when the process gets a signal that holdSignal() holds, also for one that came before this was
// there. So a SIGHUP while the process starts or ends does not kill it.
class HeldSignalWatch {
 public:
  HeldSignalWatch(EventLoop& loop, int signal, std::function<void()> received);

 private:
  void readable();

  std::function<void()> received_;
  Descriptor signals_;
  ReadWatch watch_;
};

// Calls back in every turn of the loop, after what runs in it and before the loop waits for I/O: nothing that
// happened goes unnoticed while it waits.
class TurnWatch {
 public:
  TurnWatch(EventLoop& loop, std::function<void()> turned);
  void stop() { uv_prepare_stop(prepare_.get()); }

 private:
  std::function<void()> turned_;
  UvHandle<uv_prepare_t> prepare_;
};

}  // namespace Runtime
