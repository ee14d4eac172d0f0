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

// Loop and threads outlive this. Work that is running when this is destroyed goes on, but its `done` is not
// called.
class UvIo final : public Io {
 public:
  // After this time, work for which the system had no thread is tried again.
  static constexpr uint64_t kRetryMs = 500;

  UvIo(EventLoop& loop, Threads& threads);
  ~UvIo() override;
  std::unique_ptr<Activity> watch(const std::string& path, std::function<void()> changed) override;
  std::unique_ptr<Activity> after(uint64_t milliseconds, std::function<void()> elapsed) override;
  std::unique_ptr<Waker> waker(std::function<void()> woken) override;
  void offLoop(std::function<void()> work, std::function<void()> done) override;

 private:
  // Where threads note that their work is done. Shared with them, as they may outlive the UvIo.
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
  std::map<uint64_t, std::function<void()>> done_;                  // by job, until it is finished
  std::deque<std::pair<uint64_t, std::function<void()>>> waiting_;  // work that has no thread yet
  std::unique_ptr<Activity> retry_;
  std::shared_ptr<Returned> returned_ = std::make_shared<Returned>();
  UvHandle<uv_async_t> wake_;
};

}  // namespace Runtime
