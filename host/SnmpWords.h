// The words of snmpd.conf(5) that this agent accepts, and the arguments of each. For SnmpConf and SnmpAgent.
#pragma once

#include <string>
#include <vector>

#include "host/SnmpConf.h"

namespace Host {

// Returns what is wrong with a line, and what to write instead; empty when net-snmp may get it. Replaces
// "localhost" in `rest` by its address, as net-snmp would look it up.
std::string checkSnmpWord(SnmpFile kind, const std::string& word, std::string& rest);

// The name of the SNMPv3 user that a line makes; empty when it makes none.
std::string userNamedBy(const SnmpLine& line);

// Whether the line's effect ends when the configuration is applied again without it.
bool canBeTakenBack(const SnmpLine& line);

// The words whose lines differ between `before` and `now`, without an effect in a running agent.
std::vector<std::string> notReloaded(const std::vector<SnmpLine>& before, const std::vector<SnmpLine>& now);

// All words that are accepted in the file. A test compares them with the manual page.
std::vector<std::string> snmpWords(SnmpFile kind);

}  // namespace Host
