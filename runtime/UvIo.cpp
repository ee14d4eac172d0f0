#include "runtime/UvIo.h"

#include "runtime/FileWatch.h"

namespace Runtime {
namespace {

// Copies the callback, as it may destroy the activity.
class OneShot final : public Io::Activity {
 public:
  OneShot(EventLoop& loop, uint64_t milliseconds, std::function<void()> elapsed)
      : timer_(loop, [elapsed = std::move(elapsed)] {
          auto call = elapsed;
          call();
        }) {
    timer_.start(milliseconds);
  }

 private:
  Timer timer_;
};

class AsyncWaker final : public Io::Waker {
 public:
  AsyncWaker(EventLoop& loop, std::function<void()> woken)
      : woken_(std::move(woken)), async_([&](uv_async_t* async) {
          return uv_async_init(loop.uv(), async, [](uv_async_t* one) {
            auto call = static_cast<AsyncWaker*>(one->data)->woken_;
            call();
          });
        }) {
    async_->data = this;
  }
  void wake() override { uv_async_send(async_.get()); }

 private:
  std::function<void()> woken_;
  UvHandle<uv_async_t> async_;
};

}  // namespace

std::unique_ptr<Io::Waker> UvIo::waker(std::function<void()> woken) {
  return std::make_unique<AsyncWaker>(loop_, std::move(woken));
}

std::unique_ptr<Io::Activity> UvIo::watch(const std::string& path, std::function<void()> changed) {
  return std::make_unique<FileWatch>(loop_, *this, path, std::move(changed));
}

std::unique_ptr<Io::Activity> UvIo::after(uint64_t milliseconds, std::function<void()> elapsed) {
  return std::make_unique<OneShot>(loop_, milliseconds, std::move(elapsed));
}

UvIo::UvIo(EventLoop& loop, Threads& threads)
    : loop_(loop), threads_(threads), wake_([&](uv_async_t* async) {
        return uv_async_init(loop.uv(), async,
                             [](uv_async_t* woken) { static_cast<UvIo*>(woken->data)->finishReturned(); });
      }) {
  wake_->data = this;
  returned_->wake = wake_.get();
}

UvIo::~UvIo() {
  std::lock_guard lock(returned_->mutex);
  returned_->wake = nullptr;
}

void UvIo::offLoop(std::function<void()> work, std::function<void()> done) {
  done_.emplace(++lastJob_, std::move(done));
  waiting_.emplace_back(lastJob_, std::move(work));
  if (!retry_) startWaiting();
}

void UvIo::startWaiting() {
  retry_.reset();
  while (!waiting_.empty()) {
    // Under names of their own, as clang cannot capture structured bindings.
    const auto& [number, given] = waiting_.front();
    bool started = threads_.run([job = number, work = given, returned = returned_] {
      work();
      std::lock_guard lock(returned->mutex);
      returned->jobs.push_back(job);
      if (returned->wake != nullptr) uv_async_send(returned->wake);
    });
    if (!started) {
      retry_ = after(kRetryMs, [this] { startWaiting(); });
      return;
    }
    waiting_.pop_front();
  }
}

// Takes all jobs first: `done` may start further work, which is for the next turn.
void UvIo::finishReturned() {
  std::vector<uint64_t> jobs;
  {
    std::lock_guard lock(returned_->mutex);
    jobs.swap(returned_->jobs);
  }
  for (uint64_t job : jobs) done_.extract(job).mapped()();
}

}  // namespace Runtime
