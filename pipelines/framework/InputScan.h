// The scan of one input collection, in runs that end when the scheduler says so and resume at a bookmark.
#pragma once

#include <absl/cleanup/cleanup.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>

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
  enum class Step { done, unfinished, gone };  // gone: the machine was ended by what the step did

  ScanState state() const { return state_; }
  const Key& bookmark() const { return bookmark_; }

  // Runs step(key) for the elements from the bookmark or the start on, at least one, until the scheduler
  // wants the thread back or the pipeline is paused. A step that is unfinished is taken again by the next
  // run. True when the scan is complete.
  template <class Collection, class StepFunction>
  bool run(const ScanContext& context, const Collection& collection, StepFunction step) {
    if (completeFor(state_, context.root.initialScanDone())) return true;
    if (current_) return false;  // a run is under way further up the stack
    auto at = state_ == ScanState::underWay ? collection.from(bookmark_) : collection.begin();
    uint64_t iterations = 0;
    while (at) {
      Step result = stepAt(at.key(), step);
      if (result == Step::gone) return false;
      ++iterations;
      bool yields = result == Step::unfinished || context.shouldYield();
      if (result == Step::done) at.next();
      if (revisit_ && (!at || *revisit_ < at.key())) at = collection.from(*revisit_);
      revisit_.reset();
      bool pauses = context.root.paused();
      if ((yields || pauses) && at) {
        state_ = ScanState::underWay;
        bookmark_ = at.key();
        if (!pauses) traceScanYields(context, iterations);
        return false;
      }
    }
    state_ = scanCompleted(context);
    return true;
  }

  // An element that was scanned already, or is being scanned, has to be scanned again.
  void revisit(const Key& key) {
    if (current_) {
      if (!(*current_ < key)) revisit_ = revisit_ ? std::min(*revisit_, key) : key;
    } else if (state_ == ScanState::underWay && key < bookmark_) {
      bookmark_ = key;
    }
  }

 private:
  // Also when the step throws, it is over afterwards.
  template <class StepFunction>
  Step stepAt(const Key& key, StepFunction& step) {
    current_ = key;
    absl::Cleanup over = [this] { current_.reset(); };
    return step(key);
  }

  ScanState state_ = ScanState::notStarted;
  Key bookmark_{};
  std::optional<Key> current_;  // the element that a step is handling
  std::optional<Key> revisit_;  // the first element to go back to
};

}  // namespace TrelSnmp::Agent
