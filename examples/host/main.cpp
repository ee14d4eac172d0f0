// A complete SNMP agent that serves a cluster's tables from a state of its own: links in a text file.
#include <net-snmp/net-snmp-config.h>
// After the configuration.
#include <net-snmp/net-snmp-includes.h>
// After the library.
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "Links.h"
#include "agent/TrelSnmpAgent.h"
#include "platform/snmp/AgentUptime.h"
#include "platform/snmp/KelstoreUtil.h"
#include "platform/vem/Vem.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"

namespace {

volatile std::sig_atomic_t stopped = 0;

// Whether net-snmp listens. The community "public" may read, from this machine.
bool startSnmp(const char* address) {
  constexpr const char* kName = "trelhost";
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, address);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS, 1);
  setenv("MIBS", "", 1);  // an agent needs no names
  snmp_enable_stderrlog();
  if (init_agent(kName) != 0) return false;
  std::string access = "rocommunity public 127.0.0.1";
  netsnmp_config_remember(access.data());
  init_snmp(kName);
  return init_master_agent() == 0;
}

// Where the modules find the MIB state object.
Zavro::Ptr<Kor::Dir> rootWith(const Zavro::Ptr<TrelSnmp::TrelMib>& mib) {
  auto root = Zavro::makePtr<Kor::Dir>("root");
  auto snmp = Zavro::makePtr<Kor::Dir>("snmp");
  auto trel = Zavro::makePtr<Kor::Dir>("trel");
  root->entityPtrIs(snmp);
  snmp->entityPtrIs(trel);
  trel->entityPtrIs(mib);
  return root;
}

// Serves until a signal. Between two slices of the library's tasks requests are answered.
void serve(Vem::TaskScheduler& tasks, Links& links) {
  // Wakes the loop once a second.
  snmp_alarm_register(
      1, SA_REPEAT, [](unsigned, void* what) { static_cast<Links*>(what)->follow(); }, &links);
  while (stopped == 0) {
    tasks.runOne();
    agent_check_and_process(/*block=*/tasks.runnable() ? 0 : 1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "Usage: trelhost FILE ADDRESS, such as: trelhost links udp:127.0.0.1:1161\n";
    return 2;
  }
  for (int signal : {SIGTERM, SIGINT}) std::signal(signal, [](int) { stopped = 1; });
  if (!startSnmp(argv[2])) return 2;

  Zavro::SystemClock clock;
  Snmp::AgentUptime uptime(
      clock, [] { return Zavro::Duration(static_cast<double>(netsnmp_get_agent_uptime()) / 100); });
  auto tasks = Vem::TaskSchedulerRoot::findOrCreateScheduler();
  auto mib = TrelSnmp::trelMibFactory("trelMib");
  Snmp::KelstoreUtil::rootIs(rootWith(mib), Zavro::makePtr<const Snmp::Config>("trelhost"));

  Links links(argv[1], clock);
  links.follow();
  auto status = Zavro::makePtr<Snmp::Status>("status");
  auto root = TrelSnmp::Agent::rootFactory("trelSnmp");
  root->agentIs(mib, status, links.ifMib(), links.topology(), links.reachability(),
                Zavro::makePtr<const Kor::Dir>("hostResources"));
  status->initializedIs(true);  // registers the tables
  std::cout << "serving" << std::endl;
  serve(*tasks, links);

  unregister_veldaTrelHostResourcesMIB("");
  unregister_veldaTrelMIB("");
  root->agentDel();
  Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
  snmp_shutdown("trelhost");
  return 0;
}
