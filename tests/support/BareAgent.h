// net-snmp's agent in a test process: without configuration, MIB files, sessions, or anything that it keeps.
#pragma once

#include <net-snmp/net-snmp-config.h>
// The order matters to net-snmp.
#include <net-snmp/net-snmp-includes.h>
// The agent's part builds on the library's.
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cstdlib>

namespace Support {

// Requires: that it was not started yet. It cannot be shut down and started again.
inline void startBareAgent(const char* name) {
  setenv("MIBS", "", 1);  // no MIB files are wanted, nor complaints about missing ones
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 0);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  init_agent(name);
  init_snmp(name);
}

}  // namespace Support
