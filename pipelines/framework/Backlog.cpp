#include "pipelines/framework/Backlog.h"

#include "pipelines/framework/Names.h"

namespace TrelSnmp::Agent {

BacklogBase::BacklogBase(Pipeline& root, std::string stream, size_t number,
                         std::function<void()> allProcessed)
    : root_(root),
      stream_(std::move(stream)),
      allProcessed_(std::move(allProcessed)),
      name_(stream_ + "Codef"),
      number_(number) {
  root_.backlogs_.push_back(this);
}

BacklogBase::~BacklogBase() {
  if (task_) task_->cancel();
}

void BacklogBase::start() {
  generation_ = state().addNumber(name_ + "Generation");
  doneGen_ = state().addNumber(name_ + "DoneGen");
  idle_ = state().addFlag(stream_ + "Idle");
  task_ = root_.newTask(root_.name() + "-" + stream_ + "Task", [this] { processKeys(); });
}

void BacklogBase::resume() {
  if (!task_) {
    while (size() != 0) processNext();
    idleIs(true);
    return;
  }
  // Also without keys: the last run, which would have set idle and the generation, may not have come.
  if (!caughtUp()) task_->scheduleTask();
}

void BacklogBase::handleInputReady() {
  if (!root_.initialized() || !root_.streamScanned(number_)) return;
  const Lumalog::Handle& trace = root_.traceHandle();
  trace.trace(9, "handle{}InputReady", capitalised(name_));
  trace.trace(9, "Inputs for {} ready", name_);
  if (!root_.initialScanDone()) {
    root_.handleInitialScanDone();
    return;
  }
  state().set(doneGen_, generation() + 2);
  if (task_) {
    task_->scheduleTask();
  } else {
    state().set(generation_, generation() + 2);
    if (size() == 0) idleIs(true);
  }
}

void BacklogBase::scheduleWork() {
  idleIs(false);
  if (task_ && !root_.paused()) task_->scheduleTask();
}

void BacklogBase::processKeys() {
  if (root_.paused()) return;
  uint64_t handled = 0;
  while (size() != 0) {
    processNext();
    ++handled;
    if (size() != 0 && task_->taskShouldYield()) break;
  }
  task_->taskWorkCountInc(handled);
  task_->taskWorkPendingIs(size());
  if (size() != 0) {
    task_->scheduleTask();
    return;
  }
  idleIs(true);
  state().set(generation_, doneGen());
  root_.handleOutputs();
}

void BacklogBase::idleIs(bool idle) {
  if (idle) allProcessed_();
  if (state().set(idle_, idle)) root_.updateIdle();
}

}  // namespace TrelSnmp::Agent
