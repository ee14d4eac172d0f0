#include "platform/vem/Vem.h"

#include <algorithm>

#include "platform/zavro/Assert.h"

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
  zavroAssert(run_ != nullptr);
  scheduler_->all_.push_back(this);
}

Task::~Task() {
  unqueue();
  std::erase(scheduler_->all_, this);
}

void Task::scheduleTask() {
  if (scheduled() || cancelled_) return;
  bool wasEmpty = scheduler_->queue_.empty();
  sequence_ = ++scheduler_->lastSequence_;
  scheduler_->queue_.emplace(TaskScheduler::Place{priority_, sequence_}, this);
  if (wasEmpty && scheduler_->onRunnable_) scheduler_->onRunnable_();
}

bool Task::taskShouldYield() const { return !taskCurrentlyRunning() || scheduler_->policy_.shouldYield(); }

bool Task::taskCurrentlyRunning() const { return scheduler_->running_ == this; }

void Task::cancel() {
  unqueue();
  cancelled_ = true;
  if (taskCurrentlyRunning()) return;  // runSlice() destroys the callback later
  // Last, since the callback may own the last reference to the task.
  std::function<void()> gone = std::exchange(run_, nullptr);
}

void Task::unqueue() {
  if (scheduled()) scheduler_->queue_.erase({priority_, sequence_});
  sequence_ = 0;
}

TaskScheduler::~TaskScheduler() = default;

bool TaskScheduler::runOne() {
  zavroAssert(running_ == nullptr);
  if (queue_.empty()) return false;
  runSlice(*queue_.begin()->second);
  return true;
}

bool TaskScheduler::run(const Task& task) {
  zavroAssert(running_ == nullptr);
  auto found = queue_.find({task.priority_, task.sequence_});
  if (found == queue_.end() || found->second != &task) return false;
  runSlice(*found->second);
  return true;
}

void TaskScheduler::runSlice(Task& next) {
  // The task may drop all other references to itself, and with them the last one to this scheduler.
  Zavro::Ptr<Task> task(&next);
  task->unqueue();
  struct Running {
    TaskScheduler& scheduler;
    Task& task;
    ~Running() {
      scheduler.running_ = nullptr;
      if (task.cancelled_) std::exchange(task.run_, nullptr);
    }
  } running{*this, *task};
  running_ = task.get();
  policy_.sliceStarts();
  task->run_();
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
