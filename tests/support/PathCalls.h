// The system calls of one thread that look something up in the file system, while the thread runs.
#pragma once

#include <sys/types.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

namespace Support {

// Traces the first thread of a process that the test has started, without its other threads.
class PathCalls final {
 public:
  // Throws std::runtime_error when the system does not allow it.
  explicit PathCalls(pid_t process);
  ~PathCalls();
  PathCalls(const PathCalls&) = delete;
  PathCalls& operator=(const PathCalls&) = delete;

  // Ends the tracing, unless the thread has ended already; what was seen, as "open /etc/hosts".
  std::vector<std::string> end();
  // How many system calls there were; after end().
  size_t all() const { return all_; }

 private:
  void trace(std::promise<std::string> begun);
  bool next(int& signal);
  void note();

  pid_t thread_;
  size_t all_ = 0;
  std::vector<std::string> seen_;
  std::thread tracer_;  // the only thread that may ask
};

}  // namespace Support
