#include "Threads.h"

#include <system_error>
#include <thread>

namespace Host {

bool Threads::run(const std::function<void()>& work) {
  ++*underWay_;
  try {
    std::thread([own = std::function(work), underWay = underWay_]() mutable {
      own();
      own = {};
      --*underWay;
    }).detach();
  } catch (const std::system_error&) {
    --*underWay_;
    return false;
  }
  return true;
}

}  // namespace Host
