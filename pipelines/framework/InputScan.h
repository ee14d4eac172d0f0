// The scan of one input collection, in runs that end when the scheduler says so and resume at a bookmark.
#pragma once

#include <functional>
#include <string>

#include "pipelines/framework/Pipeline.h"

namespace TrelSnmp::Agent {

enum class ScanState : uint8_t {
  notStarted = 0,
  underWay = 1,  // the next run resumes at the bookmark
  complete = 2,
  completeInitial = 3,  // complete as long as the pipeline's initial scan is not done; then scanned again
};

// Whether a scan in this state has nothing to do, now that the pipeline's initial scan is done or not.
inline bool completeFor(ScanState state, bool initialScanDone) {
  return state == ScanState::complete || (state == ScanState::completeInitial && !initialScanDone);
}

// What a scan needs of the machine that it belongs to.
struct ScanContext {
  Pipeline& root;
  const std::string& machine;       // the machine's name, for traces
  Zavro::Ptr<Vem::Task> task;       // null: the scan never yields
  std::function<size_t()> pending;  // items that the task is told are pending

  bool shouldYield() const { return !root.synchronous() && task && task->taskShouldYield(); }
};

// The parts of a scan's end that do not depend on the kind of key.
void traceScanYields(const ScanContext& context, uint64_t iterations);
ScanState scanCompleted(const ScanContext& context);

template <class Key>
class InputScan {
 public:
  ScanState state() const { return state_; }
  const Key& bookmark() const { return bookmark_; }

  // Runs step(key) for the elements from the bookmark or the start on, at least one, until the scheduler
  // wants the thread back. A step that returns false is taken again by the next run. True when the scan is
  // complete.
  template <class Collection, class StepFunction>
  bool run(const ScanContext& context, const Collection& collection, StepFunction step) {
    if (completeFor(state_, context.root.initialScanDone())) return true;
    auto at = state_ == ScanState::underWay ? collection.from(bookmark_) : collection.begin();
    uint64_t iterations = 0;
    while (at) {
      bool done = step(at.key());
      ++iterations;
      bool yields = !done || context.shouldYield();
      if (done) at.next();
      if (yields && at) {
        state_ = ScanState::underWay;
        bookmark_ = at.key();
        traceScanYields(context, iterations);
        return false;
      }
    }
    state_ = scanCompleted(context);
    return true;
  }

  // An element that was scanned already has to be scanned again.
  void revisit(const Key& key) {
    if (state_ == ScanState::underWay && key < bookmark_) bookmark_ = key;
  }

 private:
  ScanState state_ = ScanState::notStarted;
  Key bookmark_{};
};

}  // namespace TrelSnmp::Agent
