#include "pipelines/framework/Pipeline.h"

#include <algorithm>
#include <map>
#include <memory>

#include "pipelines/framework/Backlog.h"
#include "pipelines/framework/Machine.h"
#include "pipelines/framework/Names.h"
#include "pipelines/framework/Output.h"
#include "platform/kor/Publication.h"
#include "platform/zavro/Assert.h"

namespace TrelSnmp::Agent {
namespace {

std::string taskName(const Zavro::Ptr<Vem::Task>& task) { return task ? task->name() : "None"; }

// The owner of the rows, by MIB state object and name of pipeline. Never destroyed.
using Owners = std::map<std::pair<const TrelMib*, std::string>, Pipeline*>;
Owners& owners() {
  static Owners& owners = *new Owners;
  return owners;
}

}  // namespace

Pipeline::Pipeline(const Lumalog::Handle& traceHandle, Zavro::Ptr<TrelMib> trelMib,
                   const Rvx::SmControl& control, std::vector<std::string> streams)
    : name_(traceHandle.name()),
      traceHandle_(traceHandle),
      trelMib_(std::move(trelMib)),
      rivoControl_(control),
      streams_(std::move(streams)),
      taskPriority_(control.priority),
      type_("TrelSnmp::Agent::" + name_) {}

Pipeline::~Pipeline() {
  zavroAssertWith(machines_.empty(), "name={}", name_);
  ownsRowsIs(false);
  if (inputSmScanState_) inputSmScanState_->ends();
  if (outputState_) outputState_->ends();
}

void Pipeline::start() {
  Pipeline* before = rowsOwner();
  ownsRowsIs(true);
  try {
    handleInitialized();
    hasNotificationActiveIs(true);
  } catch (...) {
    ownsRowsIs(false);
    stop();
    if (before != nullptr) before->reclaimRows();
    throw;
  }
}

Pipeline* Pipeline::rowsOwner() const {
  auto owner = owners().find({trelMib_.get(), name_});
  return owner == owners().end() ? nullptr : owner->second;
}

void Pipeline::ownsRowsIs(bool owns) {
  if (owns == ownsRows_) return;
  if (Pipeline* before = rowsOwner()) before->ownsRows_ = false;
  ownsRows_ = owns;
  if (!owns) {
    owners().erase({trelMib_.get(), name_});
  } else if (Pipeline* before = std::exchange(owners()[{trelMib_.get(), name_}], this)) {
    before->pausedIs(true);
  }
}

void Pipeline::handleInitialized() {
  if (initialized_) return;
  Kor::Publication::expectNone();
  resolveControl();
  publishStates();
  checkArguments();
  processDepends();
  for (OutputBase* output : outputs_) output->noteStaleRows();
  traceHandle_.trace(9, "create local SMs");
  createMachines();
  describe();
  initialized_ = true;
  traceHandle_.trace(9, "initialized");
  handleInputs();
}

void Pipeline::publishStates() {
  inputSmScanState_ = Zavro::makePtr<InputSmScanState>("InputSmScanState");
  for (const std::string& stream : streams_) inputSmScanState_->addFlag(stream + "Scan");
  idleFlag_ = inputSmScanState_->addFlag("idle");
  inputSmScanState_->deriveField(idleFlag_, [this] { return allIdle(); });
  for (BacklogBase* backlog : backlogs_) backlog->start();
  outputState_ = Zavro::makePtr<OutputState>("OutputState");
  for (OutputBase* output : outputs_) output->start();
  readyFlag_ = outputState_->addFlag("ready");
  outputState_->deriveField(readyFlag_, [this] { return allReady(); });
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
    if (argument.entity != nullptr) continue;
    Zavro::assertFailed(
        fmt::format("{}() && \"Pointer SM args cannot be null unless they are marked Optional\"",
                    argument.name),
        fmt::format("void TrelSnmp::Agent::{}::handleInitialized()", name_),
        static_cast<const char*>(__FILE__), __LINE__);
  }
}

Zavro::Ptr<Vem::Task> Pipeline::newTask(const std::string& taskName, std::function<void()> run) {
  if (synchronous_) return nullptr;
  auto self = std::make_shared<Vem::Task*>(nullptr);
  auto runAgainAfterThrow = [run = std::move(run), self] {
    try {
      run();
    } catch (...) {
      (*self)->scheduleTask();
      throw;
    }
  };
  auto task =
      Zavro::makePtr<Vem::Task>(taskScheduler_, taskPriority_, taskName, std::move(runAgainAfterThrow));
  *self = task.get();
  return task;
}

void Pipeline::addMachine(Zavro::Ptr<Machine> machine) {
  machines_.push_back(machine);
  machine->doInputScan();
}

void Pipeline::handleInputs() {
  for (BacklogBase* backlog : backlogs_) backlog->handleInputReady();
  for (OutputBase* output : outputs_) output->handleInputReady();
}

void Pipeline::handleOutputs() {
  if (ready()) return;
  for (OutputBase* output : outputs_) output->handleInputReady();
}

void Pipeline::streamScanCompleted(size_t stream) {
  if (inputSmScanState_->set(stream, true)) handleInputs();
}

bool Pipeline::streamReady(size_t stream) const {
  if (!streamScanned(stream)) return false;
  return std::all_of(backlogs_.begin(), backlogs_.end(), [&](const BacklogBase* backlog) {
    return backlog->number() != stream || !initialScanDone_ || backlog->caughtUp();
  });
}

bool Pipeline::allIdle() const {
  return initialScanDone_ && std::all_of(backlogs_.begin(), backlogs_.end(),
                                         [](const BacklogBase* backlog) { return backlog->idle(); });
}

bool Pipeline::allReady() const {
  return std::all_of(outputs_.begin(), outputs_.end(),
                     [](const OutputBase* output) { return output->ready(); });
}

void Pipeline::handleInitialScanDone() {
  if (initialScanDone_) return;
  for (size_t i = 0; i < streams_.size(); ++i) {
    if (streamScanned(i)) continue;
    traceHandle_.trace(9, " {} scan is false", streams_[i]);
    traceHandle_.trace(9, "Initial scan yielding for child SM {}.", name_);
    return;
  }
  traceHandle_.trace(9, "Initial scan done for child SMs. Now scanning with events triggered.");
  initialScanDone_ = true;
  for (size_t i = 0; i < streams_.size(); ++i) inputSmScanState_->set(i, false);
  for (auto& machine : machines_) machine->doInputScan();
  updateIdle();
  handleInputs();
}

void Pipeline::doDeleteAll() {
  for (auto& machine : machines_) machine->doDeleteAll();
}

void Pipeline::reclaimRows() {
  if (rowsOwner() != nullptr) return;
  ownsRowsIs(true);
  for (OutputBase* output : outputs_) output->verifyRows();
  updateReady();
  if (initialScanDone_) {
    for (size_t i = 0; i < streams_.size(); ++i) inputSmScanState_->set(i, false);
    for (auto& machine : machines_) machine->scanAgain();
  }
  onZombieReactors();
}

void Pipeline::onZombieReactors() { pausedIs(!hasNotificationActive() || !ownsRows_); }

void Pipeline::pausedIs(bool paused) {
  Kor::Publication::expectNone();
  paused_ = paused;
  for (auto& machine : machines_) machine->hasNotificationActiveIs(!paused);
  if (paused) return;
  for (BacklogBase* backlog : backlogs_) backlog->resume();
  handleOutputs();
}

void Pipeline::stop() {
  // Paused first: the inputs are still there, so processing a queued key would write rows again.
  pausedIs(true);
  for (auto& machine : machines_) machine->stop(ownsRows_);
  machines_.clear();
  for (OutputBase* output : outputs_) output->stop();
}

void Pipeline::describe() {
  Kor::TypeBuilder<Pipeline> type(type_.name());
  type.attribute("name", &Pipeline::name);
  for (const PointerArgument& argument : pointerArguments()) {
    type.attribute(argument.name, [entity = argument.entity](const Pipeline&) { return entity->name(); });
  }
  type.attribute("rivoControl", [](const Pipeline& p) { return p.rivoControl().text(); })
      .attribute("inputSmScanState", [](const Pipeline& p) { return p.inputSmScanState().korType().name(); })
      .attribute("outputState", [](const Pipeline& p) { return p.outputState().korType().name(); });
  for (const auto& machine : machines_) {
    type.attribute(uncapitalised(machine->name()),
                   [name = machine->name()](const Pipeline&) { return name; });
  }
  for (BacklogBase* backlog : backlogs_) describe(type, backlog);
  for (OutputBase* output : outputs_) describe(type, output);
  type.attribute("taskScheduler",
                 [](const Pipeline& p) { return std::string(p.taskScheduler_ ? "TaskScheduler" : "None"); })
      .attribute("taskPriority", &Pipeline::taskPriority)
      .attribute("synchronous", &Pipeline::synchronous)
      .attribute("initialScanDone", &Pipeline::initialScanDone)
      .attribute("initialized", &Pipeline::initialized)
      .attribute("ready", &Pipeline::ready)
      .attribute("idle", &Pipeline::idle)
      .attribute("hasNotificationActive", &Pipeline::hasNotificationActive)
      .operation("handleInitialized", &Pipeline::handleInitialized)
      .operation("handleInitialScanDone", &Pipeline::handleInitialScanDone)
      .operation("doDeleteAll", &Pipeline::doDeleteAll)
      .question("conflicts", [](const Pipeline& p) {
        std::string lines;
        for (const std::string& conflict : p.conflicts()) lines += conflict + "\n";
        return lines;
      });
  for (size_t i = 0; i < streams_.size(); ++i) {
    type.attribute(streams_[i] + "Scan", [i](const Pipeline& p) { return p.streamScanned(i); });
  }
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
