// What the tests of the agent share: its inputs, the root that makes it, and a scheduler that the test
// drives.
#pragma once

#include <gtest/gtest.h>

#include "agent/TrelSnmpAgent.h"
#include "platform/snmp/KelstoreUtil.h"
#include "platform/snmp/RegVoidCollByContext.h"
#include "platform/trel/Mode.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"
#include "tests/support/BareAgent.h"
#include "tests/support/DrivenScheduler.h"
#include "tests/support/TraceLog.h"

namespace TrelSnmp::Agent {

class AgentTest : public testing::Test {
 protected:
  using State = Trel::ReachabilityState;

  // Once, and never shut down: net-snmp loses sight of some of its memory when it is, and a leak of ours
  // would hide among that.
  static void SetUpTestSuite() {
    [[maybe_unused]] static const bool up = [] {
      Support::startBareAgent("agent-test");
      return true;
    }();
  }

  void SetUp() override {
    Vem::TaskSchedulerRoot::schedulerIs(scheduler.get());
    auto snmpDir = Zavro::makePtr<Kor::Dir>("snmp");
    auto trelDir = Zavro::makePtr<Kor::Dir>("trel");
    stateRoot->entityPtrIs(snmpDir);
    snmpDir->entityPtrIs(trelDir);
    trelDir->entityPtrIs(mib);
    Snmp::KelstoreUtil::rootIs(stateRoot, Zavro::makePtr<const Snmp::Config>("switch-1"));
  }
  void TearDown() override {
    root.reset();
    unregister_veldaTrelHostResourcesMIB("");
    unregister_veldaTrelMIB("");
    Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
    Kor::Entity::singletonDel(Snmp::RegVoidCollByContext::kTypeName);
    Kor::Entity::singletonDel(HostResourcesMib::StorageEntryMappings::kTypeName);
    Vem::TaskSchedulerRoot::schedulerIs(nullptr);
    Trel::trelModeIs(true);
  }

  // Member 1 reaches member 2 over the interface with ifIndex 10.
  void linked() {
    auto member = Zavro::makePtr<Trel::TopoConfig>(Trel::MemberId(1));
    member->neighbor().set(Trel::MemberId(2), Lanix::IntfId("Backplane1/2"));
    topology->topoConfig().set(Trel::MemberId(1), member);
    ifMib->ifIndexByIntfId().set(Lanix::IntfId("Backplane1/2"), 10);
  }
  Zavro::Ptr<Agent> agentIs() {
    return root->agentIs(mib, status, ifMib, topology, reachabilityDir, hostResourcesDir);
  }
  // Both modules are, or neither is.
  static bool registered() {
    auto records = Snmp::RegVoidCollByContext::singleton();
    bool topology = records->regVoid("", "veldaTrelReachabilityTable") != nullptr;
    EXPECT_EQ(records->regVoid("", "veldaTrelStorageTable") != nullptr, topology);
    return topology;
  }
  void reports(const std::string& member, uint8_t neighbour) {
    auto entity = Zavro::makePtr<Trel::ReachabilityStatus>(member);
    entity->reachabilityStatus().set(Trel::MemberId(neighbour),
                                     Zavro::makePtr<const State>(State::reachable, std::nullopt, 0));
    reachabilityDir->entityPtrIs(entity);
  }

  DrivenScheduler scheduler;
  Zavro::Ptr<Kor::Dir> stateRoot = Zavro::makePtr<Kor::Dir>("switch-1");
  Zavro::Ptr<TrelMib> mib = trelMibFactory("trelMib");
  Zavro::Ptr<Snmp::Status> status = Zavro::makePtr<Snmp::Status>("status");
  Zavro::Ptr<IntfSnmp::IfMib> ifMib = Zavro::makePtr<IntfSnmp::IfMib>("ifMib");
  Zavro::Ptr<Trel::TopologyConfig> topology = Zavro::makePtr<Trel::TopologyConfig>("topology");
  Zavro::Ptr<Kor::Dir> reachabilityDir = Zavro::makePtr<Kor::Dir>("reachabilityDir");
  Zavro::Ptr<Kor::Dir> hostResourcesDir = Zavro::makePtr<Kor::Dir>("hostResourcesDir");
  Zavro::Ptr<Root> root = rootFactory("root");
};

}  // namespace TrelSnmp::Agent
