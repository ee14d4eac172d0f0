// A manager within the process, for benchmarks that cannot afford a program for each request.
#pragma once

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <string>
#include <vector>

namespace Bench {

using Oid = std::vector<oid>;

// Throws std::runtime_error when the text is no object identifier.
Oid oidOf(const std::string& dotted);
// sysUpTime.0
const Oid& upTime();

class SnmpSession {
 public:
  // With the community public; throws std::runtime_error when there is no such address.
  explicit SnmpSession(std::string address);
  ~SnmpSession();
  SnmpSession(const SnmpSession&) = delete;
  SnmpSession& operator=(const SnmpSession&) = delete;

  // Asks for name; returns the names of the answer, whose values are all present. Throws std::runtime_error
  // when there is no such answer.
  std::vector<Oid> ask(int command, const Oid& name, long maxRepetitions = 0);
  // The INTEGER at the name, or -1 where there is none.
  long integer(const Oid& name);

 private:
  template <class Take>
  void exchange(int command, const Oid& name, long maxRepetitions, Take take);

  netsnmp_session* session_;
};

}  // namespace Bench
