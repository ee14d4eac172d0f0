#include "member/NeighbourReachability.h"

#include <algorithm>
#include <utility>

namespace Member {
namespace {

// Less is a clock that is adjusted slowly.
constexpr int64_t kMostDriftNs = 1'000'000'000;

int rankOf(NeighbourReachability::State state) {
  using State = NeighbourReachability::State;
  switch (state) {
    case State::disabled:
    case State::unreachable:
      return 0;
    case State::unknown:
    case State::unrecognized:  // nobody here says it
      return 1;
    case State::initializing:
      return 2;
    case State::degraded:
      return 3;
    case State::reachable:
      return 4;
  }
  return 0;
}

}  // namespace

NeighbourReachability::NeighbourReachability(const Settings& settings, const Zavro::Clock& clock)
    : settings_(settings),
      clock_(clock),
      state_(settings.enabled ? State::unknown : State::disabled),
      lastChangeNs_(clock.utcNs()),
      startNs_(clock.utcNs() - clock.monotonicNs()) {}

void NeighbourReachability::settingsIs(const Settings& settings) {
  bool switchedOn = settings.enabled && !settings_.enabled;
  settings_ = settings;
  while (window_.size() > settings_.window) window_.pop_front();
  if (!settings_.enabled) {
    forgetEchoes();
    return stateIs(State::disabled);
  }
  if (!switchedOn) return;
  stateIs(State::unknown);
  if (auto known = std::exchange(carrier_, std::nullopt)) carrierIs(*known);
}

void NeighbourReachability::carrierIs(Carrier carrier) {
  if (carrier_ == carrier) return;
  std::optional<Carrier> before = std::exchange(carrier_, carrier);
  forgetEchoes();
  if (!settings_.enabled) return;
  switch (carrier) {
    case Carrier::switchedOff:
      return stateIs(State::disabled);
    case Carrier::missing:
    case Carrier::down:
      return stateIs(State::unreachable);
    case Carrier::up:
      // A device that comes and goes by itself is no operator's.
      if (before == Carrier::missing) return foundIs(State::initializing);
      if (before != Carrier::down) stateIs(State::initializing);
      return;
  }
}

void NeighbourReachability::echoIs(Echo echo) {
  if (!probing()) return;
  inRow_ = echo == last_ ? inRow_ + 1 : 1;
  last_ = echo;
  if (up() && echo != Echo::notSent) {
    window_.push_back(echo == Echo::lost);
    if (window_.size() > settings_.window) window_.pop_front();
  }
  switch (echo) {
    case Echo::answered:
      return answered();
    case Echo::lost:
      if (state_ == State::unknown) foundIs(State::initializing);
      if (inRow_ >= settings_.lossesDown) foundIs(State::unreachable);
      return;
    case Echo::notSent:
      if (inRow_ >= settings_.lossesDown) foundIs(State::unknown);
      return;
  }
}

void NeighbourReachability::earlierIs(State state, uint64_t lastChangeNs) {
  lookAtClock();
  bool isFound = state == State::reachable || state == State::degraded || state == State::unreachable;
  if (state_ == State::initializing && isFound) {
    stateIs(state);
    if (state == State::degraded) window_.assign(settings_.windowLosses, true);
  }
  if (state_ == state) lastChangeNs_ = std::min(lastChangeNs_, lastChangeNs);
}

void NeighbourReachability::lookAtClock() {
  uint64_t start = clock_.utcNs() - clock_.monotonicNs();
  auto later = static_cast<int64_t>(start - startNs_);
  if (later >= -kMostDriftNs && later <= kMostDriftNs) return;
  startNs_ = start;
  bool before1970 = later < 0 && lastChangeNs_ < static_cast<uint64_t>(-later);
  lastChangeNs_ = before1970 ? 0 : lastChangeNs_ + static_cast<uint64_t>(later);
}

void NeighbourReachability::answered() {
  if (state_ == State::unknown) foundIs(State::initializing);
  if (!up()) {
    if (inRow_ >= settings_.answersUp) foundIs(State::reachable);
    return;
  }
  uint32_t losses = lossesInWindow();
  if (losses >= settings_.windowLosses) return foundIs(State::degraded);
  if (losses == 0) foundIs(State::reachable);
}

// A change that nobody asked for.
void NeighbourReachability::foundIs(State state) {
  bool better = rankOf(state) > rankOf(state_) && state_ != State::initializing;
  if (better && !mayImprove()) {
    heldBack_ = true;
    return;
  }
  stateIs(state);
}

bool NeighbourReachability::mayImprove() {
  uint64_t nowNs = clock_.monotonicNs();
  uint64_t usedNs = std::max(improvementsNs_, nowNs) + kOnceInNs;
  if (usedNs > nowNs + kAtOnce * kOnceInNs) return false;
  improvementsNs_ = usedNs;
  return true;
}

void NeighbourReachability::stateIs(State state) {
  heldBack_ = false;
  if (state_ == state) return;
  lookAtClock();
  if (!up()) window_.clear();  // the losses of the time before it came up
  if (state == State::disabled) improvementsNs_ = 0;
  state_ = state;
  lastChangeNs_ = clock_.utcNs();
}

void NeighbourReachability::forgetEchoes() {
  inRow_ = 0;
  window_.clear();
}

uint32_t NeighbourReachability::lossesInWindow() const {
  return static_cast<uint32_t>(std::count(window_.begin(), window_.end(), true));
}

}  // namespace Member
