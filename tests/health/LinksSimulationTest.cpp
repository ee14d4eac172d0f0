// Random changes of a small cluster's links. After each look all that is known of every link is what follows
// from the inputs alone, worked out from the beginning, pair by pair.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "health/Links.h"
#include "tests/support/Random.h"

namespace Health {
namespace {

using Trel::MemberId;
using State = Trel::ReachabilityState::State;

constexpr uint8_t kMembers = 5;
constexpr int kLooks = 400;
constexpr int kSeeds = 30;

struct Report {
  State state;
  std::string interface;  // "": none
  uint64_t atNs;
};

// The inputs by themselves. Shares nothing with what it is compared with but the verdicts' names.
class Model {
 public:
  using Key = std::pair<int, int>;
  std::map<Key, std::string> wired;
  std::map<Key, Report> reports;
  std::map<std::string, uint32_t> indexes;

  std::string interface(Key end) const {
    if (wired.contains(end)) return wired.at(end);
    return reports.contains(end) ? reports.at(end).interface : "";
  }
  uint32_t index(Key end) const {
    auto at = indexes.find(interface(end));
    return at == indexes.end() ? 0 : at->second;
  }
  bool exists(Key end) const { return wired.contains(end) || reports.contains(end); }

  // How many ends have each ifIndex.
  std::map<uint32_t, int> users() const {
    std::map<uint32_t, int> all;
    for (int from = 0; from < kMembers; ++from) {
      for (int to = 0; to < kMembers; ++to) {
        if (from != to) ++all[index({from, to})];
      }
    }
    return all;
  }

  std::string verdict(int low, int high, const std::map<uint32_t, int>& users) const {
    std::vector<Key> ends = {{low, high}, {high, low}};
    int says = 0, isWired = 0, carries = 0, carriesNot = 0, unreachable = 0, none = 0;
    bool crossed = false, shared = false;
    for (const Key& end : ends) {
      isWired += wired.contains(end) ? 1 : 0;
      uint32_t ifIndex = index(end);
      none += ifIndex == 0 ? 1 : 0;
      shared |= ifIndex != 0 && users.at(ifIndex) > 1;
      auto report = reports.find(end);
      if (report == reports.end()) continue;
      ++says;
      std::string state = Kor::nameOf(report->second.state);
      carries += state == "reachable" || state == "degraded" ? 1 : 0;
      carriesNot += state == "unreachable" || state == "disabled" ? 1 : 0;
      unreachable += state == "unreachable" ? 1 : 0;
      if (wired.contains(end) && !report->second.interface.empty())
        crossed |= report->second.interface != wired.at(end);
    }
    if (crossed) return "miswired";
    if (unreachable > 0 && carries == 0) return "down";
    if (carries == 1 && carriesNot == 1) return "statesDiffer";
    if (says == 1 || isWired == 1) return "oneSided";
    if (shared) return "sharedIndex";
    return none > 0 ? "noIndex" : "ok";
  }
};

struct Known {
  std::string verdict;
  uint64_t sinceNs = 0;
  uint64_t changes = 0;
  std::map<int, uint32_t> stateChanges{};  // by the end's member
};

class LinksRun {
 public:
  explicit LinksRun(uint64_t seed) : random_(seed) {}

  void play() {
    for (int look = 0; look < kLooks && !testing::Test::HasFailure(); ++look) {
      for (uint32_t left = random_.below(6); left > 0; --left) step();
      now_ += 1 + random_.below(1000);
      links_.look(now_);
      judge();
      ASSERT_EQ(shown(), expected());
    }
  }

 private:
  void step() {
    Model::Key end(static_cast<int>(random_.below(kMembers)), static_cast<int>(random_.below(kMembers)));
    auto [from, to] =
        std::pair(MemberId(static_cast<uint8_t>(end.first)), MemberId(static_cast<uint8_t>(end.second)));
    switch (random_.below(10)) {
      case 0:
      case 1:
      case 2: {
        std::string name = interfaceOf(end);
        links_.wiredIs(from, to, Lanix::IntfId(name));
        if (from != to) model_.wired[end] = name;
        break;
      }
      case 3:
        links_.wiredIs(from, to, std::nullopt);
        model_.wired.erase(end);
        break;
      case 4:
        links_.reportIs(from, to, nullptr);
        if (model_.reports.erase(end) != 0) stateChanged(end);
        break;
      case 5:
      case 6: {
        std::string name = interfaceOf(end);
        uint32_t index = random_.percent(20) ? 0 : 1 + random_.below(12);
        links_.ifIndexIs(Lanix::IntfId(name), index);
        model_.indexes.erase(name);
        if (index != 0) model_.indexes[name] = index;
        break;
      }
      default:
        report(end, from, to);
    }
  }

  void report(const Model::Key& end, MemberId from, MemberId to) {
    constexpr std::array kStates = {State::unknown,     State::initializing, State::reachable,
                                    State::degraded,    State::unreachable,  State::disabled,
                                    State::unrecognized};
    State state = random_.percent(50) ? State::reachable : random_.of(kStates);
    std::string name = random_.percent(30) ? "" : interfaceOf(end);
    std::optional<Lanix::IntfId> interface;
    if (!name.empty()) interface = Lanix::IntfId(name);
    links_.reportIs(from, to, Zavro::makePtr<const Trel::ReachabilityState>(state, interface, now_));
    if (from == to) return;
    auto before = model_.reports.find(end);
    if (before == model_.reports.end() || before->second.state != state) stateChanged(end);
    model_.reports[end] = {state, name, now_};
  }

  // Mostly the right one; else one of its member's, or any.
  std::string interfaceOf(const Model::Key& end) {
    auto any = [this] { return static_cast<int>(random_.below(kMembers)); };
    int from = random_.percent(95) ? end.first : any();
    int to = random_.percent(80) ? end.second : any();
    return fmt::format("Backplane{}/{}", from, to);
  }

  void stateChanged(const Model::Key& end) {
    auto known = known_.find(std::minmax(end.first, end.second));
    if (known != known_.end()) ++known->second.stateChanges[end.first];
  }

  void judge() {
    const auto users = model_.users();
    for (int low = 0; low < kMembers; ++low) {
      for (int high = low + 1; high < kMembers; ++high) {
        std::pair<int, int> pair(low, high);
        if (!model_.exists({low, high}) && !model_.exists({high, low})) {
          known_.erase(pair);
          continue;
        }
        std::string verdict = model_.verdict(low, high, users);
        auto [at, isNew] = known_.emplace(pair, Known{verdict, now_});
        if (at->second.verdict == verdict) continue;
        at->second.verdict = verdict;
        at->second.sinceNs = now_;
        ++at->second.changes;
      }
    }
  }

  std::string expected() {
    std::string text;
    std::map<std::string, size_t> counts;
    for (auto& [pair, known] : known_) {
      ++counts[known.verdict];
      text += fmt::format("{}-{} {} since {}, {} changes", pair.first, pair.second, known.verdict,
                          known.sinceNs, known.changes);
      for (auto end : {pair, std::pair(pair.second, pair.first)}) {
        auto report = model_.reports.find(end);
        bool says = report != model_.reports.end();
        text += fmt::format("; {} {} {} at {}, {} changes", model_.interface(end), model_.index(end),
                            says ? Kor::nameOf(report->second.state) : "-", says ? report->second.atNs : 0,
                            known.stateChanges[end.first]);
      }
      text += "\n";
    }
    return text + lines(counts);
  }

  std::string shown() const {
    std::string text;
    for (const auto& [pair, link] : links_.all()) {
      text += fmt::format("{}-{} {} since {}, {} changes", pair.first.id(), pair.second.id(),
                          Kor::nameOf(link.verdict), link.sinceUtcNs, link.changes);
      for (const LinkEnd* end : {&link.low, &link.high}) {
        text += fmt::format("; {} {} {} at {}, {} changes", end->interface() ? end->interface()->name() : "",
                            end->ifIndex, end->state() ? Kor::nameOf(*end->state()) : "-",
                            end->report ? end->report->lastChangeNs() : 0, end->changes);
      }
      text += "\n";
    }
    std::map<std::string, size_t> counts;
    for (size_t i = 0; i < links_.counts().size(); ++i) {
      if (links_.counts()[i] != 0) counts[std::string(Kor::kNames<LinkVerdict>[i])] = links_.counts()[i];
    }
    return text + lines(counts);
  }

  static std::string lines(const std::map<std::string, size_t>& counts) {
    std::string text;
    for (const auto& [verdict, count] : counts) text += fmt::format("{} {}\n", count, verdict);
    return text;
  }

  Support::Random random_;
  uint64_t now_ = 1;
  Links links_;
  Model model_;
  std::map<std::pair<int, int>, Known> known_;
};

TEST(LinksSimulation, AllThatIsKnownFollowsFromTheInputs) {
  // Others with --gtest_random_seed=N.
  int first = GTEST_FLAG_GET(random_seed) * kSeeds;
  for (int seed = first; seed < first + kSeeds; ++seed) {
    SCOPED_TRACE(fmt::format("seed {}", seed));
    LinksRun(static_cast<uint64_t>(seed)).play();
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace Health
