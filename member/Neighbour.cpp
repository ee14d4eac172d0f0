#include "member/Neighbour.h"

#include <utility>

#include "member/Trace.h"
#include "platform/zavro/Assert.h"
#include "runtime/Errors.h"
#include "runtime/Text.h"

namespace Member {
namespace {

using Lumalog::kErrorLevel;
constexpr int kChangeLevel = 1;
// Intervals after which an echo without a result counts as not sent.
constexpr int kOverdue = 3;

Carrier carrierOf(const std::optional<Device>& device) {
  if (!device) return Carrier::missing;
  if (!device->switchedOn) return Carrier::switchedOff;
  return device->carrier ? Carrier::up : Carrier::down;
}

Echo echoOf(const absl::StatusOr<bool>& answer) {
  if (!answer.ok()) return Echo::notSent;
  return *answer ? Echo::answered : Echo::lost;
}

}  // namespace

Neighbour::Neighbour(NeighbourConfig config, std::shared_ptr<EchoProbe> probe, Runtime::Io& io,
                     const Zavro::Clock& clock, std::function<void()> changed)
    : config_(std::move(config)),
      probe_(std::move(probe)),
      io_(io),
      changed_(std::move(changed)),
      reachability_(config_.probe.counting, clock) {}

void Neighbour::configIs(const NeighbourConfig& config) {
  zavroAssert(config.isSameLink(config_));
  if (config == config_) return;
  NeighbourReachability::State before = reachability_.state();
  config_ = config;
  reachability_.settingsIs(config_.probe.counting);
  next_.reset();
  if (reachability_.probing()) ask();
  tellChange(before);
}

void Neighbour::deviceIs(std::optional<Device> device) {
  NeighbourReachability::State before = reachability_.state();
  if (device != device_) ++round_;
  device_ = device;
  tellIndex();
  reachability_.carrierIs(carrierOf(device_));
  if (!reachability_.probing()) {
    next_.reset();
  } else if (!next_) {
    ask();
  }
  tellChange(before);
}

// The machine's own IF-MIB knows the interface by the device's number.
void Neighbour::tellIndex() {
  if (!device_) return;
  std::pair<uint32_t, uint32_t> indexes(ifIndex(), device_->index);
  if (indexes == toldIndexes_ || indexes.first == indexes.second) return;
  toldIndexes_ = indexes;
  traceHandle.trace(kChangeLevel, "interface {}: published with ifIndex {}; this machine has {} as {}",
                    Runtime::escaped(config_.interface), indexes.first, config_.device, indexes.second);
}

// No second echo is sent while one has no result.
void Neighbour::ask() {
  next_ = io_.after(config_.probe.intervalMs, [this] { ask(); });
  if (asking_) {
    if (++overdue_ >= kOverdue) asked(absl::DeadlineExceededError("an echo does not come to its end"));
    return;
  }
  asking_ = true;
  overdue_ = 0;
  EchoTarget target{config_.address, config_.device, std::chrono::milliseconds(config_.probe.timeoutMs)};
  offLoop_.run([probe = probe_, target] { return probe->ask(target); },
               [this, round = round_](const absl::StatusOr<bool>& answer) {
                 asking_ = false;
                 if (round == round_) asked(answer);
               });
}

void Neighbour::asked(const absl::StatusOr<bool>& answer) {
  tellFailure(answer.status());
  NeighbourReachability::State before = reachability_.state();
  reachability_.echoIs(echoOf(answer));
  tellHeldBack();
  tellChange(before);
}

// Over after as many results in a row as failures make the state unknown, so that a failure that comes and
// goes is told once.
void Neighbour::tellFailure(const absl::Status& status) {
  if (!status.ok()) {
    resultsSinceFailure_ = 0;
    if (std::exchange(failing_, true)) return;
    return traceHandle.trace(kErrorLevel, "member {}: {}", config_.member, Runtime::textOf(status));
  }
  if (!failing_ || ++resultsSinceFailure_ < config_.probe.counting.lossesDown) return;
  failing_ = false;
  traceHandle.trace(kChangeLevel, "member {}: echoes have results again", config_.member);
}

void Neighbour::tellChange(NeighbourReachability::State before) {
  NeighbourReachability::State now = reachability_.state();
  if (now == before) return;
  toldHeldBack_ = false;
  traceHandle.trace(kChangeLevel, "member {} is {} on {}, it was {}", config_.member, Kor::nameOf(now),
                    config_.device, Kor::nameOf(before));
  changed_();
}

// Once, however often it comes and goes, until its state changes.
void Neighbour::tellHeldBack() {
  if (!reachability_.heldBack() || std::exchange(toldHeldBack_, true)) return;
  traceHandle.trace(kChangeLevel, "member {} stays {} on {} for up to a minute: its state changes too often",
                    config_.member, Kor::nameOf(reachability_.state()), config_.device);
}

}  // namespace Member
