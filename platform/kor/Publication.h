// The publication of a change that others only look at. Whoever hears of it reads, notes what there is to do
// and schedules it. Changing anything within it, be it what is published or what that was derived from, is a
// bug of whoever does it and ends the process.
#pragma once

#include "platform/zavro/Assert.h"

namespace Kor {

class Publication {
 public:
  // Begins one, which lasts as long as the object.
  Publication() {
    expectNone();
    underWay_ = true;
  }
  ~Publication() { underWay_ = false; }
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;

  // Said first by whatever changes.
  static void expectNone() { zavroAssert(!underWay_ && "changed during publication"); }

 private:
  static bool underWay_;
};

}  // namespace Kor
