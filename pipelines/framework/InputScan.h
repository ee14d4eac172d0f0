// The scan of one input collection, in runs that end when the scheduler asks to yield and resume at a
// bookmark.
#pragma once

#include "pipelines/framework/Machine.h"

namespace TrelSnmp::Agent {

// The parts of a run's end that do not depend on the type of key.
void scanYields(const Machine& machine, size_t stream, uint64_t iterations, size_t total);
ScanState scanEnds(const Machine& machine);

template <class Key>
class InputScan {
 public:
  ScanState state() const { return state_; }
  const Key& bookmark() const { return bookmark_; }

  // Calls step(cursor) for each element from the bookmark, or the beginning, until the scheduler asks the
  // stream's task to yield; at least one element in each run. A step that returns false ends the run and is
  // repeated by the next one. True when the scan is complete.
  template <class Collection, class StepFunction>
  bool run(const Machine& machine, size_t stream, const Collection& collection, StepFunction step) {
    if (completeFor(state_, machine.root().initialScanDone())) return true;
    auto at = state_ == ScanState::underWay ? collection.from(bookmark_) : collection.begin();
    uint64_t iterations = 0;
    while (at) {
      bool done = step(at);
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

  // The next run starts from the beginning.
  void again() { state_ = ScanState::notStarted; }

  // Moves the bookmark of a scan under way back to the key, if the scan has passed it.
  void revisit(const Key& key) {
    if (state_ == ScanState::underWay && key < bookmark_) bookmark_ = key;
  }

 private:
  ScanState state_ = ScanState::notStarted;
  Key bookmark_{};
};

}  // namespace TrelSnmp::Agent
