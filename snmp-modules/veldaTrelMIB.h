// The MIB module veldaTrelMIB: the cluster's member topology as SNMP tables. The agent process calls init and
// unregister, on its own thread, for each SNMP context that it serves; only the default context (the empty
// string) gets tables.
#pragma once

#include <vector>

#include "platform/snmp/KelstoreUtil.h"
#include "platform/zavro/String.h"

namespace TrelSnmp {
struct ServedTable;
}

struct netsnmp_mib_handler_s;
struct netsnmp_handler_registration_s;
struct netsnmp_agent_request_info_s;
struct netsnmp_request_info_s;

// Registers both tables and announces the context. Requires: net-snmp's agent is initialised, and the MIB
// state object is at TrelSnmp::TrelMib::kPath; the process ends otherwise, or when a table of the context is
// registered already.
void init_veldaTrelMIB(Zavro::String context);
// Undoes init; a context that was never initialised is fine. The tables' counters go with them.
void unregister_veldaTrelMIB(Zavro::String context);

// Appends what the module's tables serve.
void describe_veldaTrelMIB(std::vector<TrelSnmp::ServedTable>& tables);

// One table each; init calls them.
void initialize_table_veldaTrelBaIfTable(Snmp::Config::PtrConst config, Zavro::String context);
void initialize_table_veldaTrelReachabilityTable(Snmp::Config::PtrConst config, Zavro::String context);

// Answer requests of which net-snmp's table iterator has found the rows (Netsnmp_Node_Handler).
int veldaTrelBaIfTable_handler(netsnmp_mib_handler_s* handler, netsnmp_handler_registration_s* registration,
                               netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);
int veldaTrelReachabilityTable_handler(netsnmp_mib_handler_s* handler,
                                       netsnmp_handler_registration_s* registration,
                                       netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);
