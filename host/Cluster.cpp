#include "host/Cluster.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "platform/snmp/KelstoreUtil.h"
#include "platform/zavro/Assert.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"

namespace Host {

std::string hostname() {
  std::array<char, 256> name{};
  return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "localhost";
}

Cluster::Cluster(const std::vector<MakeSource>& sources, Zavro::Ptr<Vem::TaskScheduler> scheduler)
    : hostname_(hostname()),
      layers_(std::move(scheduler), mirror_),
      root_(Zavro::makePtr<Kor::Dir>("root")),
      trelMib_(TrelSnmp::trelMibFactory("trelMib")),
      status_(Zavro::makePtr<Snmp::Status>("snmpStatus")),
      agentRoot_(TrelSnmp::Agent::rootFactory("trelSnmp")) {
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

std::vector<Zavro::Ptr<const TrelSnmp::Agent::Pipeline>> Cluster::pipelines() const {
  auto all = agentRoot_->agent()->pipelines();
  return {all.begin(), all.end()};
}

}  // namespace Host
