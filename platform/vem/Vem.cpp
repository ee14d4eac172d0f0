#include "vem/Vem.h"

#include <algorithm>

#include "zavro/Assert.h"

namespace Vem {
namespace {

Zavro::Ptr<TaskScheduler>& processScheduler() {
  static auto* scheduler = new Zavro::Ptr<TaskScheduler>;
  return *scheduler;
}

}  // namespace

Task::Task(Zavro::Ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name,
           std::function<void()> run)
    : scheduler_(std::move(scheduler)), name_(std::move(name)), run_(std::move(run)), priority_(priority) {
  zavroAssert(scheduler_ != nullptr);
  scheduler_->all_.push_back(this);
}

Task::~Task() { std::erase(scheduler_->all_, this); }

void Task::scheduleTask() {
  if (scheduled() || !run_) return;
  bool wasEmpty = scheduler_->queue_.empty();
  sequence_ = ++scheduler_->lastSequence_;
  scheduler_->queue_.emplace(TaskScheduler::Place{priority_, sequence_}, this);
  if (wasEmpty && scheduler_->onRunnable_) scheduler_->onRunnable_();
}

bool Task::taskShouldYield() const { return !taskCurrentlyRunning() || scheduler_->policy_.shouldYield(); }

bool Task::taskCurrentlyRunning() const { return scheduler_->running_ == this; }

void Task::cancel() {
  Zavro::Ptr<Task> hold(this);
  if (scheduled()) scheduler_->queue_.erase({priority_, sequence_});
  sequence_ = 0;
  run_ = nullptr;
}

TaskScheduler::~TaskScheduler() = default;

bool TaskScheduler::runOne() {
  zavroAssert(running_ == nullptr);
  if (queue_.empty()) return false;
  auto first = queue_.begin();
  Zavro::Ptr<Task> task = first->second;
  queue_.erase(first);
  task->sequence_ = 0;
  // A copy, since the task may be cancelled by what it does.
  std::function<void()> run = task->run_;
  running_ = task.get();
  policy_.sliceStarts();
  run();
  running_ = nullptr;
  return true;
}

std::vector<const Task*> TaskScheduler::tasks() const { return {all_.begin(), all_.end()}; }

Zavro::Ptr<TaskScheduler> TaskSchedulerRoot::findOrCreateScheduler() {
  if (!processScheduler()) {
    static const auto* clock = new Zavro::SystemClock;
    static auto* policy = new TimeSlice(*clock);
    processScheduler() = Zavro::makePtr<TaskScheduler>(*policy);
  }
  return processScheduler();
}

void TaskSchedulerRoot::schedulerIs(Zavro::Ptr<TaskScheduler> scheduler) {
  processScheduler() = std::move(scheduler);
}

}  // namespace Vem
