// Io on the event loop.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "runtime/EventLoop.h"
#include "runtime/Io.h"
#include "runtime/Threads.h"

namespace Runtime {

// Loop and threads must outlive it. What is off the loop when it goes is left alone: its `done` is not
// called.
class UvIo final : public Io {
 public:
  // How long work waits when the system has no thread for it.
  static constexpr uint64_t kRetryMs = 500;

  UvIo(EventLoop& loop, Threads& threads);
  ~UvIo() override;
  std::unique_ptr<Activity> watch(const std::string& path, std::function<void()> changed) override;
  std::unique_ptr<Activity> after(uint64_t milliseconds, std::function<void()> elapsed) override;
  std::unique_ptr<Waker> waker(std::function<void()> woken) override;
  void offLoop(std::function<void()> work, std::function<void()> done) override;

 private:
  // Where threads leave word that their work is done. Outlives the UvIo while there are such threads.
  struct Returned {
    std::mutex mutex;
    std::vector<uint64_t> jobs;
    uv_async_t* wake = nullptr;  // null once nobody listens
  };

  void startWaiting();
  void finishReturned();

  EventLoop& loop_;
  Threads& threads_;
  uint64_t lastJob_ = 0;
  std::map<uint64_t, std::function<void()>> done_;                  // of the jobs that are not finished
  std::deque<std::pair<uint64_t, std::function<void()>>> waiting_;  // work that has no thread yet
  std::unique_ptr<Activity> retry_;
  std::shared_ptr<Returned> returned_ = std::make_shared<Returned>();
  UvHandle<uv_async_t> wake_;
};

}  // namespace Runtime
