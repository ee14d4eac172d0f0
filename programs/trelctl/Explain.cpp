#include "programs/trelctl/Explain.h"

#include <absl/strings/ascii.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "kelstore/Path.h"
#include "kelstore/etcd/Address.h"
#include "kelstore/etcd/KeySpace.h"
#include "platform/lanix/IntfId.h"
#include "programs/trelctl/Render.h"
#include "programs/trelctl/Units.h"
#include "runtime/Text.h"

namespace TrelCtl {
namespace {

namespace Etcd = Kelstore::Etcd;
using Segments = std::vector<std::string>;

constexpr const char* kExpected =
    "expected an OID, or a name and an index, such as veldaTrelReachabilityState.1.2";

// Of "1.2"; false for other text.
bool numbersOf(std::string_view text, std::vector<uint32_t>& numbers) {
  const char* end = text.data() + text.size();
  for (const char* at = text.data();; ++at) {
    auto [after, error] = std::from_chars(at, end, numbers.emplace_back());
    if (error != std::errc() || (after != end && *after != '.')) return false;
    if (after == end) return true;
    at = after;
  }
}

// "veldaTrelReachabilityState" of the "veldaTrelReachabilityTable" and "state".
std::string columnName(const std::string& table, std::string label) {
  label.front() = absl::ascii_toupper(static_cast<unsigned char>(label.front()));
  return table.substr(0, table.size() - std::string_view("Table").size()) + label;
}

[[noreturn]] void refuse(const std::string& text, const std::string& why) {
  throw std::invalid_argument(fmt::format("found {}, {}", Runtime::inQuotes(text), why));
}

Instance ofOid(const std::string& text, std::string_view oid, const ShownTables& tables) {
  for (const ShownTable& table : tables) {
    std::string entry = table.oid + ".1.";
    std::vector<uint32_t> numbers;
    if (!oid.starts_with(entry) || !numbersOf(oid.substr(entry.size()), numbers)) continue;
    for (const auto& [label, number] : table.columns.items()) {
      if (number == numbers.front()) return {table, label, {numbers.begin() + 1, numbers.end()}};
    }
    refuse(text, fmt::format("expected a column of the {}, 1 to {}", table.name, table.columns.size()));
  }
  refuse(text, "expected an OID of a column of the served tables, and an index");
}

Instance ofName(const std::string& text, const std::string& name, std::vector<uint32_t> index,
                const ShownTables& tables) {
  std::vector<std::string> names;
  for (const ShownTable& table : tables) {
    names.push_back(table.name);
    for (const auto& [label, number] : table.columns.items()) {
      if (columnName(table.name, label) == name) return {table, label, std::move(index)};
    }
  }
  try {
    std::string table = tableNamed(name, names);
    auto found =
        std::find_if(tables.begin(), tables.end(), [&](const auto& one) { return one.name == table; });
    return {*found, "", std::move(index)};
  } catch (const std::invalid_argument&) {
    refuse(text, kExpected);
  }
}

Instance parsed(const std::string& text, const ShownTables& tables) {
  std::string_view rest = text;
  if (size_t module = rest.find("::"); module != std::string_view::npos) rest.remove_prefix(module + 2);
  if (rest.starts_with('.')) rest.remove_prefix(1);
  if (rest.starts_with("1.3.")) return ofOid(text, rest, tables);
  std::vector<uint32_t> index;
  size_t dot = rest.find('.');
  if (dot == std::string_view::npos || dot == 0 || !numbersOf(rest.substr(dot + 1), index))
    refuse(text, kExpected);
  return ofName(text, std::string(rest.substr(0, dot)), std::move(index), tables);
}

// "members/1/storage/%2Fvar", as keys and trelctl's arguments spell it.
std::string spelt(const Segments& segments) {
  std::string path;
  for (const std::string& segment : segments)
    path += (path.empty() ? "" : "/") + Etcd::encodedSegment(segment);
  return path;
}

// Null for a source that is no store.
Json keyOf(const std::string& source, const Segments& segments) {
  absl::StatusOr<Etcd::Address> address = Etcd::parseStore(source);
  return address.ok() ? Json(Etcd::KeySpace(address->prefix).key(segments)) : Json(nullptr);
}

class Explainer final {
 public:
  Explainer(const Instance& instance, const Json& values, const Json& status)
      : instance_(instance), values_(values), status_(status) {
    for (uint32_t part : instance.index) parts_.push_back(std::to_string(part));
    for (const Json& row : instance.table.rows) {
      if (isIt(row)) row_ = &row;
    }
  }

  Json explained() && {
    follow();
    if (row_ == nullptr) faultySources();
    if (row_ != nullptr && value().is_null()) why("the value cannot be converted to what the column holds");
    if (row_ == nullptr && why_.empty()) why("its row is still being made, or was just deleted: ask again");
    return answer();
  }

 private:
  template <class... Arguments>
  void why(fmt::format_string<Arguments...> text, Arguments&&... arguments) {
    why_.push_back(fmt::format(text, std::forward<Arguments>(arguments)...));
  }

  bool isIt(const Json& row) const {
    size_t i = 0;
    for (const Json& value : row) {
      if (i == parts_.size()) break;
      if (value.dump() != parts_[i++]) return false;
    }
    return true;
  }

  Json value() const {
    if (row_ == nullptr) return nullptr;
    return instance_.column.empty() ? *row_ : row_->value(instance_.column, Json());
  }

  Json answer() {
    std::string oid;
    if (!instance_.column.empty()) {
      oid = fmt::format("{}.1.{}.{}", instance_.table.oid,
                        instance_.table.columns.at(instance_.column).dump(), instance_.indexText());
    }
    const std::string& table = instance_.table.name;
    return {{"name", fmt::format("{}.{}", oid.empty() ? table : columnName(table, instance_.column),
                                 instance_.indexText())},
            {"oid", oid.empty() ? Json(nullptr) : Json(oid)},
            {"served", row_ != nullptr && !value().is_null()},
            {"value", value()},
            {"row", row_ == nullptr ? Json(nullptr) : *row_},
            {"inputs", std::move(inputs_)},
            {"members", std::move(members_)},
            {"why", std::move(why_)}};
  }

  // By what a row's columns are called, so that it holds for any table of that kind.
  void follow() {
    const Json& columns = instance_.table.columns;
    if (columns.contains("srcId")) return reachability();
    if (columns.contains("localMemberId")) return interface();
    if (columns.contains("descr")) return storage();
    if (columns.contains("load")) {
      use({"members", parts_[0], "processors", parts_[1]});
    } else {
      use({"members", parts_[0], "system"});
    }
    publisher(parts_[0]);
  }

  void reachability() {
    const Json* report = use({"members", parts_[0], "reachability", parts_[1]});
    publisher(parts_[0]);
    if (report == nullptr) return;
    std::string intf = report->value("intf", "");
    if (intf.empty()) {
      why("no ifIndex, as the report names no interface");
    } else if (use({"interfaces", intf}) == nullptr) {
      why("no ifIndex: see that the member publishes {}", spelt({"interfaces", intf}));
    }
  }

  // The links whose interface has the index.
  void interface() {
    Segments names;
    eachAt("interfaces", 2, [&](const Segments& path, const Json& value) {
      if (std::to_string(value.value("ifIndex", 0U)) == parts_[0]) names.push_back(path[1]);
    });
    if (names.empty()) return why("no interface has the index {}", parts_[0]);
    std::vector<std::string> links;
    std::string shared;  // an interface of several links
    for (const std::string& name : names) {
      size_t before = links.size();
      use({"interfaces", name});
      if (!Lanix::BackplaneChannelIntfId::isBackplaneChannelIntfId(Lanix::IntfId(name)))
        why("{} is no link between members: the name of such a one is Backplane and a number", name);
      eachAt("topology", 3, [&](const Segments& path, const Json& value) {
        if (value.value("intf", "") != name) return;
        use(path);
        publisher(path[1]);
        links.push_back(fmt::format("{} to {}", path[1], path[2]));
      });
      if (links.size() > before + 1) shared = name;
    }
    if (links.empty()) why("no link of the topology uses {}", fmt::join(names, ", "));
    if (links.size() <= 1) return;
    std::string remedy =
        shared.empty() ? "give each interface its own index"
                       : shared + " is the interface of several: give each link one with a name of its own";
    why("claimed by several links: {}; {} has the row; {}", fmt::join(links, ", "),
        row_ == nullptr
            ? "none"
            : fmt::format("{} to {}", row_->at("localMemberId").dump(), row_->at("remoteMemberId").dump()),
        remedy);
  }

  // The mapping with the index, and what the member says of the mapped one.
  void storage() {
    bool mapped = false;
    for (const char* kind : {"mounts", "memory"}) {
      eachAt("storageMappings", 3, [&](const Segments& path, const Json& value) {
        if (path[1] != kind || std::to_string(value.value("index", 0U)) != parts_[1]) return;
        mapped = true;
        use(path);
        bool mount = path[1] == "mounts";
        use(mount ? Segments{"members", parts_[0], "storage", path[2]}
                  : Segments{"members", parts_[0], "memory"});
      });
    }
    if (!mapped) {
      why("no storage mapping has the index {}: trelmemberd --mappings prints those for a machine's file "
          "systems, "
          "for trelctl import",
          parts_[1]);
    }
    publisher(parts_[0]);
  }

  // Calls visit(path, value) for the values that count.
  void eachAt(const char* first, size_t depth,
              const std::function<void(const Segments&, const Json&)>& visit) const {
    for (const Json& given : values_) {
      if (!given.at("counts").get<bool>()) continue;
      auto path = given.at("path").get<Segments>();
      if (path.size() == depth && path[0] == first) visit(path, given.at("value"));
    }
  }

  // Adds what the sources say at the path. The value that counts; null, and a reason, if there is none.
  const Json* use(const Segments& path) {
    const Json* counting = nullptr;
    bool hidden = false;
    paths_.push_back(spelt(path));
    for (const Json& given : values_) {
      if (given.at("path").get<Segments>() != path) continue;
      auto source = given.at("source").get<std::string>();
      bool counts = given.at("counts").get<bool>();
      if (counts) counting = &given.at("value");
      hidden = hidden || !counts;
      inputs_.push_back({{"path", spelt(path)},
                         {"source", source},
                         {"key", keyOf(source, path)},
                         {"counts", counts},
                         {"value", given.at("value")}});
    }
    if (counting == nullptr) {
      why("{} at {}",
          hidden ? "what is said there does not count, as another source speaks for this member;"
                 : "no source says anything",
          spelt(path));
    }
    setAside(path);
    return counting;
  }

  // A value of the path that cannot be used.
  void setAside(const Segments& path) {
    for (const Json& aside : status_.at("setAside")) {
      auto key = aside.at("key").get<std::string>();
      if (key == keyOf(aside.at("source").get<std::string>(), path))
        why("{} is set aside: {}", key, cell(aside.at("error")));
    }
  }

  void faultySources() {
    for (const Json& source : status_.at("sources")) {
      if (!source.at("error").is_null() && mayConcern(source))
        why("source {} is {}: {}", cell(source.at("name")), cell(source.at("state")),
            cell(source.at("error")));
    }
  }

  // Of a partial source, all values that can be used are: it is why only if a value of these paths is set
  // aside. A store's is told by setAside(), unless it has more than it lists; a document's error names one.
  bool mayConcern(const Json& source) const {
    if (source.at("state") != "partial") return true;
    auto count = source.value("setAside", uint64_t{0});
    const Json& aside = status_.at("setAside");
    auto listed = static_cast<uint64_t>(std::count_if(
        aside.begin(), aside.end(), [&](const Json& one) { return one.at("source") == source.at("name"); }));
    if (listed > 0) return listed < count;
    auto error = source.at("error").get<std::string>();
    return count != 1 || std::any_of(paths_.begin(), paths_.end(), [&error](const std::string& path) {
             return error.find(path) != std::string::npos;
           });
  }

  // What is known of the member that publishes it.
  void publisher(const std::string& member) {
    for (const Json& known : status_.at("members")) {
      bool again =
          std::any_of(members_.begin(), members_.end(), [&](const Json& other) { return other == known; });
      if (known.at("member") == member && !again) members_.push_back(known);
    }
  }

  const Instance& instance_;
  const Json& values_;
  const Json& status_;
  Segments parts_;
  const Json* row_ = nullptr;
  Json inputs_ = Json::array();
  Json members_ = Json::array();
  std::vector<std::string> why_;
  std::vector<std::string> paths_;  // what was looked for
};

std::string publisherText(const Json& member) {
  std::string lease = "no lease: its values stay when it is gone";
  if (member.value("leased", false)) {
    const Json& left = member.at("leaseLeft");
    lease = left.is_null() ? "under a lease" : fmt::format("under a lease with {} s left", left.dump());
  } else if (!member.value("heldSince", Json()).is_null()) {
    lease = "held, as its lease ended at " + cell(member.at("heldSince"));
  }
  const Json& last = member.at("lastChange");
  return fmt::format("published by member {}, {}; its last change: {}", cell(member.at("member")), lease,
                     last.is_null() ? "before this daemon's start" : cell(last));
}

}  // namespace

std::string Instance::indexText() const { return fmt::format("{}", fmt::join(index, ".")); }

Instance instanceOf(const std::string& text, const ShownTables& tables) {
  Instance instance = parsed(text, tables);
  size_t expected = instance.table.indexColumns;
  if (instance.index.size() != expected)
    refuse(text,
           fmt::format("expected an index of {} numbers, as the {} has", expected, instance.table.name));
  return instance;
}

std::vector<std::vector<std::string>> neededFor(const Instance& instance) {
  if (instance.table.columns.contains("localMemberId")) return {{"interfaces"}, {"topology"}};
  std::vector<Segments> needed = {{"members", std::to_string(instance.index.front())}};
  if (instance.table.columns.contains("srcId")) needed.push_back({"interfaces"});
  if (instance.table.columns.contains("descr")) needed.push_back({"storageMappings"});
  return needed;
}

Json explain(const Instance& instance, const Json& values, const Json& status) {
  return Explainer(instance, values, status).explained();
}

std::string explanationText(const Json& explanation) {
  std::string text = cell(explanation.at("name"));
  const Json& value = explanation.at("value");
  if (!explanation.at("served").get<bool>()) {
    text += " is not served";
  } else if (!value.is_object()) {
    text += " = " + cell(value);
  }
  if (!explanation.at("oid").is_null()) text += fmt::format("  (.{})", cell(explanation.at("oid")));
  text += "\n";
  for (const Json& why : explanation.at("why")) text += fmt::format("  - {}\n", cell(why));
  if (!explanation.at("row").is_null())
    text += "\nrow:\n" + asTable(Json::array({readable(explanation.at("row"))}));
  if (!explanation.at("inputs").empty()) text += "\nfrom:\n";
  for (const Json& input : explanation.at("inputs")) {
    const Json& key = input.at("key");
    text += fmt::format("  {} = {}\n    source {}{}{}\n", cell(input.at("path")), cell(input.at("value")),
                        cell(input.at("source")), key.is_null() ? "" : ", key " + cell(key),
                        input.at("counts").get<bool>() ? "" : ": overridden by a later source");
    const Json& given = input.at("value");
    if (given.is_object() && given.contains("machineIfIndex"))
      text += fmt::format("    the member's own IF-MIB has it as {}\n", cell(given.at("machineIfIndex")));
  }
  for (const Json& member : explanation.at("members")) text += fmt::format("  {}\n", publisherText(member));
  return text;
}

}  // namespace TrelCtl
