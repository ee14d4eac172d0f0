#include "programs/trelctl/Topology.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>

#include "programs/trelctl/Render.h"
#include "runtime/Text.h"

namespace TrelCtl {
namespace {

using Pair = std::pair<int, int>;

int memberOf(const std::string& text) {
  int member = -1;
  std::from_chars(text.data(), text.data() + text.size(), member);
  return member;
}

template <class Value>
Value valueOr(const Json& object, const char* name, Value otherwise) {
  const Json& value = object.at(name);
  return value.is_null() ? otherwise : value.get<Value>();
}

LinkEnd endOf(const Json& link, size_t place) {
  LinkEnd end;
  end.from = memberOf(link.at(place == 0 ? "low" : "high").get<std::string>());
  end.to = memberOf(link.at(place == 0 ? "high" : "low").get<std::string>());
  const Json& known = link.at("ends").at(place);
  end.interface = valueOr<std::string>(known, "interface", "");
  end.ifIndex = valueOr<uint32_t>(known, "ifIndex", 0);
  end.state = valueOr<std::string>(known, "state", "");
  end.verdict = link.at("verdict").get<std::string>();
  return end;
}

// The members that have a row: those who say something.
std::set<int> speaking(const ShownTables& tables) {
  std::set<int> members;
  for (const ShownTable& table : tables) {
    for (const Json& row : table.rows) {
      for (const char* column : {"srcId", "memberId"}) {
        if (row.contains(column)) members.insert(row[column].get<int>());
      }
    }
  }
  return members;
}

struct StateColour {
  const char* state;
  const char* colour;
};
constexpr std::array kColours = {StateColour{"reachable", "#2e9e4f"}, StateColour{"degraded", "#f0a000"},
                                 StateColour{"unreachable", "#d62728"},
                                 StateColour{"initializing", "#3b7dd8"}, StateColour{"disabled", "#8a8a8a"}};
constexpr const char* kNoColour = "#c4c4c4";

}  // namespace

const char* colourOf(const std::string& state) {
  for (const StateColour& known : kColours) {
    if (state == known.state) return known.colour;
  }
  return kNoColour;
}

Topology topologyOf(const ShownTables& tables, const Json& links) {
  Topology topology;
  const std::set<int> theySpeak = speaking(tables);
  topology.members = theySpeak;
  for (const Json& link : links) {
    for (size_t place : {0U, 1U}) {
      LinkEnd end = endOf(link, place);
      topology.members.insert(end.from);
      if (!end.interface.empty() || !end.state.empty()) topology.links.push_back(std::move(end));
    }
  }
  std::sort(topology.links.begin(), topology.links.end(),
            [](const LinkEnd& a, const LinkEnd& b) { return Pair(a.from, a.to) < Pair(b.from, b.to); });
  std::set_difference(topology.members.begin(), topology.members.end(), theySpeak.begin(), theySpeak.end(),
                      std::inserter(topology.silent, topology.silent.end()));
  return topology;
}

namespace {

// Of one ifIndex, in a line.
constexpr size_t kEndsShown = 8;

// "ifIndex 12 is given to 1 to 2 (Backplane1/2), 2 to 1 (Backplane2/1)": one line for each that is shared.
void addShared(const Topology& topology, std::vector<std::string>& all) {
  std::map<uint32_t, std::vector<std::string>> ends;
  for (const LinkEnd& end : topology.links) {
    if (end.ifIndex == 0) continue;
    ends[end.ifIndex].push_back(
        fmt::format("{} to {} ({})", end.from, end.to, Runtime::escaped(end.interface)));
  }
  for (auto& [ifIndex, having] : ends) {
    if (having.size() < 2) continue;
    size_t more = having.size() - std::min(having.size(), kEndsShown);
    having.resize(having.size() - more);
    all.push_back(fmt::format("ifIndex {} is given to {}{}; each needs an interface and an index of its own",
                              ifIndex, fmt::join(having, ", "),
                              more == 0 ? "" : fmt::format(" and {} more", more)));
  }
}

}  // namespace

std::vector<std::string> faultsOf(const Topology& topology) {
  std::vector<std::string> all;
  for (int member : topology.silent) all.push_back(fmt::format("member {}: only others name it", member));
  std::map<Pair, std::string> links;
  for (const LinkEnd& end : topology.links) {
    if (end.faulty()) links[std::minmax(end.from, end.to)] = end.verdict;
  }
  for (const auto& [pair, verdict] : links)
    all.push_back(fmt::format("link {}-{}: {}", pair.first, pair.second, verdict));
  addShared(topology, all);
  return all;
}

std::string topologyText(const Topology& topology) {
  std::vector<std::vector<std::string>> rows = {{"from", "to", "interface", "ifIndex", "state"}};
  for (const LinkEnd& end : topology.links) {
    rows.push_back({std::to_string(end.from), std::to_string(end.to),
                    end.interface.empty() ? "-" : Runtime::escaped(end.interface),
                    end.ifIndex == 0 ? "-" : std::to_string(end.ifIndex),
                    end.state.empty() ? "-" : end.state});
  }
  std::string text = fmt::format("{} members, {} ends of links, {} faults\n", topology.members.size(),
                                 topology.links.size(), faultsOf(topology).size());
  for (const std::string& fault : faultsOf(topology)) text += fmt::format("  ! {}\n", fault);
  return topology.links.empty() ? text : text + "\n" + aligned(rows);
}

Json topologyJson(const Topology& topology) {
  Json members = Json::array();
  for (int member : topology.members) {
    members.push_back({{"member", member}, {"silent", topology.silent.contains(member)}});
  }
  Json links = Json::array();
  for (const LinkEnd& end : topology.links) {
    auto orNull = [](const auto& value, bool missing) { return missing ? Json(nullptr) : Json(value); };
    links.push_back({{"from", end.from},
                     {"to", end.to},
                     {"interface", orNull(end.interface, end.interface.empty())},
                     {"ifIndex", orNull(end.ifIndex, end.ifIndex == 0)},
                     {"state", orNull(end.state, end.state.empty())},
                     {"verdict", end.verdict},
                     {"faults", end.faulty() ? Json{end.verdict} : Json::array()}});
  }
  return {{"members", std::move(members)}, {"links", std::move(links)}};
}

std::string topologyDot(const Topology& topology) {
  std::string text =
      "graph trel {\n  layout=circo; overlap=false;\n"
      "  node [shape=circle, fontname=\"sans-serif\"];\n  edge [fontname=\"sans-serif\", fontsize=9];\n";
  std::map<Pair, const LinkEnd*> ends;
  for (const LinkEnd& end : topology.links) ends[{end.from, end.to}] = &end;
  for (int member : topology.members) {
    text += fmt::format("  {}{};\n", member, topology.silent.contains(member) ? " [style=dashed]" : "");
  }
  for (const auto& [pair, end] : ends) {
    auto back = ends.find({pair.second, pair.first});
    const LinkEnd none;
    const LinkEnd& far = back == ends.end() ? none : *back->second;
    if (pair.first > pair.second && back != ends.end()) continue;
    auto label = [](const LinkEnd& one) { return one.ifIndex == 0 ? "" : std::to_string(one.ifIndex); };
    bool faulty = end->faulty() || far.faulty();
    text += fmt::format("  {} -- {} [color=\"{};0.5:{}\", taillabel=\"{}\", headlabel=\"{}\"{}];\n",
                        pair.first, pair.second, colourOf(end->state), colourOf(far.state), label(*end),
                        label(far), faulty ? ", label=\"!\", fontcolor=\"#d62728\"" : "");
  }
  return text + "}\n";
}

}  // namespace TrelCtl
