// The cluster's topology and reachability.
//
// veldaTrelBaIfTable, ENT.3.40.1.1: one row for each backplane interface that links two members, from
// TrelMib's trelIfTable, indexed by ifIndex.
//
// veldaTrelReachabilityTable, ENT.3.40.1.2: one row for each member and neighbour that it reports on, from
// TrelMib's trelReachabilityTable, indexed by reporting (source) and reported (destination) member. Without a
// state record the state is 1, unknown(1), and interface index and last update are 0. The interface index is
// also 0 when the interface is unknown.
//
// Member ids, interface indexes and states are INTEGER on the wire, although they are unsigned here.
#include "snmp-modules/veldaTrelMIB.h"

#include "platform/snmp/AsnConversions.h"
#include "snmp-modules/ServedTable.h"
#include "snmp-modules/TableFrame.h"

using Snmp::U32ToAsnUnsignedF;
using Snmp::UtcSecondsToUptimeTimeTicksF;
using namespace TrelSnmp;

namespace {

TableModule trelModule("veldaTrelMIB");

struct ReachabilityStateToAsnUnsignedF : Snmp::EnumToAsnUnsignedF<Trel::ReachabilityState::State> {
  static constexpr const char* kName = "ReachabilityStateToAsnUnsigned";
};

Trel::ReachabilityState::State reachabilityStateOf(const TrelReachabilityEntry& entry) {
  return entry.reachabilityState() ? entry.reachabilityState()->state() : Trel::ReachabilityState::unknown;
}

using BaIf = Column<TrelIfEntry>;
constexpr TableSpec<TrelIfTable, 2> kBaIfTable{
    .name = "veldaTrelBaIfTable",
    .arc = {3, 40, 1, 1},
    .keyType = "U32",
    .index = {{{"veldaTrelBaIfIndex", "baIfIndex", ASN_INTEGER, "ifIndex"}}},
    .columns =
        {
            BaIf::of<U32ToAsnUnsignedF, &TrelIfEntry::localMemberId>(  //
                2, "veldaTrelBaIfLocalMemberId", ASN_INTEGER, "localMemberId"),
            BaIf::of<U32ToAsnUnsignedF, &TrelIfEntry::remoteMemberId>(  //
                3, "veldaTrelBaIfRemoteMemberId", ASN_INTEGER, "remoteMemberId"),
        },
};

using Reach = Column<TrelReachabilityEntry>;
constexpr TableSpec<TrelReachabilityTable, 3> kReachabilityTable{
    .name = "veldaTrelReachabilityTable",
    .arc = {3, 40, 1, 2},
    .keyType = "TrelSnmp::MemberIdPair",
    .index = {{{"veldaTrelReachabilitySrcId", "srcId", ASN_INTEGER},
               {"veldaTrelReachabilityDestId", "dstId", ASN_INTEGER}}},
    .columns =
        {
            Reach::of<U32ToAsnUnsignedF, &TrelReachabilityEntry::baIfIndex>(  //
                3, "veldaTrelReachabilityBaIfIndex", ASN_INTEGER, "baIfIndex"),
            Reach::of<ReachabilityStateToAsnUnsignedF, &reachabilityStateOf>(  //
                4, "veldaTrelReachabilityState", ASN_INTEGER, "reachabilityState"),
            Reach::of<UtcSecondsToUptimeTimeTicksF, &TrelReachabilityEntry::lastUpdated>(  //
                5, "veldaTrelReachabilityLastUpdate", ASN_TIMETICKS, "lastUpdated"),
        },
};

using BaIfFrame = TableFrame<kBaIfTable, trelModule>;
using ReachabilityFrame = TableFrame<kReachabilityTable, trelModule>;

}  // namespace

void describe_veldaTrelMIB(std::vector<ServedTable>& tables) {
  tables.push_back(servedTable<BaIfFrame>());
  tables.push_back(servedTable<ReachabilityFrame>());
}

void init_veldaTrelMIB(Zavro::String context) {
  Snmp::Config::PtrConst config = Snmp::KelstoreUtil::getSnmpConfig();
  DEBUGMSGTL(("veldaTrelMIB", "Initializing in context \"%s\"\n", context.c_str()));
  initialize_table_veldaTrelBaIfTable(config, context);
  initialize_table_veldaTrelReachabilityTable(config, context);
  Snmp::registerMibContext(context, trelModule.name());
}

void unregister_veldaTrelMIB(Zavro::String context) { trelModule.unregister(context); }

void initialize_table_veldaTrelBaIfTable(Snmp::Config::PtrConst /*config*/, Zavro::String context) {
  BaIfFrame::initialize(context, &veldaTrelBaIfTable_handler);
}

void initialize_table_veldaTrelReachabilityTable(Snmp::Config::PtrConst /*config*/, Zavro::String context) {
  ReachabilityFrame::initialize(context, &veldaTrelReachabilityTable_handler);
}

int veldaTrelBaIfTable_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* registration,
                               netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return BaIfFrame::handle(handler, registration, info, requests);
}

int veldaTrelReachabilityTable_handler(netsnmp_mib_handler* handler,
                                       netsnmp_handler_registration* registration,
                                       netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return ReachabilityFrame::handle(handler, registration, info, requests);
}
