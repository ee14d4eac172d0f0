// A manager that asks one agent, with net-snmp's command-line tools. The settings of the machine and of the
// user who runs the tests are left aside.
//
// Names in the tables are written short, in what is asked and in what is answered: "reach.4.1.3" for column 4
// of row 1.3 of the reachability table, and so on with "baif" (backplane interfaces), "sys" (system figures),
// "proc" (processors) and "stor" (storage). Everything else is a numeric OID.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace E2e {

using Names = std::vector<std::string>;

inline constexpr const char* kSysContact = "1.3.6.1.2.1.1.4.0";

class Manager final {
 public:
  // Version and credentials, as the tools take them; and, if wanted, another patience.
  static const Support::Argv kV2c;  // as community public
  explicit Manager(std::string address, Support::Argv credentials = kV2c);

  // The tools are run by this program, which is given tool and arguments as last arguments.
  Manager& runBy(const Support::Argv& program);

  // The answer's varbinds, one per line, "reach.4.1.3 = INTEGER: 4"; or what the tool says is wrong.
  std::string get(const Names& names) const { return ask("snmpget", {}, names); }
  std::string getNext(const Names& names) const { return ask("snmpgetnext", {}, names); }
  std::string getBulk(int nonRepeaters, int maxRepetitions, const Names& names) const;
  std::string walk(const std::string& subtree = kTables) const { return ask("snmpwalk", {}, {subtree}); }
  std::string bulkWalk(const std::string& subtree = kTables) const {
    return ask("snmpbulkwalk", {}, {subtree});
  }
  // Sets an INTEGER, or a value with snmpset's letter for its type.
  std::string set(const std::string& name, long value) const;
  std::string set(const std::string& name, char type, const std::string& value) const;
  // snmptable or any other tool, with the project's MIB modules.
  Support::Result withNames(const std::string& tool, const Support::Argv& options, const Names& names) const;
  // The agent's uptime in hundredths of a second.
  uint32_t upTime() const;

  // The subtree that holds the tables.
  static constexpr const char* kTables = "tables";

 private:
  std::string ask(const std::string& tool, const Support::Argv& options, const Names& names) const;
  Support::Result run(const std::string& tool, const Support::Argv& options, const Names& names) const;

  Support::Argv runBy_;
  std::string address_;
  Support::Argv credentials_;
  Support::TempDir settings_;
};

std::string numericName(std::string_view name);
std::string shortName(std::string text);

}  // namespace E2e
