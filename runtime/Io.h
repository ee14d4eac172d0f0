// What sources need of the outside besides the files themselves: to be told that a file may have changed, to
// be called later, and to have work done off the event loop's thread. The host implements it on its loop;
// tests drive it by hand.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Runtime {

class Io {
 public:
  // Something that goes on until it is destroyed; its callback is not called any more then. It may be
  // destroyed from within the callback.
  class Activity {
   public:
    virtual ~Activity() = default;
  };

  // Through which another thread gets the loop's attention.
  class Waker : public Activity {
   public:
    // On any thread, as long as the waker is there. Several wakes may come to one call.
    virtual void wake() = 0;
  };

  virtual ~Io() = default;
  // Calls `woken` on the loop's thread after each wake().
  virtual std::unique_ptr<Waker> waker(std::function<void()> woken) = 0;
  // Calls `changed` once the file is being watched, and then whenever it may have appeared, changed, been
  // replaced or vanished; calls without a change are allowed. What is read after a call is no older than it.
  virtual std::unique_ptr<Activity> watch(const std::string& path, std::function<void()> changed) = 0;
  // Calls `elapsed` once.
  virtual std::unique_ptr<Activity> after(uint64_t milliseconds, std::function<void()> elapsed) = 0;
  // Runs `work` on another thread, then `done` on the loop's. Cannot be called off. Work that hangs keeps no
  // other work waiting; at the end of the process it is left where it is, so it must use nothing but what it
  // owns.
  virtual void offLoop(std::function<void()> work, std::function<void()> done) = 0;
};

}  // namespace Runtime
