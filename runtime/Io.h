// What code on an event loop asks of it: watch a file, call later, run work on another thread. UvIo is the
// implementation; tests drive tests/runtime/ManualIo.h by hand.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Runtime {

class Io {
 public:
  // Goes on until it is destroyed; after that its callback is not called. The callback may destroy it.
  class Activity {
   public:
    virtual ~Activity() = default;
  };

  // Lets another thread wake the loop.
  class Waker : public Activity {
   public:
    // For any thread, as long as the waker exists. Several wakes may become one call.
    virtual void wake() = 0;
  };

  virtual ~Io() = default;
  // Calls `woken` on the loop's thread after each wake().
  virtual std::unique_ptr<Waker> waker(std::function<void()> woken) = 0;
  // Calls `changed` once the file is watched, and then whenever it may have appeared, changed, been replaced
  // or vanished; also without a change. A change after the file was read leads to another call.
  virtual std::unique_ptr<Activity> watch(const std::string& path, std::function<void()> changed) = 0;
  // Calls `elapsed` once.
  virtual std::unique_ptr<Activity> after(uint64_t milliseconds, std::function<void()> elapsed) = 0;
  // Runs `work` on another thread, then `done` on the loop's. Cannot be cancelled. Work that hangs delays no
  // other work. It may still run when the process ends, so it must use only what it owns.
  virtual void offLoop(std::function<void()> work, std::function<void()> done) = 0;
};

}  // namespace Runtime
