#include "pipelines/framework/ScanTasks.h"

namespace TrelSnmp::Agent {

ScanTasks::ScanTasks(Pipeline& root, const std::string& machine, std::vector<size_t> streams,
                     std::function<void(size_t)> runScan)
    : root_(root), streams_(std::move(streams)), runScan_(std::move(runScan)) {
  for (size_t i = 0; i < streams_.size(); ++i) {
    tasks_.push_back(root_.newTask(
        fmt::format("TrelSnmp::Agent::{}-{}InputScanTask{}", root_.name(), machine, streams_[i]),
        [this, i] { runScan_(i); }));
  }
}

void ScanTasks::start(size_t i) const {
  if (tasks_[i]) {
    tasks_[i]->scheduleTask();
  } else {
    runScan_(i);
  }
}

void ScanTasks::completed(size_t i) {
  if (root_.initialScanDone()) drop(i);
  root_.streamScanCompleted(streams_[i]);
}

void ScanTasks::stop() {
  for (size_t i = 0; i < tasks_.size(); ++i) drop(i);
}

void ScanTasks::drop(size_t i) {
  if (tasks_[i]) tasks_[i]->cancel();
  tasks_[i].reset();
}

}  // namespace TrelSnmp::Agent
