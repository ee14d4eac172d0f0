// An SNMP agent within the test process, on a port of the loopback interface, and a manager that asks it.
// There is one for the whole process, since net-snmp's agent is. It knows no access control, and no objects
// but those that a test registers.
//
// Objects are written relative to ENT.3.40.1, so that "2.1.4.1.3" is column 4 of row 1.3 of the second table,
// or to ENT.3.41.1, as "hr.1.1.2.7". Elsewhere the whole OID is written, with a leading dot.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "snmp-modules/NetSnmp.h"

namespace SnmpTest {

using Names = std::vector<std::string>;

class InProcessAgent {
 public:
  static InProcessAgent& instance();

  // The answer's varbinds, "<name>=<value>", separated by blanks, such as "2.1.4.1.3=i:5". An answer with an
  // error is its name and index, such as "genErr(1)". Too late an answer reads "timeout".
  std::string get(const Names& names) { return ask(request(SNMP_MSG_GET, names)); }
  std::string getNext(const Names& names) { return ask(request(SNMP_MSG_GETNEXT, names)); }
  std::string getBulk(int nonRepeaters, int maxRepetitions, const Names& names);
  std::string set(const std::string& name, long value);
  std::string set(const std::string& name, const std::string& octets);

  // What GETNEXT finds below a subtree, one after the other. step is called with each answer before the next
  // request. Stops with "endless" when a name does not grow.
  std::vector<std::string> walk(const std::string& subtree,
                                const std::function<void(const std::string&)>& step = {});

 private:
  InProcessAgent();
  netsnmp_pdu* request(int command, const Names& names);
  std::string set(const std::string& name, u_char type, const void* value, size_t size);
  std::string ask(netsnmp_pdu* pdu);

  netsnmp_session* manager_ = nullptr;
};

// A name of that form as an OID.
std::vector<oid> oidOf(std::string_view name);

// The name of a varbind in the shortest such form.
std::string nameIn(const netsnmp_variable_list& varbind);

// i for INTEGER, u for Gauge32 and Unsigned32, t for TimeTicks, s for OCTET STRING, or x and its octets when
// some are control characters, o for OBJECT IDENTIFIER; or the exception, such as "noSuchInstance".
std::string valueIn(const netsnmp_variable_list& varbind);

}  // namespace SnmpTest
