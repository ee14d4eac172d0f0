// The process's event loop, a libuv loop, and what runs on it: timers, signals, readable descriptors.
// Everything of the daemon runs on the thread that calls run().
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
  // Throws std::runtime_error, in one line, when the system refuses what it takes.
  EventLoop();
  // Closes the loop. Requires: whatever uses the loop is gone.
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

// Calls back once, or again and again, on the loop.
class Timer {
 public:
  Timer(EventLoop& loop, std::function<void()> elapsed);
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

// Calls back whenever there is something to be read from a file descriptor, which outlives this.
class ReadWatch {
 public:
  ReadWatch(EventLoop& loop, int fd, std::function<void()> readable);

 private:
  std::function<void()> readable_;
  UvHandle<uv_poll_t> poll_;
};

// From now on the signal does not end the process, it waits for a HeldSignalWatch. For main(), before there
// are threads.
void holdSignal(int signal);

// Calls back when the process gets a signal that is held, also when it got it before this was there. However
// a process starts and ends, it is not killed by what it is only asked in between.
class HeldSignalWatch {
 public:
  HeldSignalWatch(EventLoop& loop, int signal, std::function<void()> received);

 private:
  void readable();

  std::function<void()> received_;
  Descriptor signals_;
  ReadWatch watch_;
};

// Calls back in every turn of the loop, after I/O.
class TurnWatch {
 public:
  TurnWatch(EventLoop& loop, std::function<void()> turned);
  void stop() { uv_check_stop(check_.get()); }

 private:
  std::function<void()> turned_;
  UvHandle<uv_check_t> check_;
};

}  // namespace Runtime
