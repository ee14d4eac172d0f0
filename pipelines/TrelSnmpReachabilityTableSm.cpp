// What is followed: a directory with one Trel::ReachabilityStatus for each member, named by the member's id,
// and in each of them the collection reachabilityStatus, which gives for every neighbour the member's view of
// it.
//
// What is written: trelReachabilityTable, one row for each (member, neighbour), keyed by the two ids. A row
// holds the neighbour's record and the interface MIB; its columns are computed from both when they are read.
//
// What happens to rows:
//   a neighbour appears in a member's collection    its row is inserted
//   its record is replaced                          the row is deleted and inserted with the new record
//   the same record is announced again              nothing
//   it vanishes from the collection                 its row is deleted
//   a member's entity vanishes                      every row in which that member reports is deleted;
//                                                   what others report of it stays
//   the entity is replaced                          the same, and the new entity's rows are inserted
//   an entity of another type                       is traced and counts as absent
//
// Two directory keys may spell the same member ("3" and "03"): the later event on a row wins.
#include "pipelines/TrelSnmpReachabilityTableSm.h"

namespace TrelSnmp::Agent {
namespace {

const Lumalog::Handle pipelineTrace("TrelSnmpReachabilityTableSm");

constexpr size_t kReachabilityStatusStream = 0;

constexpr const char* kReachabilityStatusStreamStatement =
    "reachabilityStatusStream = from( reachabilityDir.entityPtr< ReachabilityStatus >[].reachabilityStatus[] "
    "): "
    "dirKey={} nbr={} reachabilityStateOpt={}";

MemberIdPair outputKey(const Kor::String& dirKey, Trel::MemberId nbr) {
  return {Trel::MemberId::fromString(dirKey).id(), nbr.id()};
}

}  // namespace

bool TrelSnmpReachabilityTableSm::ReachabilityRows::same(const TrelReachabilityEntry& entry,
                                                         const Value& value) {
  return entry.differsFrom(value.state, value.ifMib) == nullptr;
}

void TrelSnmpReachabilityTableSm::ReachabilityRows::insert(TrelMib& mib, const MemberIdPair& key,
                                                           const Value& value) {
  mib.trelReachabilityTableIs(key, value.state, value.ifMib);
}

std::string TrelSnmpReachabilityTableSm::ReachabilityRows::text(const MemberIdPair& key, const Value& value) {
  return fmt::format("({}, {}, {})", key, value.state, value.ifMib->name());
}

// Events from outside

void TrelSnmpReachabilityTableSm::eventToReachabilityStatusStream(const Kor::String& dirKey,
                                                                  Trel::MemberId nbr,
                                                                  const State& reachabilityStateOpt) {
  if (!initialScanDone()) return;
  if (pipelineTrace.enabled(7)) {
    pipelineTrace.trace(7, kReachabilityStatusStreamStatement, dirKey, nbr,
                        Kor::optText(reachabilityStateOpt));
  }
  MemberIdPair key = outputKey(dirKey, nbr);
  if (reachabilityStateOpt) {
    output_.write(key, {reachabilityStateOpt, ifMib_});
  } else {
    output_.del(key);
  }
}

// Machines

void TrelSnmpReachabilityTableSm::machinesIs() {
  using ReachabilityDirSm0 = RivoCode::TrelSnmpReachabilityTableSm::ReachabilityDirSm0;
  using Reachability = Trel::ReachabilityStatus::Reachability;
  ReachabilityDirSm0::Statement statement;
  statement.machine = "ReachabilityDirSm0";
  statement.childMachine = "EntityPtrSm1";
  statement.entries = "entityPtr";
  statement.children = "childSmEntityPtrTrelReachabilityStatusPtrConst";
  statement.wrongType =
      "dynamic cast to type ::Trel::ReachabilityStatus::RawPtrConst from Kor::Entity::PtrConst failed.";
  statement.keyTrace = "{}";
  statement.streams = {{kReachabilityStatusStream, {}}};
  statement.childInputs = [this](const Kor::String& dirKey, const Trel::ReachabilityStatus& member) {
    auto emit = [this, dirKey](Trel::MemberId nbr, const State* state) {
      eventToReachabilityStatusStream(dirKey, nbr, state != nullptr ? *state : nullptr);
    };
    EntityMachine::Inputs inputs;
    inputs.push_back(
        {kReachabilityStatusStream, std::make_unique<CollectionStream<Reachability>>(
                                        "reachabilityStatus", member.reachabilityStatus(), emit)});
    return inputs;
  };
  machineAdded(Zavro::makePtr<ReachabilityDirSm0>(*this, reachabilityDir_, reachabilityDir_->entities(),
                                                  std::move(statement)));
}

// The root

TrelSnmpReachabilityTableSm::TrelSnmpReachabilityTableSm(Zavro::Ptr<const Kor::Dir> reachabilityDir,
                                                         Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
                                                         Zavro::Ptr<TrelMib> trelMib,
                                                         const Rvx::SmControl& control)
    : Pipeline(pipelineTrace, std::move(trelMib), control, {"reachabilityStatusStream"}),
      reachabilityDir_(std::move(reachabilityDir)),
      ifMib_(std::move(ifMib)),
      output_(*this, {kReachabilityStatusStream}) {
  start();
}

std::vector<Pipeline::PointerArgument> TrelSnmpReachabilityTableSm::pointerArguments() const {
  return {{"reachabilityDir", reachabilityDir_.get()}, {"ifMib", ifMib_.get()}, {"trelMib", trelMib().get()}};
}

Zavro::Ptr<TrelSnmpReachabilityTableSm> trelSnmpReachabilityTableSmFactory(
    Zavro::Ptr<const Kor::Dir> reachabilityDir, Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
    Zavro::Ptr<TrelMib> trelMib, const Rvx::SmControl& control) {
  return Zavro::makePtr<TrelSnmpReachabilityTableSm>(std::move(reachabilityDir), std::move(ifMib),
                                                     std::move(trelMib), control);
}

}  // namespace TrelSnmp::Agent
