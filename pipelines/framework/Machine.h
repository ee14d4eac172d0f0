// A machine of a pipeline's tree: what those at its top and those below have in common.
#pragma once

#include <string>
#include <vector>

#include "pipelines/framework/Pipeline.h"

namespace TrelSnmp::Agent {

enum class ScanState : uint8_t {
  notStarted = 0,
  underWay = 1,  // the next run resumes at the bookmark
  complete = 2,
  completeInitial = 3,  // complete as long as the pipeline's initial scan is not done; then scanned again
};
// Whether a scan in this state has nothing to do, now that the pipeline's initial scan is done or not.
bool completeFor(ScanState state, bool initialScanDone);

class Machine : public Kor::Object {
 public:
  Pipeline& root() const { return root_; }
  const std::string& name() const { return name_; }  // such as "ReachabilityDirSm0"

  bool hasNotificationActive() const { return active_; }
  // While inactive, changes are noted but not acted on; they are when the machine is active again.
  void hasNotificationActiveIs(bool active);
  // Starts or continues the scan of every stream that the machine serves.
  virtual void doInputScan() = 0;
  // Deletes every row that the machine's input produced; nothing while the pipeline's initial scan is not
  // done.
  virtual void doDeleteAll() = 0;
  // Ends the machine, which then follows nothing and offers nothing by name. The rows that it and those below
  // it wrote go with it, unless they are a successor's now.
  void stop(bool deleteRows);

  // The machine's streams, by their places in it.
  virtual size_t streams() const = 0;
  virtual size_t number(size_t stream) const = 0;  // of the pipeline's streams
  size_t placeOf(size_t number) const;             // Requires: one of the machine's numbers.
  virtual ScanState inputScanState(size_t stream) const = 0;
  virtual std::string bookmarkText(size_t stream) const = 0;
  // The task that runs the stream's scan. A machine at the top of the tree has one for each stream until the
  // scan that triggers events is complete; null then, and in a synchronous pipeline.
  virtual Zavro::Ptr<Vem::Task> task(size_t stream) const;
  // One run of the stream's scan; true when it is complete.
  virtual bool runScan(size_t stream) = 0;
  // The next scan of every stream, here and below, starts anew.
  virtual void scansAgain() = 0;
  // The same for a machine at the top, which has tasks again, and starts them.
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
  // For the constructors of machines: names what all machines have.
  Kor::Type& describe();
  // For those at the top.
  void makeTasks();
  // Runs the stream's scan: on its task, or at once when it has none.
  void startScan(size_t stream);
  // The stream's scan is complete, with that of every machine below.
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
