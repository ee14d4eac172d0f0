// The MIB module veldaTrelMIB: the cluster's topology and reachability as SNMP tables. The agent process
// calls init and unregister, on its own thread, for each SNMP context that it serves; only the default
// context (the empty string) has tables.
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

// Registers both tables, and the context with Snmp::registerMibContext(). Ends the process when the MIB state
// object is not at TrelSnmp::TrelMib::kPath, or a table is registered already. Requires: net-snmp's agent is
// initialised.
void init_veldaTrelMIB(Zavro::String context);
// Undoes init, and deletes the tables' counters. Does nothing for a context that was not initialised.
void unregister_veldaTrelMIB(Zavro::String context);

// Appends the module's tables.
void describe_veldaTrelMIB(std::vector<TrelSnmp::ServedTable>& tables);

// Register one table each; init calls them.
void initialize_table_veldaTrelBaIfTable(Snmp::Config::PtrConst config, Zavro::String context);
void initialize_table_veldaTrelReachabilityTable(Snmp::Config::PtrConst config, Zavro::String context);

// The tables' handlers (Netsnmp_Node_Handler): called when net-snmp's table iterator has found the rows.
int veldaTrelBaIfTable_handler(netsnmp_mib_handler_s* handler, netsnmp_handler_registration_s* registration,
                               netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);
int veldaTrelReachabilityTable_handler(netsnmp_mib_handler_s* handler,
                                       netsnmp_handler_registration_s* registration,
                                       netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);
