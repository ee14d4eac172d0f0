#include "programs/trelctl/Topology.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <array>
#include <charconv>
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

class Reader final {
 public:
  Reader(const ShownTables& tables, const Json& values) : values_(values) {
    readValues();
    for (const ShownTable& table : tables) {
      for (const Json& row : table.rows) read(row);
    }
  }

  Topology found() && {
    for (auto& [pair, end] : ends_) {
      seen_.insert({pair.first, pair.second});
      faults(end);
    }
    for (auto& [pair, end] : ends_) topology_.links.push_back(std::move(end));
    topology_.members = seen_;
    for (int member : seen_) {
      if (!speaking_.contains(member)) topology_.silent.insert(member);
    }
    return std::move(topology_);
  }

 private:
  LinkEnd& end(int from, int to) {
    LinkEnd& end = ends_[{from, to}];
    end.from = from;
    end.to = to;
    return end;
  }

  void readValues() {
    for (const Json& given : values_) {
      if (!given.at("counts").get<bool>()) continue;
      const Json& path = given.at("path");
      const Json& value = given.at("value");
      if (path.at(0) == "interfaces" && path.size() == 2) {
        indexes_[path[1].get<std::string>()] = value.value("ifIndex", 0U);
      } else if (path.at(0) == "topology" && path.size() == 3) {
        end(memberOf(path[1].get<std::string>()), memberOf(path[2].get<std::string>())).interface =
            value.value("intf", "");
      }
    }
    for (auto& [pair, end] : ends_) {
      auto index = indexes_.find(end.interface);
      if (index == indexes_.end()) continue;
      end.ifIndex = index->second;
      users_[end.ifIndex].push_back(pair);
    }
  }

  // Rows of any table: those of members say that the member is there, those of reachability also its states.
  void read(const Json& row) {
    if (row.contains("srcId") && row.contains("destId")) {
      int from = row["srcId"].get<int>();
      speaking_.insert(from);
      end(from, row["destId"].get<int>()).state = cell(row.value("stateName", Json()));
    } else if (row.contains("memberId")) {
      speaking_.insert(row["memberId"].get<int>());
      seen_.insert(row["memberId"].get<int>());
    }
  }

  void faults(LinkEnd& end) const {
    if (end.from == end.to) end.faults.emplace_back("to itself");
    if (end.interface.empty()) {
      end.faults.emplace_back("not in the topology");
    } else if (end.ifIndex == 0) {
      end.faults.emplace_back("no ifIndex");
    }
    auto users = users_.find(end.ifIndex);
    if (end.ifIndex != 0 && users->second.size() > 1) {
      for (const Pair& other : users->second) {
        if (other == Pair(end.from, end.to)) continue;
        bool sameName = ends_.at(other).interface == end.interface;
        end.faults.push_back(fmt::format("same {} as {} to {}", sameName ? "interface" : "ifIndex",
                                         other.first, other.second));
      }
    }
    if (!speaking_.contains(end.from)) return;  // that is its member's fault
    if (end.state.empty()) end.faults.push_back(fmt::format("member {} says nothing of it", end.from));
    if (!ends_.contains({end.to, end.from})) end.faults.emplace_back("nothing in the other direction");
  }

  const Json& values_;
  Topology topology_;
  std::map<Pair, LinkEnd> ends_;
  std::map<std::string, uint32_t> indexes_;
  std::map<uint32_t, std::vector<Pair>> users_;
  std::set<int> seen_;
  std::set<int> speaking_;
};

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

Topology topologyOf(const ShownTables& tables, const Json& values) { return Reader(tables, values).found(); }

std::vector<std::string> faultsOf(const Topology& topology) {
  std::vector<std::string> all;
  for (int member : topology.silent) all.push_back(fmt::format("member {}: only others name it", member));
  for (const LinkEnd& end : topology.links) {
    for (const std::string& fault : end.faults)
      all.push_back(fmt::format("{} to {}: {}", end.from, end.to, fault));
  }
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
                     {"faults", end.faults}});
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
    bool faulty = !end->faults.empty() || !far.faults.empty();
    text += fmt::format("  {} -- {} [color=\"{};0.5:{}\", taillabel=\"{}\", headlabel=\"{}\"{}];\n",
                        pair.first, pair.second, colourOf(end->state), colourOf(far.state), label(*end),
                        label(far), faulty ? ", label=\"!\", fontcolor=\"#d62728\"" : "");
  }
  return text + "}\n";
}

}  // namespace TrelCtl
