// The scan of one input collection, in runs that end when the scheduler says so and resume at a bookmark.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "framework/Pipeline.h"

namespace TrelSnmp::Agent {

enum class ScanState : uint8_t {
  notStarted = 0,
  underWay = 1,  // the next run resumes at the bookmark
  complete = 2,
  completeInitial = 3,  // complete as long as the pipeline's initial scan is not done; then scanned again
};

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
  bool completeFor(bool initialScanDone) const {
    return state_ == ScanState::complete || (state_ == ScanState::completeInitial && !initialScanDone);
  }

  // Runs step(key) for the elements from the bookmark or the start on, at least one, until the scheduler
  // wants the thread back. A step that is unfinished is taken again by the next run. True when the scan is
  // complete.
  template <class Collection, class StepFunction>
  bool run(const ScanContext& context, const Collection& collection, StepFunction step) {
    if (completeFor(context.root.initialScanDone())) return true;
    if (current_) return false;  // a run is under way further up the stack
    auto at = state_ == ScanState::underWay ? collection.from(bookmark_) : collection.begin();
    uint64_t iterations = 0;
    while (at) {
      current_ = at.key();
      Step result = step(at.key());
      current_.reset();
      if (result == Step::gone) return false;
      ++iterations;
      bool yields = result == Step::unfinished || context.shouldYield();
      if (result == Step::done) at.next();
      if (revisit_ && (!at || *revisit_ < at.key())) at = collection.from(*revisit_);
      revisit_.reset();
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

  // An element that was scanned already, or is being scanned, has to be scanned again.
  void revisit(const Key& key) {
    if (current_) {
      if (!(*current_ < key)) revisit_ = revisit_ ? std::min(*revisit_, key) : key;
    } else if (state_ == ScanState::underWay && key < bookmark_) {
      bookmark_ = key;
    }
  }

 private:
  ScanState state_ = ScanState::notStarted;
  Key bookmark_{};
  std::optional<Key> current_;  // the element that a step is handling
  std::optional<Key> revisit_;  // the first element to go back to
};

}  // namespace TrelSnmp::Agent
