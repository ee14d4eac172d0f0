// Whether a neighbour is reachable over one interface: a state machine whose inputs are the interface's
// carrier and the results of echoes. No I/O, no timers. On one thread.
//
//   disabled      the interface is switched off, in the configuration or administratively (IFF_UP)
//   unreachable   no such interface, no carrier, or lossesDown echoes lost in a row; when carrier is back, it
//                 stays so until the neighbour answers
//   initializing  the interface appeared or was switched on with carrier, or echoes can be sent again; it is
//                 not decided yet whether the neighbour answers
//   reachable     the neighbour answers
//   degraded      the neighbour answers, but windowLosses of the last `window` echoes were lost
//   unknown       nothing is known of the interface yet, or lossesDown echoes in a row could not be sent or
//                 have no result, for a reason of this machine's own
//
// Loss of carrier and the administrative state count at once. Everything else has hysteresis, so that a link
// that flaps stays unreachable and one lost echo changes nothing: a link comes up after answersUp answers in
// a row, goes down after lossesDown losses in a row, and is no longer degraded when the window has no loss.
//
// Every change is written, and read by all members, so their number is bounded: what is worse counts at once,
// but of the changes for the better only the first kAtOnce do, and later ones once in kOnceInNs. In between,
// the state stays as bad as it was at worst. Worse is, from the best: reachable, degraded, initializing,
// unknown, unreachable. What follows initializing always counts, as does what an operator switches on or off.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include "platform/trel/Reachability.h"
#include "platform/zavro/Clock.h"

namespace Member {

// What is known of an interface.
enum class Carrier : uint8_t { missing, switchedOff, down, up };

enum class Echo : uint8_t { answered, lost, notSent };

class NeighbourReachability final {
 public:
  using State = Trel::ReachabilityState::State;

  struct Settings {
    bool enabled = true;
    uint32_t lossesDown = 3;    // echoes: lost in a row, unreachable; not sent in a row, unknown
    uint32_t answersUp = 3;     // echoes answered in a row: reachable
    uint32_t window = 20;       // the last echoes, whose losses count
    uint32_t windowLosses = 2;  // lost among them: degraded
    bool operator==(const Settings&) const = default;
  };

  static constexpr uint64_t kAtOnce = 4;
  static constexpr uint64_t kOnceInNs = 60'000'000'000;

  // The clock outlives this.
  NeighbourReachability(const Settings& settings, const Zavro::Clock& clock);

  // Sets the settings. The state stays, unless they enable or disable the neighbour.
  void settingsIs(const Settings& settings);
  void carrierIs(Carrier carrier);
  // Ignored unless probing().
  void echoIs(Echo echo);
  // Sets what an earlier process found, and when: it holds until this one has found anything else, and counts
  // as if it had been found just now. Ignored if something else was found already.
  void earlierIs(State state, uint64_t lastChangeNs);

  // Whether echoes are to be sent.
  bool probing() const { return settings_.enabled && carrier_ == Carrier::up; }
  State state() const { return state_; }
  // Whether a better state is due, but the state changed too often.
  bool heldBack() const { return heldBack_; }
  // When the state changed last, or this was created; since 1970 UTC.
  uint64_t lastChangeNs() const { return lastChangeNs_; }
  // Looks whether the time of day was set: what is known in the time of before is then told in that of now.
  void lookAtClock();

 private:
  void stateIs(State state);
  void foundIs(State state);
  bool mayImprove();
  void answered();
  void forgetEchoes();
  bool up() const { return state_ == State::reachable || state_ == State::degraded; }
  uint32_t lossesInWindow() const;

  Settings settings_;
  const Zavro::Clock& clock_;
  std::optional<Carrier> carrier_;  // nothing: not known yet
  State state_;
  uint64_t lastChangeNs_;
  uint64_t startNs_;  // of the monotonic clock, in the time of day; modulo 2^64
  bool heldBack_ = false;
  uint64_t improvementsNs_ = 0;  // monotonic: until when they count, kOnceInNs each
  Echo last_ = Echo::answered;
  uint32_t inRow_ = 0;       // echoes in a row with the result last_
  std::deque<bool> window_;  // whether each of the last echoes was lost, since the neighbour came up
};

}  // namespace Member
