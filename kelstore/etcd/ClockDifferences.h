// How far the clocks of members are ahead of this machine's, judged by the times that they publish. No clock,
// I/O or thread.
//
// A time is published a moment before it arrives, so a member's clock is at least as far ahead as the time
// shows, and hardly further than the greatest of the recent times shows. That one counts once kAgreeing of
// the last kRecent show the same to within kAgreeSeconds: neither old times that a watch catches up with nor
// a single wrong one count, and a clock that is set counts after a few more times.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Kelstore::Etcd {

class ClockDifferences final {
 public:
  static constexpr size_t kRecent = 8;
  static constexpr size_t kAgreeing = 3;
  static constexpr double kAgreeSeconds = 2;
  // Differences below this are not corrected, and a correction changes by no less: they may be delays, and
  // each change changes rows.
  static constexpr double kLeastSeconds = 2;
  // Of the moment between reading a clock and publishing it.
  static constexpr double kLeastErrorSeconds = 1;

  struct Difference {
    double aheadSeconds = 0;  // negative: behind
    double errorSeconds = 0;
    bool operator==(const Difference&) const = default;
  };
  // This machine's clocks.
  struct Now {
    double utcSeconds = 0;
    double monotonicSeconds = 0;
  };

  // To be told before what happens then. If this machine's clock was set, nothing is known of any member any
  // more. The members whose correction has changed by that.
  std::vector<std::string> clocksAre(const Now& now);
  // A member has published its time just now. One that it published before says nothing. Returns whether the
  // correction has changed.
  bool published(const std::string& member, double utcSeconds, const Now& now);
  // What is known of a member; nothing: too little.
  std::optional<Difference> of(const std::string& member) const;
  // What is to be taken off a member's times.
  double correctionSeconds(const std::string& member) const;

 private:
  struct Member {
    double lastSeconds = 0;       // published
    std::deque<double> recent{};  // how far the last times were ahead
    std::optional<Difference> difference{};
    double correctionSeconds = 0;
  };
  static std::optional<Difference> differenceIn(const std::deque<double>& recent);

  std::map<std::string, Member> members_;
  std::optional<double> startSeconds_;  // when this machine's monotonic clock was 0
};

}  // namespace Kelstore::Etcd
