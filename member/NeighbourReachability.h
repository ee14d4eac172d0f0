// Whether a neighbour is reachable over one interface: a state machine, fed with the interface's carrier and
// with the outcome of echoes, one after the other. No I/O, no timers; time comes from the clock.
//
//   disabled      the interface is switched off: in the configuration, or administratively (IFF_UP)
//   unreachable   no interface of that name, no carrier on it, or so many echoes lost in a row; also when
//                 there is carrier again, until the neighbour answers
//   initializing  the interface was found with carrier, or switched on with it, or echoes can be sent again,
//                 and it is not decided yet whether the neighbour answers
//   reachable     the neighbour answers
//   degraded      the neighbour answers, but of the last echoes some were lost
//   unknown       it cannot be found out: nothing is known of the interface yet, or echoes cannot be sent or
//                 do not come to their end
//
// That carrier goes counts at once, as the administrative state does; that it is back counts for nothing
// until echoes are answered, and these count with hysteresis, so that a link that flaps stays unreachable,
// and one lost echo changes nothing. Losses count in a row for going down, within a window for being
// degraded; from unreachable or initializing it takes answers in a row to come up; degraded ends when no echo
// of the window was lost.
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
    uint32_t lossesDown = 3;    // lost in a row: unreachable; not sent in a row: unknown
    uint32_t answersUp = 3;     // answered in a row: reachable
    uint32_t window = 20;       // echoes that are looked back at
    uint32_t windowLosses = 2;  // lost among them, and yet answered: degraded
    bool operator==(const Settings&) const = default;
  };

  // The clock outlives this.
  NeighbourReachability(const Settings& settings, const Zavro::Clock& clock);

  // From now on these count; what is known stays, unless it is switched on or off by them.
  void settingsIs(const Settings& settings);
  void carrierIs(Carrier carrier);
  // Ignored unless there is carrier: it was sent before that went.
  void echoIs(Echo echo);

  // Whether echoes are to be sent.
  bool probing() const { return settings_.enabled && carrier_ == Carrier::up; }
  State state() const { return state_; }
  // When the state changed last, or this was made; in nanoseconds since 1970 UTC.
  uint64_t lastChangeNs() const { return lastChangeNs_; }

 private:
  void stateIs(State state);
  void answered();
  void forgetEchoes();
  bool up() const { return state_ == State::reachable || state_ == State::degraded; }
  uint32_t lossesInWindow() const;

  Settings settings_;
  const Zavro::Clock& clock_;
  std::optional<Carrier> carrier_;  // nothing: not known yet
  State state_;
  uint64_t lastChangeNs_;
  Echo last_ = Echo::answered;
  uint32_t inRow_ = 0;       // echoes that ended as the last one
  std::deque<bool> window_;  // of the last echoes, since the neighbour came up: whether it was lost
};

}  // namespace Member
