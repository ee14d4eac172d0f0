// The root of a table pipeline: a reactive state machine that keeps tables of the MIB state object equal to a
// function of its inputs. At the start it
//   1. scans its inputs without writing, to create its tree of machines (the initial scan);
//   2. scans them again and writes rows; changes write rows, too, from here on;
//   3. deletes the rows that were in its tables before and have not been written again.
//
// A pipeline is a final class that derives from this one. It declares its streams and outputs, creates its
// machines in createMachines(), and calls start() at the end of its constructor and stop() first in its
// destructor. While it is notification-inactive, it pauses. Everything runs on the event loop's thread; long
// scans are cut into slices of Vem tasks unless the pipeline is synchronous.
#pragma once

#include <string>
#include <vector>

#include "mib-state/TrelMib.h"
#include "pipelines/framework/PublishedState.h"
#include "platform/lumalog/Lumalog.h"
#include "platform/rvx/SmControl.h"
#include "platform/zavro/Node.h"

namespace TrelSnmp::Agent {

// Levels of traces: an element of a stream, and a write; what filters and flattening do.
inline constexpr int kElementLevel = 7;
inline constexpr int kStepLevel = 6;

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

  // Every output has written what the inputs imply, and deleted stale rows.
  bool ready() const { return outputState_ && outputState_->flag(readyFlag_); }
  // Ready, the initial scan is done, and no key is queued.
  bool idle() const { return ready() && inputSmScanState_->flag(idleFlag_); }
  bool initialized() const { return initialized_; }
  bool initialScanDone() const { return initialScanDone_; }
  bool synchronous() const { return synchronous_; }
  // Changes are kept and tasks do nothing, until the pipeline is active again.
  bool paused() const { return paused_; }
  // Contradictions in the inputs, because of which rows are missing: one line each, for operators.
  virtual std::vector<std::string> conflicts() const { return {}; }

  // The MIB state object that the pipeline writes.
  const Zavro::Ptr<TrelMib>& trelMib() const { return trelMib_; }
  const Rvx::SmControl& rivoControl() const { return rivoControl_; }
  // Stores a copy for inspection. How the pipeline runs does not change after its construction.
  void rivoControlIs(const Rvx::SmControl& control) { rivoControl_ = control; }

  // "<stream>Scan" for each stream: its scan, with that of every child machine, is complete. "idle": the
  // initial scan is done and no key is queued.
  InputSmScanState& inputSmScanState() const { return *inputSmScanState_; }
  // "<output>Ready" for each output, and "ready", their conjunction.
  OutputState& outputState() const { return *outputState_; }
  // The machines at the top of the tree.
  const std::vector<Zavro::Ptr<Machine>>& machines() const { return machines_; }
  Vem::TaskPriority taskPriority() const { return taskPriority_; }

  void handleInitialized();
  void handleInitialScanDone();
  // Deletes every row that the inputs account for, and all child machines.
  void doDeleteAll();

  // Of the pipelines with one name and one MIB state object, the one that was created last owns the rows. The
  // others are paused, and delete no rows when they are destroyed.
  bool ownsRows() const { return ownsRows_; }
  // Called when a successor's constructor threw, possibly after it wrote rows. If no pipeline owns the rows,
  // this one owns them again, scans its inputs again, and deletes the rows that they do not imply.
  void reclaimRows();

  const Kor::Type& korType() const override { return type_; }

  // For machines and outputs:

  // A new task on the pipeline's scheduler; null in synchronous mode. A run that throws is repeated.
  Zavro::Ptr<Vem::Task> newTask(const std::string& taskName, std::function<void()> run);
  bool streamScanned(size_t stream) const { return inputSmScanState_->flag(stream); }
  // The stream was scanned, and every key that the scan queued has been processed.
  bool streamReady(size_t stream) const;
  void streamScanCompleted(size_t stream);
  void updateIdle() { inputSmScanState_->set(idleFlag_, allIdle()); }
  void updateReady() { outputState_->set(readyFlag_, allReady()); }
  // Outputs that wait for their inputs check them again.
  void handleOutputs();

 protected:
  // traceHandle is named after the pipeline and outlives it.
  Pipeline(const Lumalog::Handle& traceHandle, Zavro::Ptr<TrelMib> trelMib, const Rvx::SmControl& control,
           std::vector<std::string> streams);

  void start();
  void stop();
  // Backlogs and outputs add themselves in their constructors, in the order of their declaration.
  friend class BacklogBase;
  friend class OutputBase;
  // Adds a machine at the top of the tree and starts its scans.
  void addMachine(Zavro::Ptr<Machine> machine);

  // The pointers that the pipeline was given, in order of declaration.
  virtual std::vector<PointerArgument> pointerArguments() const = 0;
  // Checks that the inputs that are read, but not followed, are declared as derivations (Rvx::GlobalState).
  virtual void processDepends() {}
  // Creates the machines at the top of the tree, each with addMachine().
  virtual void createMachines() = 0;

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
