#include "host/StatusReport.h"

#include "platform/snmp/RegVoidCollByContext.h"
#include "runtime/Version.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

#include "snmp-modules/ServedTable.h"

namespace Host {
namespace {

using Json = nlohmann::ordered_json;
constexpr uint64_t kNsPerSecond = 1'000'000'000;

Json tenths(double seconds) { return std::round(seconds * 10) / 10; }

using Sources = std::vector<Kelstore::SourceStatus>;

Json sourcesOf(const Sources& sources) {
  Json all = Json::array();
  for (const Kelstore::SourceStatus& source : sources) {
    all.push_back({{"name", source.name},
                   {"state", Kelstore::stateName(source.state)},
                   {"paths", source.paths},
                   {"setAside", source.setAside},
                   {"lastChange", utcTime(source.lastChangeUtcNs)},
                   {"staleSince", utcTime(source.staleSinceUtcNs)},
                   {"error", source.error.empty() ? Json(nullptr) : Json(source.error)}});
  }
  return all;
}

Json collectorsOf(const Sources& sources) {
  Json all = Json::array();
  for (const Kelstore::SourceStatus& source : sources) {
    for (const Kelstore::CollectorStatus& collector : source.collectors) {
      all.push_back({{"source", source.name},
                     {"name", collector.name},
                     {"state", Kelstore::stateName(collector.state)},
                     {"since", utcTime(collector.sinceUtcNs)},
                     {"error", collector.error.empty() ? Json(nullptr) : Json(collector.error)}});
    }
  }
  return all;
}

// Calls add(source's name, the store's status) for each source that is a store.
template <class Add>
Json storesWith(const Sources& sources, Add add) {
  Json all = Json::array();
  for (const Kelstore::SourceStatus& source : sources) {
    if (source.store) add(all, source.name, *source.store);
  }
  return all;
}

Json storesOf(const Sources& sources, uint64_t nowUtcNs) {
  return storesWith(
      sources, [nowUtcNs](Json& all, const std::string& name, const Kelstore::StoreStatus& store) {
        Json heardSecondsAgo;
        if (store.heardUtcNs != 0 && nowUtcNs >= store.heardUtcNs) {
          uint64_t ms = (nowUtcNs - store.heardUtcNs) / 1'000'000;
          heardSecondsAgo = static_cast<double>(ms) / 1000;
        }
        all.push_back({{"source", name},
                       {"state", store.state},
                       {"endpoint", store.endpoint.empty() ? Json(nullptr) : Json(store.endpoint)},
                       {"revision", store.revision},
                       {"mirroredRevision", store.mirroredRevision},
                       {"storeRevision", store.storeRevision},
                       {"heardSecondsAgo", heardSecondsAgo},
                       {"heldSince", utcTime(store.heldSinceUtcNs)},
                       {"staleSince", utcTime(store.staleSinceUtcNs)},
                       {"lastError", store.lastError.empty() ? Json(nullptr) : Json(store.lastError)},
                       {"otherStore", store.otherStore.empty() ? Json(nullptr) : Json(store.otherStore)}});
      });
}

Json storeCountersOf(const Sources& sources) {
  return storesWith(sources, [](Json& all, const std::string& name, const Kelstore::StoreStatus& store) {
    Json counters{{"source", name}};
    for (const auto& [counter, count] : store.counters) counters[counter] = count;
    counters["setAside"] = store.setAside;
    all.push_back(std::move(counters));
  });
}

Json setAsideOf(const Sources& sources) {
  return storesWith(sources, [](Json& all, const std::string& name, const Kelstore::StoreStatus& store) {
    for (const auto& [key, error] : store.examples) {
      all.push_back({{"source", name}, {"key", key}, {"error", error}});
    }
  });
}

Json membersOf(const Sources& sources) {
  return storesWith(sources, [](Json& all, const std::string& name, const Kelstore::StoreStatus& store) {
    for (const Kelstore::MemberStatus& member : store.members) {
      all.push_back(
          {{"source", name},
           {"member", member.member},
           {"leased", member.leased},
           {"leaseLeft", member.leaseLeftSeconds ? Json(*member.leaseLeftSeconds) : Json(nullptr)},
           {"lastChange", utcTime(member.lastChangeUtcNs)},
           {"heldSince", utcTime(member.heldSinceUtcNs)},
           {"clockAhead", member.clockAheadSeconds ? tenths(*member.clockAheadSeconds) : Json(nullptr)},
           {"clockError", member.clockAheadSeconds ? tenths(member.clockErrorSeconds) : Json(nullptr)}});
    }
  });
}

Json clusterOf(const Health::Members& members) {
  Json all = Json::array();
  for (const auto& [id, member] : members.all()) {
    all.push_back({{"member", id.text()},
                   {"name", member.name.empty() ? Json(nullptr) : Json(member.name)},
                   {"state", Kor::nameOf(member.state)},
                   {"since", utcTime(member.sinceUtcNs)},
                   {"changes", member.changes}});
  }
  return all;
}

Json linkCountsOf(const Health::Links& links) {
  Json counts = Json::object();
  for (size_t i = 0; i < links.counts().size(); ++i) {
    counts[std::string(Kor::kNames<Health::LinkVerdict>[i])] = links.counts()[i];
  }
  return counts;
}

// A member that is lost takes its links to all others with it.
constexpr size_t kLinkFaults = 50;

Json linkFaultsOf(const Health::Links& links) {
  Json all = Json::array();
  size_t faults = 0;
  for (size_t count : links.counts()) faults += count;
  faults -= links.counts()[static_cast<size_t>(Health::LinkVerdict::ok)];
  for (auto at = links.all().begin(); all.size() < std::min(faults, kLinkFaults); ++at) {
    const auto& [pair, link] = *at;
    if (link.sinceUtcNs == 0 || link.verdict == Health::LinkVerdict::ok) continue;
    all.push_back({{"low", pair.first.text()},
                   {"high", pair.second.text()},
                   {"verdict", Kor::nameOf(link.verdict)},
                   {"since", utcTime(link.sinceUtcNs)},
                   {"changes", link.changes}});
  }
  return all;
}

// Members write them, so there may be any number.
constexpr size_t kUnreadOfAMember = 20;
constexpr size_t kUnreadInAll = 500;

Json unreadOf(const Cluster& cluster) {
  Json all = Json::array();
  std::map<std::string_view, size_t> ofMember;
  for (const auto& [path, unread] : cluster.unread()) {
    if (all.size() == kUnreadInAll) break;
    if (++ofMember[path.first()] > kUnreadOfAMember) continue;
    all.push_back({{"member", path.first()},
                   {"collector", path.second()},
                   {"state", Kor::nameOf(unread.state)},
                   {"since", utcTime(static_cast<uint64_t>(unread.sinceUtc * kNsPerSecond))},
                   {"error", unread.error}});
  }
  return all;
}

Json pipelinesOf(const Cluster& cluster) {
  Json all = Json::array();
  for (const auto& pipeline : cluster.pipelines()) {
    all.push_back({{"name", pipeline->name()}, {"ready", pipeline->ready()}, {"idle", pipeline->idle()}});
  }
  return all;
}

Json conflictsOf(const Cluster& cluster) {
  Json all = Json::array();
  for (const auto& pipeline : cluster.pipelines()) {
    for (const std::string& conflict : pipeline->conflicts()) {
      all.push_back({{"pipeline", pipeline->name()}, {"conflict", conflict}});
    }
  }
  return all;
}

Json tasksOf(const Vem::TaskScheduler& scheduler) {
  Json all = Json::array();
  for (const Vem::Task* task : scheduler.tasks()) {
    all.push_back({{"name", task->name()},
                   {"workDone", task->workCount()},
                   {"workPending", task->workPending()},
                   {"scheduled", task->scheduled()}});
  }
  return all;
}

Json tablesOf(const TrelSnmp::TrelMib& mib) {
  Json all = Json::array();
  auto registered = Snmp::RegVoidCollByContext::singleton();
  for (const TrelSnmp::ServedTable& table : TrelSnmp::servedTables()) {
    const Snmp::RegVoid* record = registered->regVoid("", table.name);
    all.push_back({{"name", table.name},
                   {"rows", table.size(mib)},
                   {"version", table.version(mib)},
                   {"directAnswers", record != nullptr ? record->counters().directAnswers() : 0}});
  }
  return all;
}

}  // namespace

nlohmann::ordered_json utcTime(uint64_t utcNs) {
  if (utcNs == 0) return nullptr;
  auto seconds = static_cast<std::time_t>(utcNs / kNsPerSecond);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(seconds), utcNs % kNsPerSecond / 1'000'000);
}

bool serving(const SnmpAgent& snmp, const Cluster& cluster) { return snmp.connected() && cluster.complete(); }

std::unique_ptr<Reply> statusReport(const StatusInputs& inputs) {
  uint64_t uptimeMs = inputs.uptimeNs / 1'000'000;
  // Asked once, so that all lists show the same state.
  const Sources sources = inputs.cluster.sources();
  const Json unread = unreadOf(inputs.cluster);
  Json answer{
      {"ok", true},
      {"daemon", "trelsnmpd"},
      {"version", Runtime::kVersion},
      {"member", inputs.member},
      {"time", utcTime(inputs.nowUtcNs)},
      {"uptimeSeconds", static_cast<double>(uptimeMs) / 1000},
      {"mode", inputs.snmp.subagent() ? "agentx" : "standalone"},
      {"address", inputs.snmp.address()},
      {"connected", inputs.snmp.connected()},
      {"ready", serving(inputs.snmp, inputs.cluster)},
      {"log", {{"waiting", inputs.log.waiting}, {"leftOut", inputs.log.leftOut}, {"lost", inputs.log.lost}}},
      {"sources", sourcesOf(sources)},
      {"collectors", collectorsOf(sources)},
      {"stores", storesOf(sources, inputs.nowUtcNs)},
      {"storeCounters", storeCountersOf(sources)},
      {"setAside", setAsideOf(sources)},
      {"cluster", clusterOf(inputs.cluster.members())},
      {"links", linkCountsOf(inputs.cluster.links())},
      {"linkFaults", linkFaultsOf(inputs.cluster.links())},
      {"members", membersOf(sources)},
      {"unread", unread},
      {"unreadLeftOut", inputs.cluster.unread().size() - unread.size()},
      {"pipelines", pipelinesOf(inputs.cluster)},
      {"conflicts", conflictsOf(inputs.cluster)},
      {"tasks", tasksOf(inputs.scheduler)},
      {"tables", tablesOf(inputs.cluster.trelMib())}};
  return lineReply(answer.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace Host
