// Where the AgentX master of this machine listens, for operators who do not know.
#pragma once

#include <string>
#include <vector>

namespace Trelsnmpd {

// In place of an address: it is to be found.
inline constexpr const char* kAutoMaster = "auto";

// Whether it is an address on this machine. For others net-snmp would block the loop: it looks up names, and
// waits for a machine that does not answer.
bool isMaster(const std::string& address);

// Where to look.
struct MasterPlaces {
  std::string conf = "/etc/snmp/snmpd.conf";
  std::string confDirectory = "/etc/snmp/snmpd.conf.d";  // its *.conf, where `conf` is closed to this user
  // In the order in which they count; the first is net-snmp's default.
  std::vector<std::string> sockets = {"/var/agentx/master", "/run/agentx/master"};
};

struct MasterAddress {
  std::string address;  // isMaster()
  std::string why;      // one line: why this one, and what keeps this user from it, with what to do
};

// What agentXSocket in the configuration says, as far as this user may read it; else a socket that exists;
// else net-snmp's default. Blocks.
MasterAddress findMaster(const MasterPlaces& places = {});

}  // namespace Trelsnmpd
