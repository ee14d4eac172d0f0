#include "runtime/Threads.h"

#include <unistd.h>

#include <system_error>
#include <thread>

namespace Runtime {
namespace {

constexpr std::chrono::milliseconds kEndingPatience(500);

}  // namespace

bool Threads::run(const std::function<void()>& work) {
  underWay_->begins();
  try {
    std::thread([own = std::function(work), underWay = underWay_]() mutable {
      own();
      own = {};
      underWay->ends();
    }).detach();
  } catch (const std::system_error&) {
    underWay_->ends();
    return false;
  }
  return true;
}

bool Threads::busyFor(std::chrono::milliseconds time) const {
  std::unique_lock lock(underWay_->mutex);
  return !underWay_->none.wait_for(lock, time, [this] { return underWay_->count == 0; });
}

int Threads::exitStatus(int status) const {
  if (busyFor(kEndingPatience)) _exit(status);
  return status;
}

void Threads::UnderWay::begins() {
  std::lock_guard lock(mutex);
  ++count;
}

void Threads::UnderWay::ends() {
  std::lock_guard lock(mutex);
  if (--count == 0) none.notify_all();
}

}  // namespace Runtime
