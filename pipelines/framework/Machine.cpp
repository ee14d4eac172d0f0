#include "pipelines/framework/Machine.h"

namespace TrelSnmp::Agent {

bool completeFor(ScanState state, bool initialScanDone) {
  return state == ScanState::complete || (state == ScanState::completeInitial && !initialScanDone);
}

Machine::Machine(Pipeline& root, std::string name) : root_(root), name_(std::move(name)), type_(name_) {}

void Machine::hasNotificationActiveIs(bool active) {
  if (active == active_) return;
  active_ = active;
  activeChanged();
}

void Machine::stop(bool deleteRows) {
  for (auto& task : tasks_) dropTask(task);
  ends(deleteRows);
  type_ = Kor::Type(name_);
}

void Machine::scanAgain() {
  for (auto& task : tasks_) dropTask(task);
  tasks_.clear();
  makeTasks();
  resetScans();
  doInputScan();
}

size_t Machine::streamPlace(size_t wanted) const {
  size_t place = 0;
  while (number(place) != wanted) ++place;
  return place;
}

bool Machine::inputScanComplete(size_t stream) const {
  return completeFor(inputScanState(stream), root_.initialScanDone());
}

Zavro::Ptr<Vem::Task> Machine::task(size_t stream) const {
  return stream < tasks_.size() ? tasks_[stream] : nullptr;
}

void Machine::makeTasks() {
  for (size_t i = 0; i < streams(); ++i) {
    tasks_.push_back(
        root_.newTask(fmt::format("TrelSnmp::Agent::{}-{}InputScanTask{}", root_.name(), name_, number(i)),
                      [this, i] { runScan(i); }));
  }
}

void Machine::startScan(size_t stream) {
  if (Zavro::Ptr<Vem::Task> onTask = task(stream)) {
    onTask->scheduleTask();
  } else {
    runScan(stream);
  }
}

void Machine::scanCompleted(size_t stream) {
  if (root_.initialScanDone()) dropTask(tasks_[stream]);
  root_.streamScanCompleted(number(stream));
}

void Machine::dropTask(Zavro::Ptr<Vem::Task>& task) {
  if (task) task->cancel();
  task.reset();
}

Kor::Type& Machine::describe() {
  Kor::TypeBuilder<Machine> type(name_);
  type.attribute("hasNotificationActive", &Machine::hasNotificationActive)
      .attribute("initialScanDone", &Machine::initialScanDone)
      .attribute("synchronous", &Machine::synchronous)
      .operation("doInputScan", &Machine::doInputScan)
      .operation("doDeleteAll", &Machine::doDeleteAll);
  for (size_t i = 0; i < streams(); ++i) {
    std::string n = std::to_string(number(i));
    type.attribute("inputScanBookmark" + n, [i](const Machine& m) { return m.bookmarkText(i); })
        .attribute("inputScanState" + n,
                   [i](const Machine& m) { return static_cast<int>(m.inputScanState(i)); })
        .attribute("task" + n, [i](const Machine& m) { return m.task(i) ? m.task(i)->name() : "None"; })
        .attribute("inTask" + n, [i](const Machine& m) { return m.inTask(i); })
        .attribute("shouldYield" + n, [i](const Machine& m) { return m.shouldYield(i); })
        .attribute("inputScanComplete" + n, [i](const Machine& m) { return m.inputScanComplete(i); })
        .operation("doInputScan" + n, [i](Machine& m) { m.runScan(i); });
  }
  type_ = type.build();
  return type_;
}

}  // namespace TrelSnmp::Agent
