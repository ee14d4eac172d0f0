// The SNMP interface indexes (ifIndex, RFC 2863) of interfaces, by interface name.
#pragma once

#include <cstdint>

#include "platform/kor/Collection.h"
#include "platform/kor/Entity.h"
#include "platform/lanix/IntfId.h"

namespace IntfSnmp {

class IfMib final : public Kor::Entity {
 public:
  using IfIndexes = Kor::Collection<Lanix::IntfId, uint32_t>;

  using Entity::Entity;
  const IfIndexes& ifIndexByIntfId() const { return ifIndexByIntfId_; }
  IfIndexes& ifIndexByIntfId() { return ifIndexByIntfId_; }

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  IfIndexes ifIndexByIntfId_;
};

}  // namespace IntfSnmp
