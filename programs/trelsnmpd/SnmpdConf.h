// The configuration of this machine's stock snmpd, in the order in which it reads it. Used by trelsnmpd, to
// find the master's address, and by trelctl doctor. On threads that may block.
#pragma once

#include <absl/status/status.h>

#include <string>
#include <vector>

namespace Trelsnmpd {

struct SnmpdConfLine {
  std::string where;      // "FILE:LINE"
  std::string directive;  // in lower case
  std::string value;      // the rest of the line, which snmpd takes as it is, also quotes
};

struct SnmpdConf {
  std::vector<SnmpdConfLine> lines;  // of snmpd; those of the section [snmp] are not there
  absl::Status unread;  // why a file could not be read, the last one; NotFound: there is no `conf`
};

// Follows includeFile and includeDir. Reads *.conf of `directory` where `conf` is closed to this user, as
// Debian's includes them. Blocks.
SnmpdConf readSnmpdConf(const std::string& conf = "/etc/snmp/snmpd.conf",
                        const std::string& directory = "/etc/snmp/snmpd.conf.d");

}  // namespace Trelsnmpd
