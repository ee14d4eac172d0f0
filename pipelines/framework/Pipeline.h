// The root of a table pipeline: a reactive state machine that keeps tables of the MIB state object equal to a
// function of its inputs. It scans its inputs once without writing, to build its tree of child machines; when
// every stream has been scanned so, it scans again and writes; when that is complete, rows of an earlier life
// that were not written again are deleted; from then on it reacts to changes.
//
// A pipeline is a final class that derives from this one, declares its streams and outputs, makes its
// machines in machinesIs() and calls start() at the end of its constructor and stop() first in its
// destructor. It reacts from its construction on; made notification-inactive, it pauses. Everything runs on
// the event loop's thread; long scans are cut into slices of Vem tasks unless the pipeline is synchronous.
#pragma once

#include <string>
#include <vector>

#include "mib-state/TrelMib.h"
#include "pipelines/framework/PublishedState.h"
#include "platform/lumalog/Lumalog.h"
#include "platform/rvx/SmControl.h"
#include "platform/zavro/Node.h"

namespace TrelSnmp::Agent {

class BacklogBase;
class Machine;
class OutputBase;

class Pipeline : public Zavro::Node {
 public:
  static constexpr bool kDefaultSynchronous = false;

  struct PointerArgument {
    const char* name;
    const Kor::Entity* entity;
  };

  ~Pipeline() override;

  const std::string& name() const { return name_; }  // such as "TrelSnmpReachabilityTableSm"
  std::string text() const { return name_; }
  const Lumalog::Handle& traceHandle() const { return traceHandle_; }

  // Every output holds what the inputs imply, and nothing else.
  bool ready() const { return outputState_ && outputState_->flag(readyFlag_); }
  // Ready, no scan is under way, and no key is left to work off.
  bool idle() const { return ready() && inputSmScanState_->flag(idleFlag_); }
  bool initialized() const { return initialized_; }
  bool initialScanDone() const { return initialScanDone_; }
  bool synchronous() const { return synchronous_; }
  // Changes are noted but not acted on, and no task does anything.
  bool paused() const { return paused_; }
  // What in the inputs contradicts each other, so that rows are missing; a line for each, for operators.
  virtual std::vector<std::string> conflicts() const { return {}; }

  // The MIB state object that the pipeline writes.
  const Zavro::Ptr<TrelMib>& trelMib() const { return trelMib_; }
  const Rvx::SmControl& rivoControl() const { return rivoControl_; }
  // Takes a copy for inspection; how the pipeline runs was settled when it was made.
  void rivoControlIs(const Rvx::SmControl& control) { rivoControl_ = control; }

  // "<stream>Scan" for each stream: its scan, with that of every child machine, has completed; "idle": the
  // initial scan is done and no stream has anything left to work off.
  InputSmScanState& inputSmScanState() const { return *inputSmScanState_; }
  // "<output>Ready" for each output, and "ready", their conjunction.
  OutputState& outputState() const { return *outputState_; }
  // Those at the top of the tree.
  const std::vector<Zavro::Ptr<Machine>>& machines() const { return machines_; }
  Vem::TaskPriority taskPriority() const { return taskPriority_; }

  void handleInitialized();
  void handleInitialScanDone();
  // Deletes every row that the pipeline can account for, and its child machines.
  void doDeleteAll();

  // Of the pipelines of one name that are given one MIB state object, the one that was made last owns the
  // rows. Another one reacts and writes no more, whoever holds it, and the rows stay when it is destroyed.
  bool ownsRows() const { return ownsRows_; }
  // A pipeline that was to take this one's place could not be made, and may have written rows: they are this
  // one's again, the inputs are scanned again, and what they do not imply goes. Nothing when the rows are
  // somebody's.
  void takesRowsBack();

  const Kor::Type& korType() const override { return type_; }

  // For machines and outputs.
  //
  // Makes a task on the pipeline's scheduler; null in synchronous mode. The task runs only while the pipeline
  // lives.
  Zavro::Ptr<Vem::Task> newTask(const std::string& taskName, std::function<void()> run);
  bool streamScanned(size_t stream) const { return inputSmScanState_->flag(stream); }
  // The stream was scanned, and all that the scan found has been worked off.
  bool streamReady(size_t stream) const;
  void streamScanCompleted(size_t stream);
  void updateIdle() { inputSmScanState_->set(idleFlag_, allIdle()); }
  void updateReady() { outputState_->set(readyFlag_, allReady()); }
  // The outputs that still wait for their inputs look again.
  void handleOutputs();

 protected:
  // traceHandle is named after the pipeline and outlives it.
  Pipeline(const Lumalog::Handle& traceHandle, Zavro::Ptr<TrelMib> trelMib, const Rvx::SmControl& control,
           std::vector<std::string> streams);

  void start();
  void stop();
  // Backlogs and outputs announce themselves as they are constructed, in the order of their declaration.
  friend class BacklogBase;
  friend class OutputBase;
  // Adds a machine at the top of the tree and starts its scans.
  void machineAdded(Zavro::Ptr<Machine> machine);

  // The pointers that the pipeline was given, in order of declaration.
  virtual std::vector<PointerArgument> pointerArguments() const = 0;
  // Declares to the runtime what is read but not followed.
  virtual void processDepends() {}
  // Makes the machines at the top of the tree, each with machineAdded().
  virtual void machinesIs() = 0;

  void onZombieReactors() override;

 private:
  Pipeline* rowsOwner() const;
  void ownsRowsIs(bool owns);
  void pausedIs(bool paused);
  void resolveControl();
  void checkArguments() const;
  void describe();
  void describe(Kor::TypeBuilder<Pipeline>& type, OutputBase* output);
  void describe(Kor::TypeBuilder<Pipeline>& type, BacklogBase* backlog);
  void publishStates();
  void handleInputs();
  bool allIdle() const;
  bool allReady() const;

  const std::string name_;
  const Lumalog::Handle& traceHandle_;
  const Zavro::Ptr<TrelMib> trelMib_;
  Rvx::SmControl rivoControl_;
  const std::vector<std::string> streams_;
  std::vector<BacklogBase*> backlogs_;
  std::vector<OutputBase*> outputs_;
  Zavro::Ptr<InputSmScanState> inputSmScanState_;
  Zavro::Ptr<OutputState> outputState_;
  size_t idleFlag_ = 0;
  size_t readyFlag_ = 0;
  std::vector<Zavro::Ptr<Machine>> machines_;
  Zavro::Ptr<Vem::TaskScheduler> taskScheduler_;
  Vem::TaskPriority taskPriority_;
  bool synchronous_ = kDefaultSynchronous;
  bool initialScanDone_ = false;
  bool initialized_ = false;
  bool paused_ = false;
  bool ownsRows_ = false;
  Kor::Type type_;
};

}  // namespace TrelSnmp::Agent
