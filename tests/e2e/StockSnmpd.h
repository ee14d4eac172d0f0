// The distribution's own snmpd, with what its /etc/snmp/snmpd.conf says and additions to that.
#pragma once

#include <memory>
#include <string>

#include "tests/e2e/Manager.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace E2e {

// What docs/agentx.md adds: the view of the tables.
std::string documentedView();

class StockSnmpd final {
 public:
  StockSnmpd();

  // Writes the configuration, and starts it. Returns once it answers; throws when it does not.
  void start(const std::string& additions);
  // What is read at the next start or SIGHUP.
  void additionsAre(const std::string& additions) const;
  Support::Process& process() { return *process_; }
  void stop() { process_->stop(); }

  // The address that subagents connect to.
  std::string socket() const { return "unix:" + dir_.file("master"); }
  const Support::TempDir& dir() const { return dir_; }
  const Manager& manager() const { return manager_; }
  Manager writer() const { return Manager(address(), {"-v2c", "-c", "secret"}); }

 private:
  std::string address() const;

  uint16_t port_;
  Support::TempDir dir_;
  Manager manager_;
  std::unique_ptr<Support::Process> process_;
};

}  // namespace E2e
