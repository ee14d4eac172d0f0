// Work off the event loop's thread, each piece on a thread of its own. Work that hangs, as on a network file
// system without its server, delays no other work, and the end of the process by half a second at most.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>

namespace Runtime {

class Threads {
 public:
  virtual ~Threads() = default;
  // Starts a copy of the work. False when the system has no thread left.
  virtual bool run(const std::function<void()>& work);
  // Whether work is running. Then main() must not return, as that destroys static objects that it uses.
  bool busy() const { return busyFor(std::chrono::milliseconds(0)); }
  // Waits that long for the work to end; whether some is still running.
  bool busyFor(std::chrono::milliseconds time) const;
  // What main() is to return: waits for running work, and returns the status. If work hangs, ends the process
  // here with that status.
  int exitStatus(int status) const;

 private:
  struct UnderWay {
    std::mutex mutex;
    std::condition_variable none;
    size_t count = 0;

    void begins();
    void ends();
  };
  std::shared_ptr<UnderWay> underWay_ = std::make_shared<UnderWay>();
};

}  // namespace Runtime
