// What a host does with the library, in a module of its own: loading this loads libTrelSnmp.so, too.
#include "agent/TrelSnmpAgent.h"
#include "platform/snmp/KelstoreUtil.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"
#include "tests/support/DrivenScheduler.h"

using namespace TrelSnmp;

namespace {

Zavro::Ptr<Kor::Dir> dirIn(const Zavro::Ptr<Kor::Dir>& parent, const char* name) {
  auto dir = Zavro::makePtr<Kor::Dir>(name);
  parent->entityPtrIs(dir);
  return dir;
}

}  // namespace

// Serves one member's report until its row stands and the modules are registered, then takes everything down.
// Returns the number of rows.
extern "C" size_t serveOnce() {
  DrivenScheduler scheduler;
  auto stateRoot = Zavro::makePtr<Kor::Dir>("switch-1");
  auto mib = trelMibFactory("trelMib");
  dirIn(dirIn(stateRoot, "snmp"), "trel")->entityPtrIs(mib);
  Snmp::KelstoreUtil::rootIs(stateRoot, Zavro::makePtr<const Snmp::Config>("switch-1"));
  auto member = Zavro::makePtr<Trel::ReachabilityStatus>("1");
  member->reachabilityStatus().set(
      Trel::MemberId(2),
      Zavro::makePtr<const Trel::ReachabilityState>(Trel::ReachabilityState::reachable, std::nullopt, 0));
  auto reachabilityDir = Zavro::makePtr<Kor::Dir>("reachabilityDir");
  reachabilityDir->entityPtrIs(member);
  auto status = Zavro::makePtr<Snmp::Status>("status");
  status->initializedIs(true);

  Vem::TaskSchedulerRoot::schedulerIs(scheduler.get());
  auto root = Agent::rootFactory("root");
  root->agentIs(mib, status, Zavro::makePtr<const IntfSnmp::IfMib>("ifMib"),
                Zavro::makePtr<const Trel::TopologyConfig>("topology"), reachabilityDir,
                Zavro::makePtr<const Kor::Dir>("hostResourcesDir"));
  scheduler.drain();
  size_t rows = mib->trelReachabilityTable().size();

  unregister_veldaTrelHostResourcesMIB("");
  unregister_veldaTrelMIB("");
  root.reset();
  Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
  Vem::TaskSchedulerRoot::schedulerIs(nullptr);
  return rows;
}
