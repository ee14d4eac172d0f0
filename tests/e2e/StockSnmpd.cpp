#include "tests/e2e/StockSnmpd.h"

#include <fmt/format.h>

#include <stdexcept>

#include "tests/support/Network.h"
#include "tests/support/WaitUntil.h"

namespace E2e {
namespace {

constexpr const char* kDebianConf =
    "master agentx\n"
    "view systemonly included .1.3.6.1.2.1.1\n"
    "view systemonly included .1.3.6.1.2.1.25.1\n"
    "rocommunity public default -V systemonly\n";

}  // namespace

std::string documentedView() { return Support::readFile(TREL_SNMPD_SNIPPET); }

StockSnmpd::StockSnmpd() : port_(Support::freeUdpPort()), manager_(address()) {}

void StockSnmpd::start(const std::string& additions) {
  additionsAre(additions);
  // -C: nothing of the machine's own /etc/snmp.
  process_ = std::make_unique<Support::Process>(
      Support::Argv{"/usr/sbin/snmpd", "-f", "-Le", "-C", "-c", dir_.file("snmpd.conf"), "-p",
                    dir_.file("pid"), address()},
      Support::Env{"SNMP_PERSISTENT_DIR=" + dir_.file("persistent"), "MIBS="});
  bool up = Support::waitUntil(
      [this] { return manager_.getNext({".1.3.6.1.2.1.1"}).starts_with(".1.3.6.1.2.1.1.1.0"); });
  if (!up) throw std::runtime_error("snmpd does not answer: " + process_->err());
}

void StockSnmpd::additionsAre(const std::string& additions) const {
  dir_.write("snmpd.conf", fmt::format("{}agentXSocket {}\nrwcommunity secret 127.0.0.1\n{}", kDebianConf,
                                       socket(), additions));
}

std::string StockSnmpd::address() const { return fmt::format("udp:127.0.0.1:{}", port_); }

}  // namespace E2e
