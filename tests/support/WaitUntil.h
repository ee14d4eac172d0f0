// Waiting for a condition that another process or thread brings about.
#pragma once

#include <chrono>
#include <thread>

namespace Support {

using namespace std::chrono_literals;
using Millis = std::chrono::milliseconds;

// True as soon as the condition holds, which is looked at every few milliseconds; false when it does not by
// the deadline.
template <class Condition>
bool waitUntil(Condition condition, Millis deadline = 10s) {
  auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

}  // namespace Support
