// The host resources of every member: the objects of HOST-RESOURCES-MIB (RFC 2790), indexed by member.
//
// veldaTrelHrSystemTable, ENT.3.41.1.1: one row for each member, from TrelMib's trelHrSystemTable, indexed by
// member id. The values are those at the time of the request; without host resources all are 0, and the date
// is 1970-01-01. The table is registered for SET, to trace a SET of the date, which is writable in RFC 2790,
// in its own words; it is refused as any other.
//
// veldaTrelProcessorTable, ENT.3.41.1.2: one row for each processor, from trelProcessorTable, indexed by
// member id and processor index. The load is 0 without a processor record.
//
// veldaTrelStorageTable, ENT.3.41.1.3: one row for each file system and kind of memory, from
// trelHrStorageTable, indexed by member id and storage index.
//
// The numbers of users and processes are Gauge32, the processor index is Unsigned32, the uptime is TimeTicks.
// All other numbers are INTEGER on the wire, as in RFC 2790, although most are unsigned here.
#include "snmp-modules/veldaTrelHostResourcesMIB.h"

#include "platform/snmp/AsnConversions.h"
#include "snmp-modules/ServedTable.h"
#include "snmp-modules/TableFrame.h"

using Snmp::S32ToAsnIntegerF;
using Snmp::SecondsToAsnDateAndTimeF;
using Snmp::SecondsToTimeTicksF;
using Snmp::SnmpObjectIdentifierToAsnOidF;
using Snmp::StringToAsnOctetStringF;
using Snmp::U32ToAsnUnsignedF;
using namespace TrelSnmp;

namespace {

TableModule hostResourcesModule("veldaTrelHostResourcesMIB");

using Figures = HostResources::HostResources::System;

// A system figure of the member; 0 without host resources.
template <auto Figure>
auto figureOf(const TrelHrSystemEntry& entry) {
  return entry.hostResources() ? entry.hostResources()->system().*Figure : Figures().*Figure;
}

// DateAndTime (RFC 2579), without and with the offset from UTC.
constexpr int kDateCapacity = 11;
bool isDateLength(int length) { return length == 8 || length == kDateCapacity; }

using HrSystem = Column<TrelHrSystemEntry>;
constexpr TableSpec<TrelHrSystemTable, 5> kHrSystemTable{
    .name = "veldaTrelHrSystemTable",
    .arc = {3, 41, 1, 1},
    .keyType = "U32",
    .index = {{{"veldaTrelHrSystemMemberId", "trelMemberId", ASN_INTEGER}}},
    .columns =
        {
            HrSystem::of<SecondsToTimeTicksF, &figureOf<&Figures::systemUptime>>(  //
                2, "veldaTrelHrSystemUpTime", ASN_TIMETICKS, "systemUptime"),
            HrSystem::of<SecondsToAsnDateAndTimeF, &figureOf<&Figures::currentTimeUtc>>(  //
                3, "veldaTrelHrSystemDate", ASN_OCTET_STR, "currentTimeUtc")
                .within(kDateCapacity, &isDateLength)
                .refusingSet(),
            HrSystem::of<U32ToAsnUnsignedF, &figureOf<&Figures::systemNumUsers>>(  //
                4, "veldaTrelHrSystemNumUsers", ASN_GAUGE, "systemNumUsers"),
            HrSystem::of<U32ToAsnUnsignedF, &figureOf<&Figures::systemProcesses>>(  //
                5, "veldaTrelHrSystemProcesses", ASN_GAUGE, "systemProcesses"),
            HrSystem::of<U32ToAsnUnsignedF, &figureOf<&Figures::memorySize>>(  //
                6, "veldaTrelHrSystemMemorySize", ASN_INTEGER, "memorySize"),
        },
};

constexpr TableSpec<TrelProcessorTable, 1> kProcessorTable{
    .name = "veldaTrelProcessorTable",
    .arc = {3, 41, 1, 2},
    .keyType = "TrelSnmp::ProcessorKey",
    .index = {{{"veldaTrelProcessorMemberId", "trelMemberId", ASN_INTEGER},
               {"veldaTrelProcessorIndex", "processorIndex", ASN_UNSIGNED}}},
    .columns = {Column<TrelProcessorEntry>::of<
        S32ToAsnIntegerF, &TrelProcessorEntry::figure<&HostResources::Processor::load>>(  //
        3, "veldaTrelProcessorLoad", ASN_INTEGER, "load")},
};

constexpr int kDescrCapacity = 255;
bool isDescrLength(int length) { return length <= kDescrCapacity; }

using Storage = Column<TrelHrStorageEntry>;
constexpr TableSpec<TrelHrStorageTable, 5> kStorageTable{
    .name = "veldaTrelStorageTable",
    .arc = {3, 41, 1, 3},
    .keyType = "TrelSnmp::TrelHrStorageKey",
    .index = {{{"veldaTrelStorageMemberId", "trelMemberId", ASN_INTEGER},
               {"veldaTrelStorageIndex", "hrStorageIndex", ASN_INTEGER}}},
    .columns =
        {
            Storage::of<SnmpObjectIdentifierToAsnOidF, &TrelHrStorageEntry::type>(  //
                3, "veldaTrelStorageType", ASN_OBJECT_ID, "type"),
            Storage::of<StringToAsnOctetStringF, &TrelHrStorageEntry::descr>(  //
                4, "veldaTrelStorageDescr", ASN_OCTET_STR, "descr")
                .within(kDescrCapacity, &isDescrLength),
            Storage::of<U32ToAsnUnsignedF, &TrelHrStorageEntry::allocationUnits>(  //
                5, "veldaTrelStorageAllocUnits", ASN_INTEGER, "allocationUnits"),
            Storage::of<U32ToAsnUnsignedF, &TrelHrStorageEntry::size>(  //
                6, "veldaTrelStorageSize", ASN_INTEGER, "size"),
            Storage::of<U32ToAsnUnsignedF, &TrelHrStorageEntry::used>(  //
                7, "veldaTrelStorageUsed", ASN_INTEGER, "used"),
        },
};

using HrSystemFrame = TableFrame<kHrSystemTable, hostResourcesModule>;
using ProcessorFrame = TableFrame<kProcessorTable, hostResourcesModule>;
using StorageFrame = TableFrame<kStorageTable, hostResourcesModule>;

}  // namespace

void describe_veldaTrelHostResourcesMIB(std::vector<ServedTable>& tables) {
  tables.push_back(servedTable<HrSystemFrame>());
  tables.push_back(servedTable<ProcessorFrame>());
  tables.push_back(servedTable<StorageFrame>());
}

void init_veldaTrelHostResourcesMIB(Zavro::String context) {
  Snmp::Config::PtrConst config = Snmp::KelstoreUtil::getSnmpConfig();
  DEBUGMSGTL(("veldaTrelHostResourcesMIB", "Initializing in context \"%s\"\n", context.c_str()));
  initialize_table_veldaTrelHrSystemTable(config, context);
  initialize_table_veldaTrelProcessorTable(config, context);
  initialize_table_veldaTrelStorageTable(config, context);
  Snmp::registerMibContext(context, hostResourcesModule.name());
}

void unregister_veldaTrelHostResourcesMIB(Zavro::String context) { hostResourcesModule.unregister(context); }

void initialize_table_veldaTrelHrSystemTable(Snmp::Config::PtrConst /*config*/, Zavro::String context) {
  HrSystemFrame::initialize(context, &veldaTrelHrSystemTable_handler);
}

void initialize_table_veldaTrelProcessorTable(Snmp::Config::PtrConst /*config*/, Zavro::String context) {
  ProcessorFrame::initialize(context, &veldaTrelProcessorTable_handler);
}

void initialize_table_veldaTrelStorageTable(Snmp::Config::PtrConst /*config*/, Zavro::String context) {
  StorageFrame::initialize(context, &veldaTrelStorageTable_handler);
}

int veldaTrelHrSystemTable_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* registration,
                                   netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return HrSystemFrame::handle(handler, registration, info, requests);
}

int veldaTrelProcessorTable_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* registration,
                                    netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return ProcessorFrame::handle(handler, registration, info, requests);
}

int veldaTrelStorageTable_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* registration,
                                  netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  return StorageFrame::handle(handler, registration, info, requests);
}
