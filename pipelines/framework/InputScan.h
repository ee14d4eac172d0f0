// The scan of one input collection, in runs that end when the scheduler says so and resume at a bookmark.
#pragma once

#include "pipelines/framework/Machine.h"

namespace TrelSnmp::Agent {

// What the end of a run does that does not depend on the kind of key.
void scanYields(const Machine& machine, size_t stream, uint64_t iterations, size_t total);
ScanState scanEnds(const Machine& machine);

template <class Key>
class InputScan {
 public:
  ScanState state() const { return state_; }
  const Key& bookmark() const { return bookmark_; }

  // Runs step(key) for the elements from the bookmark or the start on, at least one, until the scheduler
  // wants the thread back from the machine's stream. A step that returns false is taken again by the next
  // run. True when the scan is complete.
  template <class Collection, class StepFunction>
  bool run(const Machine& machine, size_t stream, const Collection& collection, StepFunction step) {
    if (completeFor(state_, machine.root().initialScanDone())) return true;
    auto at = state_ == ScanState::underWay ? collection.from(bookmark_) : collection.begin();
    uint64_t iterations = 0;
    while (at) {
      bool done = step(at.key());
      ++iterations;
      bool yields = !done || machine.shouldYield(stream);
      if (done) at.next();
      if (yields && at) {
        state_ = ScanState::underWay;
        bookmark_ = at.key();
        scanYields(machine, stream, iterations, collection.size());
        return false;
      }
    }
    state_ = scanEnds(machine);
    return true;
  }

  // The next run starts anew.
  void again() { state_ = ScanState::notStarted; }

  // An element that was scanned already has to be scanned again.
  void revisit(const Key& key) {
    if (state_ == ScanState::underWay && key < bookmark_) bookmark_ = key;
  }

 private:
  ScanState state_ = ScanState::notStarted;
  Key bookmark_{};
};

}  // namespace TrelSnmp::Agent
