#include "pipelines/framework/Output.h"

#include <algorithm>

namespace TrelSnmp::Agent {

OutputBase::OutputBase(Pipeline& root, std::string name, std::vector<size_t> inputs)
    : root_(root), name_(std::move(name)), inputs_(std::move(inputs)) {
  root_.outputs_.push_back(this);
}

OutputBase::~OutputBase() {
  if (task_) task_->cancel();
}

void OutputBase::start() {
  readyFlag_ = root_.outputState().addFlag(name_ + "Ready");
  makeTask();
}

void OutputBase::makeTask() {
  task_ = root_.newTask(root_.name() + "-" + name_ + "Task", [this] { handleInputReady(); });
}

void OutputBase::verifyRows() {
  if (!task_) makeTask();
  useBookmark_ = false;
  forgetSeen();
  noteStaleRows();
  root_.outputState().set(readyFlag_, false);
}

void OutputBase::noteStaleRows() {
  reconciling_ = !tableEmpty();
  trace().trace(9, "Reconciling {}: {:}", name_, reconciling_);
}

void OutputBase::stop() {
  if (reconciling_ && root_.ownsRows()) deleteUnseen();
  reconciling_ = false;
}

bool OutputBase::inputsScanned() const {
  return std::all_of(inputs_.begin(), inputs_.end(),
                     [&](size_t stream) { return root_.streamReady(stream); });
}

void OutputBase::handleInputReady() {
  if (!root_.initialized() || root_.paused()) return;
  if (ready()) {
    trace().trace(9, " already ready, not reconciling.");
    return;
  }
  if (!inputsScanned()) return;
  if (!root_.initialScanDone()) {
    root_.handleInitialScanDone();
    return;
  }
  trace().trace(9, "Input scans for {} complete", name_);
  if (reconciling_ && !deletionScan()) return;
  reconciling_ = false;
  forgetSeen();
  root_.outputState().set(readyFlag_, true);
  root_.updateReady();
}

bool OutputBase::shouldYieldBeforeRow(uint64_t items) const {
  if (root_.synchronous() || items == 0 || !task_) return false;
  return !task_->taskCurrentlyRunning() || task_->taskShouldYield();
}

void OutputBase::deletionScanYields(uint64_t items, uint64_t deletions) {
  useBookmark_ = true;
  trace().trace(9,
                "Yielding in reconciliation processing after processing {} items, including {} deletions .",
                items, deletions);
  task_->taskWorkCountInc(items);
  task_->scheduleTask();
}

void OutputBase::deletionScanEnds(uint64_t items, uint64_t deletions) {
  trace().trace(
      9, "Deletion scan for reconciliation is done, last task run processed {} items, deleting {} items.",
      items, deletions);
  useBookmark_ = false;
  if (!task_) return;
  task_->taskWorkCountInc(items);
  task_->cancel();
  task_.reset();
}

}  // namespace TrelSnmp::Agent
