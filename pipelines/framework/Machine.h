// Base of the machines of a pipeline's tree: those at its top, and their children.
#pragma once

#include <string>
#include <vector>

#include "pipelines/framework/Pipeline.h"

namespace TrelSnmp::Agent {

enum class ScanState : uint8_t {
  notStarted = 0,
  underWay = 1,  // the next run resumes at the bookmark
  complete = 2,
  completeInitial = 3,  // complete until the pipeline's initial scan is done; then scanned again
};
// Whether a scan in this state has nothing left to do.
bool completeFor(ScanState state, bool initialScanDone);

class Machine : public Kor::Object {
 public:
  Pipeline& root() const { return root_; }
  const std::string& name() const { return name_; }  // such as "ReachabilityDirSm0"

  bool hasNotificationActive() const { return active_; }
  // While inactive, changes are kept; they are handled when the machine is active again.
  void hasNotificationActiveIs(bool active);
  // Starts or continues the scan of every stream that the machine serves.
  virtual void doInputScan() = 0;
  // Deletes every row that the machine's input produced. There are none before the pipeline's initial scan is
  // done.
  virtual void doDeleteAll() = 0;
  // Ends the machine: its subscriptions, tasks and children, and its attributes and operations by name. With
  // deleteRows, also the rows that it and its children wrote, unless another pipeline owns them now.
  void stop(bool deleteRows);

  // The number of streams. `stream` below is a place among them, from 0.
  virtual size_t streams() const = 0;
  virtual size_t number(size_t stream) const = 0;  // the stream's number in the pipeline
  size_t streamPlace(size_t number) const;         // Requires: the number of one of the machine's streams.
  virtual ScanState inputScanState(size_t stream) const = 0;
  virtual std::string bookmarkText(size_t stream) const = 0;
  // The task that runs the stream's scan: null in a synchronous pipeline, and after the scan that emits
  // events is complete. A child has its parent's.
  virtual Zavro::Ptr<Vem::Task> task(size_t stream) const;
  // One run of the stream's scan; true when it is complete.
  virtual bool runScan(size_t stream) = 0;
  // The next scan of every stream, here and in the children, starts from the beginning.
  virtual void resetScans() = 0;
  // For a machine at the top: scans every stream again, on new tasks.
  void scanAgain();
  bool inputScanComplete(size_t stream) const;
  bool initialScanDone() const { return root_.initialScanDone(); }
  bool synchronous() const { return root_.synchronous(); }
  bool inTask(size_t stream) const { return task(stream) && task(stream)->taskCurrentlyRunning(); }
  // False without a task: such a scan runs to its end.
  bool shouldYield(size_t stream) const { return task(stream) && task(stream)->taskShouldYield(); }

  const Kor::Type& korType() const override { return type_; }

 protected:
  Machine(Pipeline& root, std::string name);
  // For constructors: declares the attributes and operations that all machines have.
  Kor::Type& describe();
  // For machines at the top.
  void makeTasks();
  // Runs the stream's scan: on its task, or at once when it has none.
  void startScan(size_t stream);
  // The stream's scan is complete, with that of every child.
  void scanCompleted(size_t stream);

 private:
  // Acts on the change of hasNotificationActive().
  virtual void activeChanged() = 0;
  virtual void ends(bool deleteRows) = 0;
  void dropTask(Zavro::Ptr<Vem::Task>& task);

  Pipeline& root_;
  const std::string name_;
  bool active_ = true;
  std::vector<Zavro::Ptr<Vem::Task>> tasks_;
  Kor::Type type_;
};

}  // namespace TrelSnmp::Agent
