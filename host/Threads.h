// Work off the event loop's thread. Each piece of work has a thread of its own: work that hangs, as on a
// network file system whose server is gone, keeps nothing else waiting, not even the end of the process.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>

namespace Host {

class Threads {
 public:
  virtual ~Threads() = default;
  // Runs the work. False when the system has no thread left; then the work was not touched.
  virtual bool run(const std::function<void()>& work);
  // Whether work is under way. While it is, a process must not end by returning from main(), which would take
  // static objects from under it.
  bool busy() const { return *underWay_ != 0; }

 private:
  std::shared_ptr<std::atomic<size_t>> underWay_ = std::make_shared<std::atomic<size_t>>(0);
};

}  // namespace Host
