// The MIB module veldaTrelHostResourcesMIB: the host resources of every member as SNMP tables. The agent
// process calls init and unregister, on its own thread, for each SNMP context that it serves; only the
// default context (the empty string) has tables.
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

// Registers the three tables, and the context with Snmp::registerMibContext(). Ends the process when the MIB
// state object is not at TrelSnmp::TrelMib::kPath, or a table is registered already. Requires: net-snmp's
// agent is initialised.
void init_veldaTrelHostResourcesMIB(Zavro::String context);
// Undoes init, and deletes the tables' counters. Does nothing for a context that was not initialised.
void unregister_veldaTrelHostResourcesMIB(Zavro::String context);

// Appends the module's tables.
void describe_veldaTrelHostResourcesMIB(std::vector<TrelSnmp::ServedTable>& tables);

// Register one table each; init calls them.
void initialize_table_veldaTrelHrSystemTable(Snmp::Config::PtrConst config, Zavro::String context);
void initialize_table_veldaTrelProcessorTable(Snmp::Config::PtrConst config, Zavro::String context);
void initialize_table_veldaTrelStorageTable(Snmp::Config::PtrConst config, Zavro::String context);

// The tables' handlers (Netsnmp_Node_Handler): called when net-snmp's table iterator has found the rows.
int veldaTrelHrSystemTable_handler(netsnmp_mib_handler_s* handler,
                                   netsnmp_handler_registration_s* registration,
                                   netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);
int veldaTrelProcessorTable_handler(netsnmp_mib_handler_s* handler,
                                    netsnmp_handler_registration_s* registration,
                                    netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);
int veldaTrelStorageTable_handler(netsnmp_mib_handler_s* handler,
                                  netsnmp_handler_registration_s* registration,
                                  netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);
