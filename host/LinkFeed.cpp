#include "host/LinkFeed.h"

#include <utility>

namespace Host {
namespace {

const auto& neighboursOf(const Trel::TopoConfig& said) { return said.neighbor(); }
const auto& neighboursOf(const Trel::ReachabilityStatus& said) { return said.reachabilityStatus(); }

}  // namespace

LinkFeed::LinkFeed(Health::Links& links, Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
                   Zavro::Ptr<const Trel::TopologyConfig> topology, Zavro::Ptr<const Kor::Dir> reachability)
    : links_(links),
      ifMib_(std::move(ifMib)),
      topology_(std::move(topology)),
      reachability_(std::move(reachability)) {
  ifIndexes_ = ifMib_->ifIndexByIntfId().subscribe([this](const auto& key) { ifIndexChanged(key); });
  members_ = topology_->topoConfig().subscribe([this](const auto& key) { topologyChanged(key); });
  reports_ = reachability_->entities().subscribe([this](const auto& key) { reachabilityChanged(key); });
  for (auto at = ifMib_->ifIndexByIntfId().begin(); at; at.next()) ifIndexChanged(at.key());
  for (auto at = topology_->topoConfig().begin(); at; at.next()) topologyChanged(at.key());
  for (auto at = reachability_->entityPtrIteratorConst(); at; at.next()) reachabilityChanged(at.key());
}

void LinkFeed::ifIndexChanged(const Lanix::IntfId& interface) {
  const uint32_t* ifIndex = ifMib_->ifIndexByIntfId().find(interface);
  links_.ifIndexIs(interface, ifIndex == nullptr ? 0 : *ifIndex);
}

void LinkFeed::topologyChanged(Trel::MemberId member) {
  const auto* found = topology_->topoConfig().find(member);
  follow<Trel::TopoConfig>(wired_, member, found == nullptr ? nullptr : *found);
}

void LinkFeed::reachabilityChanged(const Kor::String& member) {
  follow<Trel::ReachabilityStatus>(
      reporting_, Trel::MemberId::fromString(std::string_view(member)),
      boost::dynamic_pointer_cast<const Trel::ReachabilityStatus>(reachability_->entityPtr(member)));
}

// What the new entity says, too, is told once: a neighbour that both name has not been without a state.
template <class Entity>
void LinkFeed::follow(ByMember<Entity>& followed, Trel::MemberId member, Zavro::Ptr<const Entity> entity) {
  Followed<Entity> before = std::move(followed[member]);
  before.changes = {};
  if (before.entity != nullptr) {
    for (auto at = neighboursOf(*before.entity).begin(); at; at.next()) tell(member, at.key(), entity.get());
  }
  if (entity == nullptr) {
    followed.erase(member);
    return;
  }
  const Entity* said = entity.get();
  for (auto at = neighboursOf(*said).begin(); at; at.next()) tell(member, at.key(), said);
  followed[member] = {
      std::move(entity),
      neighboursOf(*said).subscribe([this, member, said](Trel::MemberId to) { tell(member, to, said); })};
}

void LinkFeed::tell(Trel::MemberId from, Trel::MemberId to, const Trel::TopoConfig* said) {
  const Lanix::IntfId* interface = said == nullptr ? nullptr : said->neighbor().find(to);
  links_.wiredIs(from, to, interface == nullptr ? std::nullopt : std::optional(*interface));
}

void LinkFeed::tell(Trel::MemberId from, Trel::MemberId to, const Trel::ReachabilityStatus* said) {
  const auto* report = said == nullptr ? nullptr : said->reachabilityStatus().find(to);
  links_.reportIs(from, to, report == nullptr ? nullptr : *report);
}

}  // namespace Host
