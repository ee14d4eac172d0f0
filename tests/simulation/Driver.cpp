#include "tests/simulation/Driver.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <optional>

#include "platform/snmp/AgentUptime.h"
#include "platform/snmp/KelstoreUtil.h"
#include "platform/snmp/RegVoidCollByContext.h"
#include "platform/toggles/Toggles.h"
#include "tests/simulation/AgentSteps.h"
#include "tests/simulation/Observer.h"
#include "tests/simulation/Tasks.h"
#include "tests/simulation/Walks.h"
#include "tests/support/BareAgent.h"
#include "tests/support/Random.h"

namespace Simulation {
namespace {

using HostResourcesMib::StorageEntryMappings;

constexpr size_t kMostSlices = 100000;  // until all is at rest
constexpr uint64_t kMsNs = 1'000'000;

struct Armed {
  uint64_t at;  // the publication
  Step step;
};

class Driver {
 public:
  Driver(const Scenario& scenario, const std::function<void(std::string_view)>& log)
      : conditions_(scenario.conditions),
        log_(log),
        mappings_(mappings()),
        state_(conditions_, clock_, mappings_) {
    observer_ = std::make_unique<Observer>(state_, log);
    observer_->onPublication([this] { fireArmed(); });
    state_.onMapping([this](size_t set, uint32_t index) { observer_->remapped(set, index); });
    Lumalog::clockIs(&clock_);
    Vem::TaskSchedulerRoot::schedulerIs(tasks_.scheduler());
    walks_.emplace(state_, *observer_, trelDir_);
    agent_.emplace(conditions_, state_, *observer_, trelDir_, tasks_.scheduler(),
                   [this] { walks_->unregister(); });
    snmpDir_->entityPtrIs(trelDir_);
    stateRoot_->entityPtrIs(snmpDir_);
    Snmp::KelstoreUtil::rootIs(stateRoot_, Zavro::makePtr<const Snmp::Config>("switch-1"));
  }
  ~Driver() {
    if (!ended_) std::abort();  // run() leaves through end() or not at all
  }

  Outcome run(const std::vector<Step>& steps) {
    Outcome outcome;
    for (const Step& step : steps) {
      if (failed()) break;
      ++outcome.failedAt;
      make(step);
    }
    if (!failed()) end();
    ended_ = true;
    outcome.failure = observer_ ? observer_->failure() : failure_;
    outcome.events = events_;
    outcome.publications = publications_;
    outcome.digest = digest_;
    return outcome;
  }

 private:
  static Zavro::Ptr<StorageEntryMappings> mappings() {
    return boost::static_pointer_cast<StorageEntryMappings>(
        Kor::Entity::singletonIs(StorageEntryMappings::kTypeName));
  }
  bool failed() const { return !observer_->failure().empty(); }

  // -- Steps

  void make(const Step& step) {
    if (step.within != 0) {
      armed_.push_back({observer_->publications() + step.within, step});
      return;
    }
    if (!apply(step)) return;
    ++events_;
    observer_->stepEnds(tasks_.settled());
  }

  void fireArmed() {
    for (size_t i = 0; i < armed_.size(); ++i) {
      if (armed_[i].at > observer_->publications()) continue;
      Step step = armed_[i].step;
      armed_.erase(armed_.begin() + static_cast<long>(i--));
      if (apply(step)) ++events_;
      if (failed()) return;
    }
  }

  // False when the step did nothing.
  bool apply(const Step& step) {
    if (log_) log_("== " + step.text());
    if (step.kind < Kind::clock) {
      stateChanges(step.kind);
      return state_.apply(step);
    }
    switch (step.kind) {
      case Kind::clock:
        clock_.advanceNs(step.value * kMsNs);
        return true;
      case Kind::slice:
        return tasks_.slice(step.item, yieldModeIn(step), step.value);
      case Kind::drain:
        return drain(step);
      case Kind::status:
        state_.set(step.set % kSets).status->initializedIs(step.value != 0);
        return true;
      default:
        return step.kind >= Kind::walkFirst ? walks_->apply(step) : agent_->apply(step);
    }
  }

  void stateChanges(Kind kind) {
    if (kind <= Kind::reachOutside) {
      observer_->stateChanged(PipelineId::reachability);
    } else if (kind <= Kind::ifIndexDel) {
      observer_->stateChanged(PipelineId::ifTable);
    } else {
      observer_->stateChanged(PipelineId::host);
      observer_->stateChanged(PipelineId::storage);
    }
  }

  // -- Tasks

  static YieldMode yieldModeIn(const Step& step) { return static_cast<YieldMode>(step.key % kYieldModes); }

  bool drain(const Step& step) {
    Support::Random random(step.value);
    bool any = false;
    for (uint32_t i = 0; i < step.item && !failed(); ++i) {
      auto draw = static_cast<uint32_t>(random.any());
      if (!tasks_.slice(static_cast<uint32_t>(random.any()), yieldModeIn(step), draw)) break;
      any = true;
      ++events_;
      observer_->stepEnds(tasks_.settled());
    }
    return any;
  }

  void rest() {
    for (size_t i = 0; !failed() && !tasks_.settled(); ++i) {
      if (i == kMostSlices) return observer_->fail("the tasks do not come to an end");
      drain({.kind = Kind::drain,
             .key = static_cast<uint32_t>(YieldMode::rarely),
             .item = 100,
             .value = static_cast<uint32_t>(i)});
    }
  }

  // -- The end

  void end() {
    agent_->resumeAll();
    rest();
    for (PipelineId id : kAllPipelines) observer_->stateChanged(id);
    observer_->stepEnds(true);
    if (failed()) return;
    agent_->dropAll();
    observer_->stepEnds(false);
    walks_->unregister();
    walks_.reset();
    agent_.reset();
    if (failed()) return;
    if (!tasks_.scheduler()->tasks().empty()) {
      return observer_->fail(fmt::format("task {} is left", tasks_.scheduler()->tasks().front()->name()));
    }
    if (!Rvx::GlobalState::get().registry().empty()) return observer_->fail("declared derivations are left");
    endOfProcessWide();
  }

  void endOfProcessWide() {
    Vem::TaskSchedulerRoot::schedulerIs(nullptr);
    Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
    Kor::Entity::singletonDel(Snmp::RegVoidCollByContext::kTypeName);
    Kor::Entity::singletonDel(StorageEntryMappings::kTypeName);
    trelDir_->entityPtrDel("trelMib");
    publications_ = observer_->publications();
    digest_ = observer_->digest();
    observer_.reset();
    failure_ = state_.leftovers();
    if (tasks_.scheduler()->useCount() != 1) failure_ += "references to the scheduler are left; ";
    if (mappings_->useCount() != 1) failure_ += "references to the mappings are left; ";
  }

  const Conditions conditions_;
  const std::function<void(std::string_view)> log_;
  Zavro::ManualClock clock_{kAgentStart * 1'000'000'000};
  Snmp::AgentUptime uptime_{
      clock_, [this] {
        return Zavro::Duration(static_cast<double>(clock_.utcNs() - kAgentStart * 1'000'000'000) / 1e9);
      }};
  Tasks tasks_{clock_};
  Zavro::Ptr<StorageEntryMappings> mappings_;
  State state_;
  std::unique_ptr<Observer> observer_;
  Zavro::Ptr<Kor::Dir> stateRoot_ = Zavro::makePtr<Kor::Dir>("switch-1");
  Zavro::Ptr<Kor::Dir> snmpDir_ = Zavro::makePtr<Kor::Dir>("snmp");
  Zavro::Ptr<Kor::Dir> trelDir_ = Zavro::makePtr<Kor::Dir>("trel");
  std::optional<AgentSteps> agent_;
  std::optional<Walks> walks_;
  std::deque<Armed> armed_;
  bool ended_ = false;
  uint64_t events_ = 0;
  uint64_t publications_ = 0;
  uint64_t digest_ = 0;
  std::string failure_;
};

// The path of a file of this content that is gone when the process is, however it ends.
std::string unnamedFile(const std::string& content) {
  int file = memfd_create("TrelCore.json", MFD_CLOEXEC);
  if (file < 0 || write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    throw std::runtime_error("cannot write the toggles");
  }
  return fmt::format("/proc/self/fd/{}", file);
}

}  // namespace

void prepareProcess(const Conditions& conditions) {
  static const bool prepared = [&conditions] {
    Support::startBareAgent("simulation");
    Toggles::fileIs("TrelCore.json",
                    unnamedFile(fmt::format(R"({{"TrelHrStorageSnmp": {}, "TrelHrMemStorage": {}}})",
                                            conditions.storageToggle, conditions.memoryToggle)));
    return true;
  }();
  static_cast<void>(prepared);
}

Outcome run(const Scenario& scenario, const std::function<void(std::string_view)>& log) {
  // After a failure nothing is what it seems, and its end might never come.
  auto driver = std::make_unique<Driver>(scenario, log);
  Outcome outcome = driver->run(scenario.steps);
  if (!outcome.failure.empty()) static_cast<void>(driver.release());
  return outcome;
}

}  // namespace Simulation
