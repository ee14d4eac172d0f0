#include "host/TaskRunner.h"

namespace Host {

TaskRunner::TaskRunner(Runtime::EventLoop& loop, Zavro::Ptr<Vem::TaskScheduler> scheduler)
    : scheduler_(std::move(scheduler)),
      idle_([&](uv_idle_t* idle) { return uv_idle_init(loop.uv(), idle); }) {
  idle_->data = this;
  auto start = [this] {
    uv_idle_start(idle_.get(), [](uv_idle_t* idle) { static_cast<TaskRunner*>(idle->data)->runSlice(); });
  };
  scheduler_->onRunnable(start);
  if (scheduler_->runnable()) start();
}

TaskRunner::~TaskRunner() { scheduler_->onRunnable({}); }

void TaskRunner::runSlice() {
  scheduler_->runOne();
  if (!scheduler_->runnable()) uv_idle_stop(idle_.get());
}

}  // namespace Host
