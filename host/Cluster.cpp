#include "host/Cluster.h"

#include <algorithm>

#include "platform/snmp/KelstoreUtil.h"
#include "platform/zavro/Assert.h"
#include "runtime/Hostname.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"

namespace Host {

Cluster::Cluster(const std::vector<MakeSource>& sources, Zavro::Ptr<Vem::TaskScheduler> scheduler)
    : hostname_(Runtime::hostname()),
      layers_(std::move(scheduler), mirror_),
      root_(Zavro::makePtr<Kor::Dir>("root")),
      trelMib_(TrelSnmp::trelMibFactory("trelMib")),
      status_(Zavro::makePtr<Snmp::Status>("snmpStatus")),
      agentRoot_(TrelSnmp::Agent::rootFactory("trelSnmp")),
      linkFeed_(links_, mirror_.ifMib(), mirror_.topologyConfig(), mirror_.reachabilityDir()) {
  mountTrelMib();
  sysnameIs();
  sysnameSubscription_ = mirror_.subscribeSysname([this] { sysnameIs(); });
  for (const MakeSource& make : sources) {
    sources_.push_back(make(layers_));
    byLayer_.resize(layers_.layers(), sources_.back().get());
  }
  for (const auto& source : sources_) source->start();
  agentRoot_->agentIs(trelMib_, status_, mirror_.ifMib(), mirror_.topologyConfig(), mirror_.reachabilityDir(),
                      mirror_.hostResourcesDir());
}

Cluster::~Cluster() {
  agentRoot_->agentDel();
  Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
}

void Cluster::mountTrelMib() {
  auto snmp = Zavro::makePtr<Kor::Dir>("snmp");
  auto trel = Zavro::makePtr<Kor::Dir>("trel");
  root_->entityPtrIs(snmp);
  snmp->entityPtrIs(trel);
  trel->entityPtrIs(trelMib_);
  zavroAssert(Kor::entityAt(*root_, TrelSnmp::TrelMib::kPath) == trelMib_);
}

void Cluster::sysnameIs() {
  const std::string& name = mirror_.sysname();
  Snmp::KelstoreUtil::rootIs(root_, Zavro::makePtr<const Snmp::Config>(name.empty() ? hostname_ : name));
}

void Cluster::snmpIsUp() { status_->initializedIs(true); }

void Cluster::snmpGoesDown() {
  if (!status_->initialized()) return;
  unregister_veldaTrelHostResourcesMIB("");
  unregister_veldaTrelMIB("");
}

bool Cluster::complete() const {
  auto pipelinesNow = pipelines();
  return status_->initialized() && layers_.idle() &&
         std::all_of(pipelinesNow.begin(), pipelinesNow.end(),
                     [](const auto& pipeline) { return pipeline->ready() && pipeline->idle(); });
}

std::vector<Kelstore::SourceStatus> Cluster::sources() const {
  std::vector<Kelstore::SourceStatus> all;
  for (const auto& source : sources_) all.push_back(source->status());
  return all;
}

std::vector<std::string> Cluster::sourcesOfLayers() const {
  std::vector<std::string> names;
  for (const Kelstore::Source* source : byLayer_) names.push_back(source->status().name);
  return names;
}

void Cluster::refreshSources(std::function<void()> done) {
  // The calls under way, and this one.
  auto left = std::make_shared<size_t>(sources_.size() + 1);
  auto oneIsDone = [left, done = std::move(done)] {
    if (--*left == 0) done();
  };
  for (const auto& source : sources_) source->refresh(oneIsDone);
  oneIsDone();
}

bool Cluster::alive() {
  // Each is asked, also after one that is not.
  return std::count_if(sources_.begin(), sources_.end(),
                       [](const auto& source) { return !source->alive(); }) == 0;
}

std::vector<std::string> Cluster::acceptStores() {
  std::vector<std::string> accepted;
  for (const auto& source : sources_) {
    if (source->accept()) accepted.push_back(source->status().name);
  }
  return accepted;
}

std::map<std::string, Zavro::Ptr<const Kor::Object>> Cluster::objects() const {
  std::map<std::string, Zavro::Ptr<const Kor::Object>> all = {{"trelMib", trelMib_},
                                                              {"snmpStatus", status_},
                                                              {"ifMib", mirror_.ifMib()},
                                                              {"topologyConfig", mirror_.topologyConfig()},
                                                              {"reachability", mirror_.reachabilityDir()},
                                                              {"hostResources", mirror_.hostResourcesDir()},
                                                              {"agent", agentRoot_->agent()}};
  for (const auto& pipeline : pipelines()) all.emplace(pipeline->name(), pipeline);
  return all;
}

// Nothing is known of members and links before all sources have said what they know. Of changes that belong
// together a part may be applied, which says nothing of links.
void Cluster::look(uint64_t nowUtcNs) {
  wasComplete_ = wasComplete_ || complete();
  if (!wasComplete_) return;
  members_.look(facts(nowUtcNs));
  if (layers_.idle()) links_.look(nowUtcNs);
}

Health::Facts Cluster::facts(uint64_t nowUtcNs) const {
  Health::Facts facts;
  facts.nowUtcNs = nowUtcNs;
  facts.names = mirror_.names();
  facts.expected = mirror_.expected();
  for (const auto& [id, name] : facts.names) facts.there[id];
  for (const auto& dir : {mirror_.reachabilityDir(), mirror_.hostResourcesDir()}) {
    for (auto at = dir->entityPtrIteratorConst(); at; at.next()) {
      facts.there[Trel::MemberId::fromString(std::string_view(at.key()))];
    }
  }
  for (auto member = mirror_.topologyConfig()->topoConfig().begin(); member; member.next()) {
    facts.wired.insert(member.key());
    if (member.value() == nullptr) continue;
    for (auto at = (*member.value())->neighbor().begin(); at; at.next()) facts.wired.insert(at.key());
  }
  for (const auto& source : sources_) addFacts(*source, facts);
  return facts;
}

// How far the source is to be believed, of the members whose values it has.
void Cluster::addFacts(const Kelstore::Source& source, Health::Facts& facts) const {
  using State = Kelstore::SourceStatus::State;
  using Source = Health::MemberFacts::Source;
  const Kelstore::SourceStatus status = source.status();
  auto isAtLeast = [](Health::MemberFacts& member, Source is) {
    member.source = std::max(member.source, is);
  };
  facts.blind |= status.paths == 0 && (status.state == State::stale || status.state == State::loading);
  for (size_t layer = 0; layer < byLayer_.size(); ++layer) {
    if (byLayer_[layer] != &source || (status.state != State::stale && status.state != State::held)) continue;
    for (auto& [id, member] : facts.there) {
      if (layers_.snapshot(layer)->anyOfMember(id.text()))
        isAtLeast(member, status.state == State::stale ? Source::stale : Source::held);
    }
  }
  if (!status.store) return;
  for (const Kelstore::MemberStatus& known : status.store->members) {
    auto member = facts.there.find(Trel::MemberId::fromString(known.member));
    if (member == facts.there.end()) continue;
    if (known.heldSinceUtcNs != 0) isAtLeast(member->second, Source::held);
    if (!known.leased || known.leaseSeconds == 0 || known.lastChangeUtcNs == 0) continue;
    // A publisher writes at least once in two thirds of its lease's time.
    member->second.silentUtcNs = known.lastChangeUtcNs + 2 * known.leaseSeconds * 1'000'000'000;
  }
}

std::vector<Zavro::Ptr<const TrelSnmp::Agent::Pipeline>> Cluster::pipelines() const {
  auto all = agentRoot_->agent()->pipelines();
  return {all.begin(), all.end()};
}

}  // namespace Host
