// Work off the event loop's thread. Each piece of work has a thread of its own: work that hangs, as on a
// network file system whose server is gone, keeps nothing else waiting, nor the end of the process for long.
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
  // Runs the work. False when the system has no thread left; then the work was not touched.
  virtual bool run(const std::function<void()>& work);
  // Whether work is under way. While it is, a process must not end by returning from main(), which would take
  // static objects from under it.
  bool busy() const { return busyFor(std::chrono::milliseconds(0)); }
  // The same after such a time, or false as soon as the last work is done.
  bool busyFor(std::chrono::milliseconds time) const;
  // What main() is to return, once the work under way has come to its end. Work that hangs does not hold up
  // the end for long: the process ends here then.
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
