// Turns an event loop until something has happened.
#pragma once

#include "runtime/EventLoop.h"
#include "tests/support/WaitUntil.h"

namespace Runtime {

// Whether the condition came true before the deadline. It is looked at in each turn.
template <class Condition>
bool turnUntil(EventLoop& loop, Condition condition) {
  constexpr int kTurnsWithoutPause = 1000;
  return Support::waitUntil([&] {
    for (int i = 0; i < kTurnsWithoutPause; ++i) {
      if (condition()) return true;
      uv_run(loop.uv(), UV_RUN_NOWAIT);
    }
    return false;
  });
}

}  // namespace Runtime
