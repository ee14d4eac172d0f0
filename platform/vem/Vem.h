// Cooperative tasks on the event loop's thread. A task runs until it returns; a long one asks
// taskShouldYield() after each item and, on yes, schedules itself again and returns. The host runs one slice
// at a time and serves SNMP in between.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/zavro/Clock.h"
#include "platform/zavro/Ptr.h"

namespace Vem {

// 0 is the most urgent.
using TaskPriority = uint8_t;
inline constexpr TaskPriority kDefaultPriority = 128;

// Decides when a running task should yield.
class YieldPolicy {
 public:
  virtual ~YieldPolicy() = default;
  virtual void sliceStarts() = 0;
  virtual bool shouldYield() = 0;
};

// Yields once the slice has lasted for the budget. The clock must outlive the policy.
class TimeSlice final : public YieldPolicy {
 public:
  static constexpr uint64_t kDefaultBudgetNs = 5'000'000;
  explicit TimeSlice(const Zavro::Clock& clock, uint64_t budgetNs = kDefaultBudgetNs)
      : clock_(clock), budgetNs_(budgetNs) {}
  void sliceStarts() override { startNs_ = clock_.monotonicNs(); }
  bool shouldYield() override { return clock_.monotonicNs() - startNs_ >= budgetNs_; }

 private:
  const Zavro::Clock& clock_;
  uint64_t budgetNs_;
  uint64_t startNs_ = 0;
};

class TaskScheduler;

// The scheduler does not keep its tasks alive: a task that is destroyed leaves the queue. A task is kept
// alive while it runs.
class Task final : public Zavro::Counted {
 public:
  // run is called once for each time that the task was queued; cancel() destroys it. Requires: neither
  // scheduler nor run is null.
  Task(Zavro::Ptr<TaskScheduler> scheduler, TaskPriority priority, std::string name,
       std::function<void()> run);
  ~Task() override;

  const std::string& name() const { return name_; }
  TaskPriority priority() const { return priority_; }

  // Queues the task behind those of its priority. Does nothing when it is queued already, or was cancelled.
  void scheduleTask();
  // Whether the current slice is used up; true when the task is not running.
  bool taskShouldYield() const;
  bool taskCurrentlyRunning() const;
  // Removes the task from the queue for good. A run in progress continues to its end.
  void cancel();

  // Work counters for operators (`trelctl status`), in items of the task's own kind.
  void taskWorkCountInc(uint64_t items) { workCount_ += items; }
  void taskWorkPendingIs(uint64_t items) { workPending_ = items; }
  uint64_t workCount() const { return workCount_; }
  uint64_t workPending() const { return workPending_; }
  bool scheduled() const { return sequence_ != 0; }

 private:
  friend class TaskScheduler;
  void unqueue();

  Zavro::Ptr<TaskScheduler> scheduler_;
  std::string name_;
  std::function<void()> run_;
  uint64_t workCount_ = 0;
  uint64_t workPending_ = 0;
  uint64_t sequence_ = 0;  // place in the queue; 0 when not queued
  TaskPriority priority_;
  bool cancelled_ = false;
};

// One run queue, ordered by priority and then by age.
class TaskScheduler final : public Zavro::Counted {
 public:
  // The policy must outlive the scheduler.
  explicit TaskScheduler(YieldPolicy& policy) : policy_(policy) {}
  ~TaskScheduler() override;

  // Runs the first task of the queue for one slice; false when the queue is empty. Not reentrant. An
  // exception of the task leaves this call; the scheduler remains usable.
  bool runOne();
  // As runOne(), but runs the given task, wherever it is in the queue; false when it is not queued. For tests
  // of other orders.
  bool run(const Task& task);
  bool runnable() const { return !queue_.empty(); }

  // Sets the one callback, which is called whenever the queue stops being empty, so that the host can arrange
  // for a later runOne(). It is not called for tasks that are queued already; see runnable().
  void onRunnable(std::function<void()> callback) { onRunnable_ = std::move(callback); }

  // Every task that exists, in order of creation, for inspection.
  std::vector<const Task*> tasks() const;

 private:
  friend class Task;
  void runSlice(Task& next);
  using Place = std::pair<TaskPriority, uint64_t>;

  YieldPolicy& policy_;
  std::map<Place, Task*> queue_;
  std::vector<Task*> all_;
  const Task* running_ = nullptr;
  uint64_t lastSequence_ = 0;
  std::function<void()> onRunnable_;
};

// The process's scheduler, for pipelines that were not given one.
class TaskSchedulerRoot {
 public:
  // The scheduler that was set, or else one with time slices of the default budget on the system's clock.
  static Zavro::Ptr<TaskScheduler> findOrCreateScheduler();
  // Sets the scheduler; after null the next findOrCreateScheduler() creates one.
  static void schedulerIs(Zavro::Ptr<TaskScheduler> scheduler);
};

}  // namespace Vem
