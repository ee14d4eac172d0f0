// What a member publishes about reaching its neighbours.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/kor/Collection.h"
#include "platform/kor/Entity.h"
#include "platform/kor/EnumNames.h"
#include "platform/lanix/IntfId.h"
#include "platform/trel/MemberId.h"

namespace Trel {

// One member's view of one neighbour. Immutable: a change is a new record.
class ReachabilityState final : public Kor::ValueEntity {
 public:
  enum State : uint8_t {
    unknown,
    initializing,
    reachable,
    degraded,
    unreachable,
    disabled,
    unrecognized = 255,  // a newer member says another one
  };
  friend constexpr auto namesOf(State /*state*/) {
    return std::to_array<std::string_view>(
        {"unknown", "initializing", "reachable", "degraded", "unreachable", "disabled"});
  }

  // lastChangeNs: when the state last changed, in nanoseconds since 1970-01-01 UTC.
  ReachabilityState(State state, std::optional<Lanix::IntfId> backplaneChannelIntfId, uint64_t lastChangeNs)
      : state_(state),
        backplaneChannelIntfId_(std::move(backplaneChannelIntfId)),
        lastChangeNs_(lastChangeNs) {}

  State state() const { return state_; }
  // The interface toward the neighbour, if it is known.
  const std::optional<Lanix::IntfId>& backplaneChannelIntfId() const { return backplaneChannelIntfId_; }
  uint64_t lastChangeNs() const { return lastChangeNs_; }

  // "(state=reachable, intf=Backplane1/2, lastChange=1700000000000000000)"
  std::string text() const;
  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  State state_;
  std::optional<Lanix::IntfId> backplaneChannelIntfId_;
  uint64_t lastChangeNs_;
};

// All that one member reports, by neighbour; named by the member's id.
class ReachabilityStatus final : public Kor::Entity {
 public:
  using Reachability = Kor::Collection<MemberId, Zavro::Ptr<const ReachabilityState>>;

  using Entity::Entity;
  const Reachability& reachabilityStatus() const { return reachabilityStatus_; }
  Reachability& reachabilityStatus() { return reachabilityStatus_; }

  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  Reachability reachabilityStatus_;
};

}  // namespace Trel
