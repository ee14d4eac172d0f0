// How the cluster is wired: which member reaches which neighbour over which interface.
#pragma once

#include "platform/kor/Collection.h"
#include "platform/kor/Entity.h"
#include "platform/lanix/IntfId.h"
#include "platform/trel/MemberId.h"

namespace Trel {

// One member's links: for each neighbour the interface that reaches it.
class TopoConfig final : public Kor::Entity {
 public:
  using Neighbors = Kor::Collection<MemberId, Lanix::IntfId>;

  explicit TopoConfig(MemberId member) : Entity(member.text()) {}
  const Neighbors& neighbor() const { return neighbor_; }
  Neighbors& neighbor() { return neighbor_; }

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  Neighbors neighbor_;
};

class TopologyConfig final : public Kor::Entity {
 public:
  using Members = Kor::Collection<MemberId, Zavro::Ptr<TopoConfig>>;

  using Entity::Entity;
  const Members& topoConfig() const { return topoConfig_; }
  Members& topoConfig() { return topoConfig_; }

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  Members topoConfig_;
};

}  // namespace Trel
