#include "tests/e2e/Hosts.h"

#include <fmt/format.h>

#include <sstream>

namespace E2e {
namespace {

// As long as a description may be.
std::string longest() { return std::string(255, 'd'); }

}  // namespace

// Member 1 is an ordinary one, but for a load that it does not know and an umlaut. Member 2 has figures that
// need all 32 bits, or more than there are. Member 255 publishes a processor only.
std::string hostsDocument() {
  return R"({
    "members": {
      "1": {
        "system": {"uptime": 86400.5, "currentTimeUtc": 1767225601.25, "users": 1, "processes": 107,
                   "memorySize": 8388608},
        "processors": {"1": {"load": -1}, "4294967295": {"load": 100}},
        "storage": {
          "/": {"allocationUnits": 4096, "size": 5242880, "free": 2620440},
          "/größe": {"allocationUnits": 512, "size": 4294967301, "free": 2}
        },
        "memory": {"total": 8388608, "free": 4190208, "available": 6287360}
      },
      "2": {
        "system": {"uptime": 42949673.96, "currentTimeUtc": 4294967296, "users": 2147483648,
                   "processes": 4294967295, "memorySize": 4294967295},
        "processors": {"2147483648": {"load": -32768}, "0": {"load": 32767}},
        "storage": {
          "/": {"allocationUnits": 2147483648, "size": 100, "free": 150},
          "/nowhere": {"allocationUnits": 4096, "size": 1, "free": 1}
        },
        "memory": {"total": 8000000, "available": 3000000}
      },
      "255": {"processors": {"1": {"load": 0}}}
    },
    "storageMappings": {
      "mounts": {
        "/": {"index": 31, "type": "1.3.6.1.2.1.25.2.1.4", "description": "/"},
        "/größe": {"index": 2147483648, "type": "1.3.6.1.2.1.25.2.1.4", "description": "/größe"}
      },
      "memory": {
        "1": {"index": 1, "type": "1.3.6.1.2.1.25.2.1.2", "description": ")" +
         longest() + R"("},
        "100": {"index": 100, "type": "1.3.6.1.2.1.25.2.1.1", "description": ""}
      }
    }
  })";
}

std::vector<Varbind> hostsTree() {
  std::istringstream lines(fmt::format(R"(
sys.2.1 = Timeticks: (8640050) 1 day, 0:00:00.50
sys.2.2 = Timeticks: (100) 0:00:01.00
sys.2.255 = Timeticks: (0) 0:00:00.00
sys.3.1 = Hex-STRING: 07 EA 01 01 00 00 01 02 2B 00 00
sys.3.2 = Hex-STRING: 08 3A 02 07 06 1C 10 00 2B 00 00
sys.3.255 = Hex-STRING: 07 B2 01 01 00 00 00 00 2B 00 00
sys.4.1 = Gauge32: 1
sys.4.2 = Gauge32: 2147483648
sys.4.255 = Gauge32: 0
sys.5.1 = Gauge32: 107
sys.5.2 = Gauge32: 4294967295
sys.5.255 = Gauge32: 0
sys.6.1 = INTEGER: 8388608
sys.6.2 = INTEGER: -1
sys.6.255 = INTEGER: 0
proc.3.1.1 = INTEGER: -1
proc.3.1.4294967295 = INTEGER: 100
proc.3.2.0 = INTEGER: 32767
proc.3.2.2147483648 = INTEGER: -32768
proc.3.255.1 = INTEGER: 0
stor.3.1.1 = OID: .1.3.6.1.2.1.25.2.1.2
stor.3.1.31 = OID: .1.3.6.1.2.1.25.2.1.4
stor.3.1.100 = OID: .1.3.6.1.2.1.25.2.1.1
stor.3.1.2147483648 = OID: .1.3.6.1.2.1.25.2.1.4
stor.3.2.1 = OID: .1.3.6.1.2.1.25.2.1.2
stor.3.2.31 = OID: .1.3.6.1.2.1.25.2.1.4
stor.3.2.100 = OID: .1.3.6.1.2.1.25.2.1.1
stor.4.1.1 = STRING: "{0}"
stor.4.1.31 = STRING: "/"
stor.4.1.100 = ""
stor.4.1.2147483648 = Hex-STRING: 2F 67 72 C3 B6 C3 9F 65
stor.4.2.1 = STRING: "{0}"
stor.4.2.31 = STRING: "/"
stor.4.2.100 = ""
stor.5.1.1 = INTEGER: 1024
stor.5.1.31 = INTEGER: 4096
stor.5.1.100 = INTEGER: 1024
stor.5.1.2147483648 = INTEGER: 512
stor.5.2.1 = INTEGER: 1024
stor.5.2.31 = INTEGER: -2147483648
stor.5.2.100 = INTEGER: 1024
stor.6.1.1 = INTEGER: 8388608
stor.6.1.31 = INTEGER: 5242880
stor.6.1.100 = INTEGER: 8388608
stor.6.1.2147483648 = INTEGER: 5
stor.6.2.1 = INTEGER: 8000000
stor.6.2.31 = INTEGER: 100
stor.6.2.100 = INTEGER: 8000000
stor.7.1.1 = INTEGER: 4198400
stor.7.1.31 = INTEGER: 2622440
stor.7.1.100 = INTEGER: 2101248
stor.7.1.2147483648 = INTEGER: 3
stor.7.2.1 = INTEGER: 8000000
stor.7.2.31 = INTEGER: -50
stor.7.2.100 = INTEGER: 5000000)",
                                       longest()));
  constexpr std::string_view kAssigned = " = ";
  std::vector<Varbind> tree;
  for (std::string line; std::getline(lines, line);) {
    size_t at = line.find(kAssigned);
    if (at == std::string::npos) continue;
    std::string value = line.substr(at + kAssigned.size());
    // The tools end octets with a blank.
    if (value.starts_with("Hex-STRING:")) value += ' ';
    tree.push_back({line.substr(0, at), value});
  }
  return tree;
}

}  // namespace E2e
