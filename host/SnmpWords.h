// The words of snmpd.conf(5) that this agent takes, and what may be said with each. For SnmpConf.h.
#pragma once

#include <string>
#include <vector>

#include "host/SnmpConf.h"

namespace Host {

// What is wrong with a line, and what to write instead; empty when net-snmp may have it. Puts the address of
// "localhost" in its place: names are not looked up.
std::string checkSnmpWord(SnmpFile kind, const std::string& word, std::string& rest);

// The name of the SNMPv3 user that a line makes; empty when it makes none.
std::string userNamedBy(const SnmpLine& line);

// Whether what the line says is undone by applying all other lines anew.
bool canBeTakenBack(const SnmpLine& line);

// Of lines that are put in force instead of others, in a running agent, the words for which that changes
// nothing.
std::vector<std::string> notReloaded(const std::vector<SnmpLine>& before, const std::vector<SnmpLine>& now);

// The words that the file may have. A test compares them with the manual page.
std::vector<std::string> snmpWords(SnmpFile kind);

}  // namespace Host
