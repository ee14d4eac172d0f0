// What is followed: a directory with one Trel::ReachabilityStatus for each member, named by the member's id,
// and in each of them the collection reachabilityStatus, which gives for every neighbour the member's view of
// it.
//
// What is written: trelReachabilityTable, one row for each (member, neighbour), keyed by the two ids. A row
// holds the neighbour's record and the interface MIB; its columns are computed from both when they are read.
//
// framework/MemberTablePipeline.h says what happens to rows. When a member's entity vanishes, the rows in
// which others report of that member stay.
#include "pipelines/TrelSnmpReachabilityTableSm.h"

namespace TrelSnmp::Agent {

const Lumalog::Handle ReachabilityOfMembers::kTrace("TrelSnmpReachabilityTableSm");

void ReachabilityRows::write(TrelMib& mib, const MemberIdPair& key, const Value& value) {
  mib.of<Table>().write(key, value.state, value.ifMib);
}

std::string ReachabilityRows::text(const MemberIdPair& key, const Value& value) {
  return fmt::format("({}, {}, {})", key, value.state, value.ifMib->name());
}

TrelSnmpReachabilityTableSm::TrelSnmpReachabilityTableSm(Zavro::Ptr<const Kor::Dir> reachabilityDir,
                                                         Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
                                                         Zavro::Ptr<TrelMib> trelMib,
                                                         const Rvx::SmControl& control)
    : MemberTablePipeline(std::move(reachabilityDir), std::move(trelMib), control, {std::move(ifMib)}) {}

Zavro::Ptr<TrelSnmpReachabilityTableSm> trelSnmpReachabilityTableSmFactory(
    Zavro::Ptr<const Kor::Dir> reachabilityDir, Zavro::Ptr<const IntfSnmp::IfMib> ifMib,
    Zavro::Ptr<TrelMib> trelMib, const Rvx::SmControl& control) {
  return Zavro::makePtr<TrelSnmpReachabilityTableSm>(std::move(reachabilityDir), std::move(ifMib),
                                                     std::move(trelMib), control);
}

}  // namespace TrelSnmp::Agent
