// The library's tasks on a daemon's event loop.
#pragma once

#include <uv.h>

#include "platform/vem/Vem.h"
#include "runtime/EventLoop.h"
#include "runtime/UvHandle.h"

namespace Host {

// Runs one slice of one task in each turn of the loop, so that requests are served in between. The loop
// sleeps while no task is runnable.
class TaskRunner {
 public:
  TaskRunner(Runtime::EventLoop& loop, Zavro::Ptr<Vem::TaskScheduler> scheduler);
  ~TaskRunner();

 private:
  void runSlice();

  Zavro::Ptr<Vem::TaskScheduler> scheduler_;
  Runtime::UvHandle<uv_idle_t> idle_;
};

}  // namespace Host
