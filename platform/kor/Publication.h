// A scope during which a change is published and nothing may change: a subscriber reads, notes what there is
// to do, and schedules a task for it. Changing the published object, or what it was derived from, ends the
// process.
#pragma once

#include "platform/zavro/Assert.h"

namespace Kor {

class Publication {
 public:
  // The publication lasts as long as this object. They do not nest.
  Publication() {
    expectNone();
    underWay_ = true;
  }
  ~Publication() { underWay_ = false; }
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;

  // Called first by every function that changes something: ends the process during a publication.
  static void expectNone() { zavroAssert(!underWay_ && "changed during publication"); }

 private:
  static bool underWay_;
};

}  // namespace Kor
