#include "pipelines/framework/Pipeline.h"

#include <algorithm>

#include "pipelines/framework/Backlog.h"
#include "pipelines/framework/Names.h"
#include "pipelines/framework/Output.h"
#include "platform/zavro/Assert.h"

namespace TrelSnmp::Agent {
namespace {

std::string taskName(const Zavro::Ptr<Vem::Task>& task) { return task ? task->name() : "None"; }

}  // namespace

Pipeline::Pipeline(const Lumalog::Handle& traceHandle, const Rvx::SmControl& control,
                   std::vector<std::string> streams)
    : name_(traceHandle.name()),
      traceHandle_(traceHandle),
      rivoControl_(control),
      streams_(std::move(streams)),
      taskPriority_(control.priority),
      type_("TrelSnmp::Agent::" + name_) {}

Pipeline::~Pipeline() {
  zavroAssertWith(machines_.empty(), "name={}", name_);
  if (inputSmScanState_) inputSmScanState_->handleIdle = [] {};
}

void Pipeline::start() {
  try {
    handleInitialized();
  } catch (...) {
    ownsRows_ = false;  // whoever had the rows before keeps them
    stop();
    throw;
  }
}

void Pipeline::handleInitialized() {
  if (initialized_) return;
  resolveControl();
  std::vector<std::string> outputNames;
  for (const OutputBase* output : outputs_) outputNames.push_back(output->name());
  inputSmScanState_ = Zavro::makePtr<InputSmScanState>(streams_);
  inputSmScanState_->handleIdle = [this] { updateIdle(); };
  outputState_ = Zavro::makePtr<OutputState>(outputNames);
  describe();
  for (BacklogBase* backlog : backlogs_) backlog->makeTask();
  for (OutputBase* output : outputs_) output->makeTask();
  checkArguments();
  processDepends();
  for (OutputBase* output : outputs_) output->noteStaleRows();
  onScans_ = inputSmScanState_->scans().subscribe([this] { handleInputs(); });
  traceHandle_.trace(9, "create local SMs");
  machinesIs();
  initialized_ = true;
  traceHandle_.trace(9, "initialized");
  handleInputs();
}

void Pipeline::resolveControl() {
  if (rivoControl_.mode != Rvx::Mode::pipelineDefault)
    synchronous_ = rivoControl_.mode == Rvx::Mode::synchronous;
  if (synchronous_) return;
  taskScheduler_ =
      rivoControl_.scheduler ? rivoControl_.scheduler : Vem::TaskSchedulerRoot::findOrCreateScheduler();
}

void Pipeline::checkArguments() const {
  for (const PointerArgument& argument : pointerArguments()) {
    if (argument.present) continue;
    Zavro::assertFailed(
        fmt::format("{}() && \"Pointer SM args cannot be null unless they are marked Optional\"",
                    argument.name),
        fmt::format("void TrelSnmp::Agent::{}::handleInitialized()", name_),
        static_cast<const char*>(__FILE__), __LINE__);
  }
}

Zavro::Ptr<Vem::Task> Pipeline::newTask(const std::string& taskName, std::function<void()> run) {
  if (synchronous_) return nullptr;
  return Zavro::makePtr<Vem::Task>(taskScheduler_, taskPriority_, taskName, [this, run = std::move(run)] {
    Zavro::Ptr<Pipeline> held = hold();
    run();
  });
}

void Pipeline::handleInputs() {
  Zavro::Ptr<Pipeline> held = hold();
  for (BacklogBase* backlog : backlogs_) backlog->handleInputReady();
  for (OutputBase* output : outputs_) output->handleInputReady();
}

void Pipeline::handleOutputs() {
  if (ready()) return;
  for (OutputBase* output : outputs_) output->handleInputReady();
}

bool Pipeline::streamReady(size_t stream) const {
  if (!inputSmScanState_->scans().get(stream)) return false;
  return std::all_of(backlogs_.begin(), backlogs_.end(), [&](const BacklogBase* backlog) {
    return backlog->number() != stream || !initialScanDone_ || backlog->caughtUp();
  });
}

void Pipeline::updateIdle() {
  bool streamsIdle = std::all_of(backlogs_.begin(), backlogs_.end(),
                                 [](const BacklogBase* backlog) { return backlog->idle(); });
  inputSmScanState_->idleIs(initialScanDone_ && streamsIdle);
}

void Pipeline::handleInitialScanDone() {
  if (initialScanDone_) return;
  Flags& scans = inputSmScanState_->scans();
  for (size_t i = 0; i < scans.size(); ++i) {
    if (scans.get(i)) continue;
    traceHandle_.trace(9, " {} scan is false", streams_[i]);
    traceHandle_.trace(9, "Initial scan yielding for child SM {}.", name_);
    return;
  }
  traceHandle_.trace(9, "Initial scan done for child SMs. Now scanning with events triggered.");
  initialScanDone_ = true;
  scans.clear();
  for (auto& machine : machines_) machine->doInputScan();
  updateIdle();
  handleInputs();
}

void Pipeline::doDeleteAll() {
  Zavro::Ptr<Pipeline> held = hold();
  for (auto& machine : machines_) machine->doDeleteAll();
}

void Pipeline::rowsHandedOver() {
  ownsRows_ = false;
  pausedIs(true);
}

void Pipeline::onZombieReactors() { pausedIs(!hasNotificationActive() || !ownsRows_); }

void Pipeline::pausedIs(bool paused) {
  Zavro::Ptr<Pipeline> held = hold();
  paused_ = paused;
  for (auto& machine : machines_) {
    machine->hasNotificationActiveIs(!paused);
    if (paused_ != paused) return;  // what a machine caught up with made somebody pause the pipeline
  }
  if (paused) return;
  for (BacklogBase* backlog : backlogs_) backlog->resume();
  handleOutputs();
}

void Pipeline::stop() {
  onScans_.reset();
  // All fall silent before the first deletes: what a deletion makes subscribers do must not start a machine
  // that is about to go.
  pausedIs(true);
  for (auto& machine : machines_) machine->stop(ownsRows_);
  machines_.clear();
}

void Pipeline::describe() {
  Kor::TypeBuilder<Pipeline> type(type_.name());
  type.attribute("name", &Pipeline::name)
      .attribute("rivoControl", [](const Pipeline& p) { return p.rivoControl().text(); })
      .attribute("taskPriority", &Pipeline::taskPriority)
      .attribute("synchronous", &Pipeline::synchronous)
      .attribute("initialScanDone", &Pipeline::initialScanDone)
      .attribute("initialized", &Pipeline::initialized)
      .attribute("ready", &Pipeline::ready)
      .attribute("idle", &Pipeline::idle)
      .attribute("hasNotificationActive", &Pipeline::hasNotificationActive)
      .operation("handleInitialized", &Pipeline::handleInitialized)
      .operation("handleInitialScanDone", &Pipeline::handleInitialScanDone)
      .operation("doDeleteAll", &Pipeline::doDeleteAll);
  for (size_t i = 0; i < streams_.size(); ++i) {
    type.attribute(inputSmScanState_->scans().name(i),
                   [i](const Pipeline& p) { return p.inputSmScanState_->scans().get(i); });
  }
  for (BacklogBase* backlog : backlogs_) describe(type, backlog);
  for (OutputBase* output : outputs_) describe(type, output);
  type_ = type.build();
}

void Pipeline::describe(Kor::TypeBuilder<Pipeline>& type, OutputBase* output) {
  const std::string& name = output->name();
  type.attribute(name + "Seen", [output](const Pipeline&) { return output->seenSize(); })
      .attribute(name + "Bookmark", [output](const Pipeline&) { return output->bookmarkText(); })
      .attribute(name + "Ready", [output](const Pipeline&) { return output->ready(); })
      .attribute(name + "Reconciling", [output](const Pipeline&) { return output->reconciling(); })
      .attribute(name + "UseBookmark", [output](const Pipeline&) { return output->useBookmark(); })
      .attribute(name + "ReconciliationTask",
                 [output](const Pipeline&) { return taskName(output->reconciliationTask()); })
      .operation("handle" + capitalised(name) + "InputReady",
                 [output](Pipeline&) { output->handleInputReady(); });
}

void Pipeline::describe(Kor::TypeBuilder<Pipeline>& type, BacklogBase* backlog) {
  const std::string& name = backlog->name();
  type.attribute(name + "Backlog", [backlog](const Pipeline&) { return backlog->size(); })
      .attribute(name + "Bookmark", [backlog](const Pipeline&) { return backlog->bookmarkText(); })
      .attribute(name + "Generation", [backlog](const Pipeline&) { return backlog->generation(); })
      .attribute(name + "DoneGen", [backlog](const Pipeline&) { return backlog->doneGen(); })
      .attribute(backlog->stream() + "Idle", [backlog](const Pipeline&) { return backlog->idle(); })
      .attribute(backlog->stream() + "Task", [backlog](const Pipeline&) { return taskName(backlog->task()); })
      .operation("handle" + capitalised(name) + "InputReady",
                 [backlog](Pipeline&) { backlog->handleInputReady(); });
}

}  // namespace TrelSnmp::Agent
