#include "programs/trelctl/Verdict.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "programs/trelctl/Render.h"

namespace TrelCtl {
namespace {

// Clocks that differ by less hardly matter to anybody who compares times.
constexpr double kClockSeconds = 5;
// Of one verdict, in a reason.
constexpr size_t kLinksShown = 8;

std::string textAt(const Json& object, const char* name) {
  auto at = object.find(name);
  return at == object.end() || at->is_null() ? "" : cell(*at);
}

std::string since(const Json& object, const char* name) {
  std::string time = textAt(object, name);
  return time.empty() ? "" : " since " + time;
}

std::string andError(const Json& object) {
  std::string error = textAt(object, "error");
  return error.empty() ? "" : ": " + error;
}

bool isStore(const Json& status, const Json& source) {
  const Json& stores = status.at("stores");
  return std::any_of(stores.begin(), stores.end(),
                     [&](const Json& store) { return store.at("source") == source.at("name"); });
}

class Reasons final {
 public:
  explicit Reasons(const Json& status) : status_(status) {}

  Judgement found() && {
    agent();
    for (const Json& source : status_.at("sources")) ofSource(source);
    pipelines();
    values();
    collectors();
    stores();
    members();
    cluster();
    links();
    for (const Json& conflict : status_.at("conflicts")) degraded("conflict", textAt(conflict, "conflict"));
    auto worse = [](const Reason& a, const Reason& b) { return a.verdict > b.verdict; };
    std::stable_sort(judgement_.reasons.begin(), judgement_.reasons.end(), worse);
    if (!judgement_.reasons.empty()) judgement_.verdict = judgement_.reasons.front().verdict;
    return std::move(judgement_);
  }

 private:
  void add(Verdict verdict, const char* code, std::string text) {
    judgement_.reasons.push_back({verdict, code, std::move(text)});
  }
  void degraded(const char* code, std::string text) { add(Verdict::degraded, code, std::move(text)); }
  void notServing(const char* code, std::string text) { add(Verdict::notServing, code, std::move(text)); }

  void agent() {
    if (status_.at("connected") == true) return;
    notServing("notConnected",
               fmt::format("not connected to the master agent at {}: start it, and see that it listens there",
                           textAt(status_, "address")));
  }

  void ofSource(const Json& source) {
    std::string state = textAt(source, "state");
    std::string name = textAt(source, "name");
    if (state == "loading") {
      notServing("loading", fmt::format("source {} is still loading{}", name, andError(source)));
    } else if (state == "held" || state == "stale") {
      degraded(state == "held" ? "held" : "stale",
               fmt::format("source {} is {}{}, and what it said last is served{}", name, state,
                           since(source, "staleSince"), andError(source)));
    } else if (source.value("setAside", 0) != 0) {
      degraded("setAside", fmt::format("source {}: {} values are set aside{}", name,
                                       source["setAside"].dump(), andError(source)));
    } else if (!textAt(source, "error").empty() && !collectorFails(source)) {
      degraded("partial", fmt::format("source {}{}", name, andError(source)));
    }
  }

  // Which is a reason of its own.
  bool collectorFails(const Json& source) const {
    const Json& all = status_.at("collectors");
    return std::any_of(all.begin(), all.end(), [&](const Json& collector) {
      return collector.at("source") == source.at("name") && fails(collector);
    });
  }
  static bool fails(const Json& collector) {
    std::string state = textAt(collector, "state");
    return state != "works" && state != "starting";
  }

  void pipelines() {
    for (const Json& pipeline : status_.at("pipelines")) {
      if (pipeline.at("ready") != true)
        notServing("pipeline", fmt::format("pipeline {} is not ready", textAt(pipeline, "name")));
    }
  }

  // A source without values is a mistake, such as another prefix than the publishers'.
  void values() {
    bool none = true;
    std::vector<std::string> texts;
    for (const Json& source : status_.at("sources")) {
      bool empty = source.value("paths", 1) == 0;
      none = none && empty;
      if (!empty || source.at("state") == "loading") continue;
      texts.push_back(fmt::format(
          "source {} has no values{}", textAt(source, "name"),
          isStore(status_, source)
              ? ": see that the prefix is the publishers', and that trelmemberd runs on the members"
              : ""));
    }
    for (std::string& text : texts)
      add(none ? Verdict::notServing : Verdict::degraded, "noValues", std::move(text));
  }

  void collectors() {
    for (const Json& collector : status_.at("collectors")) {
      if (!fails(collector)) continue;
      degraded("collector",
               fmt::format("collector {} {}{}{}", textAt(collector, "name"), textAt(collector, "state"),
                           since(collector, "since"), andError(collector)));
    }
    for (const Json& unread : status_.at("unread")) {
      degraded("unread", fmt::format("member {}: collector {} {}{}{}", textAt(unread, "member"),
                                     textAt(unread, "collector"), textAt(unread, "state"),
                                     since(unread, "since"), andError(unread)));
    }
  }

  void stores() {
    for (const Json& store : status_.at("stores")) {
      std::string other = textAt(store, "otherStore");
      if (!other.empty())
        degraded("otherStore", fmt::format("source {}: {}", textAt(store, "source"), other));
    }
  }

  void members() {
    std::vector<std::string> withoutLease;
    for (const Json& member : status_.at("members")) {
      std::string name = textAt(member, "member");
      if (!textAt(member, "heldSince").empty()) {
        degraded("memberHeld",
                 fmt::format(
                     "member {}: its lease has ended, or somebody deleted keys of it; their rows are held{}",
                     name, since(member, "heldSince")));
      } else if (!member.value("leased", true)) {
        withoutLease.push_back(name);
      }
      clock(name, member);
    }
    if (withoutLease.empty()) return;
    bool one = withoutLease.size() == 1;
    degraded(
        "noLease",
        fmt::format(
            "member{} {} {} no lease, so the rows stay when the member is gone: start trelmemberd there, "
            "or trelctl forget them",
            one ? "" : "s", fmt::join(withoutLease, ", "), one ? "has" : "have"));
  }

  // Whose values are held or stale is told of the source.
  void cluster() {
    for (const Json& member : status_.value("cluster", Json::array())) {
      std::string state = textAt(member, "state");
      std::string name = textAt(member, "name");
      std::string who =
          fmt::format("member {}{} ", textAt(member, "member"), name.empty() ? "" : " (" + name + ")");
      if (state == "lost") {
        degraded("memberLost",
                 fmt::format("{}is lost{}: it has no rows until it is back", who, since(member, "since")));
      } else if (state == "expected") {
        degraded(
            "memberExpected",
            fmt::format("{}belongs to the cluster, and has not been there: start trelmemberd there", who));
      } else if (state == "silent") {
        degraded("memberSilent", fmt::format("{}says nothing any more{}, although its lease lives", who,
                                             since(member, "since")));
      } else if (state == "unexpected") {
        degraded(
            "memberUnexpected",
            fmt::format("{}is not among those who are expected: trelctl put expected/{} '{{}}', or end it",
                        who, textAt(member, "member")));
      }
    }
  }

  // One reason for each verdict: a member that is lost takes its links to all others with it.
  void links() {
    std::map<std::string, std::vector<std::string>> pairs;
    for (const Json& fault : status_.value("linkFaults", Json::array())) {
      pairs[textAt(fault, "verdict")].push_back(
          fmt::format("{}-{}", textAt(fault, "low"), textAt(fault, "high")));
    }
    const Json counts = status_.value("links", Json::object());
    for (const auto& [verdict, count] : counts.items()) {
      auto links = count.get<size_t>();
      if (verdict == "ok" || links == 0) continue;
      std::vector<std::string>& shown = pairs[verdict];
      shown.resize(std::min(shown.size(), kLinksShown));
      size_t more = links - std::min(links, shown.size());
      std::string which = fmt::format("link{} {}", links == 1 ? "" : "s", fmt::join(shown, ", "));
      if (shown.empty()) {
        which = fmt::format("{} links", links);
      } else if (more != 0) {
        which += fmt::format(" and {} more", more);
      }
      degraded("linkFault",
               fmt::format("{} {} {}{}", which, links == 1 ? "is" : "are", verdict, meaningOf(verdict)));
    }
  }
  // Nothing for a newer daemon's.
  static std::string meaningOf(const std::string& verdict) {
    constexpr std::array kMeanings = {
        std::pair("miswired", "reported at another interface than the topology gives: see to the cables"),
        std::pair("down", "an end cannot reach the other, and none says that it can"),
        std::pair("statesDiffer", "one end says that the link carries, the other that it does not"),
        std::pair("oneSided", "one end knows of the link, the other does not say so"),
        std::pair("sharedIndex", "another link has the same ifIndex: give each interface its own"),
        std::pair("noIndex", "an end has no ifIndex, so that it has no row: publish its interface's"),
    };
    const auto* found = std::find_if(kMeanings.begin(), kMeanings.end(),
                                     [&verdict](const auto& known) { return verdict == known.first; });
    return found == kMeanings.end() ? "" : std::string(": ") + found->second;
  }

  void clock(const std::string& member, const Json& status) {
    auto ahead = status.find("clockAhead");
    if (ahead == status.end() || !ahead->is_number()) return;
    auto seconds = ahead->get<double>();
    auto error = status.find("clockError");
    double bound = error != status.end() && error->is_number() ? error->get<double>() : 0;
    if (std::abs(seconds) <= kClockSeconds + bound) return;
    degraded("clock",
             fmt::format("member {}: its clock is {:.0f} s {} this machine's: see to the time service",
                         member, std::abs(seconds), seconds > 0 ? "ahead of" : "behind"));
  }

  const Json& status_;
  Judgement judgement_;
};

}  // namespace

const char* nameOf(Verdict verdict) {
  constexpr std::array kNames = {"ok", "degraded", "not serving"};
  return kNames.at(static_cast<size_t>(verdict));
}

int exitStatusOf(Verdict verdict) {
  constexpr std::array kStatuses = {0, 3, 4};
  return kStatuses.at(static_cast<size_t>(verdict));
}

Judgement judgementOf(const Json& status) { return Reasons(status).found(); }

Json asJson(const Judgement& judgement) {
  Json reasons = Json::array();
  for (const Reason& reason : judgement.reasons) {
    reasons.push_back({{"code", reason.code}, {"verdict", nameOf(reason.verdict)}, {"text", reason.text}});
  }
  return {{"verdict", nameOf(judgement.verdict)}, {"reasons", std::move(reasons)}};
}

}  // namespace TrelCtl
