// The agent's life: what it makes, in which order, what it keeps, what it waits for, and what it leaves
// behind.
#include <gtest/gtest.h>
#include <net-snmp/net-snmp-config.h>
// The order matters to net-snmp.
#include <net-snmp/net-snmp-includes.h>
// The agent's part builds on the library's.
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cstdlib>

#include "TrelSnmpAgent.h"
#include "snmp/KelstoreUtil.h"
#include "snmp/RegVoidCollByContext.h"
#include "support/DrivenScheduler.h"
#include "support/TempDir.h"
#include "support/TraceLog.h"
#include "toggles/Toggles.h"
#include "trel/Mode.h"
#include "veldaTrelHostResourcesMIB.h"
#include "veldaTrelMIB.h"

namespace TrelSnmp::Agent {
namespace {

using State = Trel::ReachabilityState;

class AgentTest : public testing::Test {
 protected:
  // Once, and never shut down: net-snmp loses sight of some of its memory when it is, and a leak of ours
  // would hide among that.
  static void SetUpTestSuite() {
    [[maybe_unused]] static const bool up = [] {
      setenv("MIBS", "", 1);  // no MIB files are wanted, nor complaints about missing ones
      netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 0);
      netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
      netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
      init_agent("agent-test");
      init_snmp("agent-test");
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

TEST_F(AgentTest, NewRoot_HasItsNameAndNoAgent) {
  EXPECT_EQ(root->name(), "root");
  EXPECT_EQ(root->agent(), nullptr);
  EXPECT_EQ(RootIs("other")->name(), "other");
  EXPECT_EQ(Kor::attribute(*root, "agent"), "false");
}

TEST_F(AgentTest, DirectoryMakesRoots_ButTakesNoArguments) {
  Kor::Dir dir("agents");
  auto made = dir.newEntity(Root::type(), "r");
  EXPECT_EQ(dir.entityPtr("r"), made);
  EXPECT_NE(dynamic_cast<Root*>(made.get()), nullptr);
  EXPECT_THROW(dir.newEntity(Root::type(), "s", {"x"}), Kor::NewEntityArgumentsException);
  EXPECT_EQ(dir.entityPtr("s"), nullptr);
}

TEST_F(AgentTest, SameInputs_SameAgentAndPipelines) {
  auto agent = agentIs();
  auto pipeline = agent->trelSnmpReachabilityTableSm();
  auto watcher = agent->snmpStatusSm();
  EXPECT_EQ(agentIs(), agent);
  EXPECT_EQ(agent->trelSnmpReachabilityTableSm(), pipeline);
  EXPECT_EQ(agent->snmpStatusSm(), watcher);
}

TEST_F(AgentTest, AnyOtherInput_WholeNewAgent) {
  auto agent = agentIs();
  auto otherMib = trelMibFactory("other");
  auto otherStatus = Zavro::makePtr<Snmp::Status>("other");
  auto otherIfMib = Zavro::makePtr<IntfSnmp::IfMib>("other");
  auto otherTopology = Zavro::makePtr<Trel::TopologyConfig>("other");
  auto otherDir = Zavro::makePtr<Kor::Dir>("other");
  const std::vector<std::function<Zavro::Ptr<Agent>()>> changes = {
      [&] { return root->agentIs(otherMib, status, ifMib, topology, reachabilityDir, hostResourcesDir); },
      [&] { return root->agentIs(mib, otherStatus, ifMib, topology, reachabilityDir, hostResourcesDir); },
      [&] { return root->agentIs(mib, status, otherIfMib, topology, reachabilityDir, hostResourcesDir); },
      [&] { return root->agentIs(mib, status, ifMib, otherTopology, reachabilityDir, hostResourcesDir); },
      [&] { return root->agentIs(mib, status, ifMib, topology, otherDir, hostResourcesDir); },
      [&] { return root->agentIs(mib, status, ifMib, topology, reachabilityDir, otherDir); },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    auto before = agentIs();
    auto pipeline = before->trelSnmpReachabilityTableSm();
    auto after = changes[i]();
    EXPECT_NE(after, before) << i;
    EXPECT_EQ(root->agent(), after) << i;
    EXPECT_NE(after->trelSnmpReachabilityTableSm(), pipeline) << i;
    EXPECT_EQ(changes[i](), after) << i;
  }
}

TEST_F(AgentTest, AgentHoldsItsInputsAndLetsThemGo) {
  uint32_t before = reachabilityDir->useCount();
  agentIs();
  EXPECT_GT(reachabilityDir->useCount(), before);
  EXPECT_GT(hostResourcesDir->useCount(), 1U);
  root->agentDel();
  for (const Zavro::Counted* object : std::initializer_list<const Zavro::Counted*>{
           status.get(), ifMib.get(), topology.get(), reachabilityDir.get(), hostResourcesDir.get()}) {
    EXPECT_EQ(object->useCount(), 1U);
  }
}

TEST_F(AgentTest, Attributes_ReadByName) {
  auto agent = agentIs();
  EXPECT_EQ(Kor::attribute(*root, "agent"), "true");
  EXPECT_EQ(Kor::attribute(*agent, "trelMib"), "trelMib");
  EXPECT_EQ(Kor::attribute(*agent, "snmpStatus"), "status");
  EXPECT_EQ(Kor::attribute(*agent, "ifMib"), "ifMib");
  EXPECT_EQ(Kor::attribute(*agent, "topologyConfig"), "topology");
  EXPECT_EQ(Kor::attribute(*agent, "reachabilityDir"), "reachabilityDir");
  EXPECT_EQ(Kor::attribute(*agent, "hostResourcesDir"), "hostResourcesDir");
  EXPECT_EQ(Kor::attribute(*agent, "snmpStatusSm"), "true");
  EXPECT_EQ(Kor::attribute(*agent->snmpStatusSm(), "mibsInitialized"), "false");
  agent->snmpStatusSmDel();
  EXPECT_EQ(Kor::attribute(*agent, "snmpStatusSm"), "false");
}

TEST_F(AgentTest, WhatSomebodyHolds_IsInactiveOnceTheAgentIsGone) {
  auto agent = agentIs();
  auto watcher = agent->snmpStatusSm();
  const std::vector<Zavro::Ptr<Zavro::Node>> held = {
      agent->trelSnmpIfTableSm(), agent->trelSnmpReachabilityTableSm(), agent->trelSnmpHostResourcesSm(),
      agent->trelSnmpHrStorageTableSm()};
  for (const auto& pipeline : held) EXPECT_TRUE(pipeline->hasNotificationActive());
  agent.reset();
  root->agentDel();
  for (const auto& pipeline : held) EXPECT_FALSE(pipeline->hasNotificationActive());
  EXPECT_FALSE(watcher->hasNotificationActive());
}

TEST_F(AgentTest, AgentDel_HandsTheAgentOver) {
  EXPECT_EQ(root->agentDel(), nullptr);
  auto agent = agentIs();
  EXPECT_EQ(root->agentDel(), agent);
  EXPECT_EQ(root->agent(), nullptr);
  EXPECT_EQ(agent->useCount(), 1U);
}

TEST_F(AgentTest, Pipelines_AreActiveAndReadyOnceTheSchedulerRan) {
  reports("1", 2);
  auto agent = agentIs();
  std::vector<std::string> names;
  for (const auto& pipeline : agent->pipelines()) names.push_back(pipeline->name());
  EXPECT_EQ(names, (std::vector<std::string>{"TrelSnmpIfTableSm", "TrelSnmpReachabilityTableSm",
                                             "TrelSnmpHostResourcesSm", "TrelSnmpHrStorageTableSm"}));
  EXPECT_TRUE(agent->trelSnmpReachabilityTableSm()->hasNotificationActive());
  EXPECT_TRUE(agent->snmpStatusSm()->hasNotificationActive());
  scheduler.drain();
  for (const auto& pipeline : agent->pipelines()) EXPECT_TRUE(pipeline->ready()) << pipeline->name();
  EXPECT_NE(mib->trelReachabilityTable({1, 2}), nullptr);
}

TEST_F(AgentTest, PipelinesDoNotWaitForSnmp) {
  reports("1", 2);
  TraceLog traces{"TrelSnmpAgent"};
  agentIs();
  scheduler.drain();
  EXPECT_NE(mib->trelReachabilityTable({1, 2}), nullptr);
  EXPECT_FALSE(registered());
  EXPECT_EQ(traces.count("TrelSnmpAgent/8 SnmpStatusSm: SnmpStatus not initialized"), 1U);
}

TEST_F(AgentTest, Start_GoldenTrace) {
  Zavro::ManualClock clock;
  Lumalog::clockIs(&clock);
  TraceLog traces{"TrelSnmpAgent"};
  agentIs();
  static Zavro::SystemClock systemClock;
  Lumalog::clockIs(&systemClock);
  const std::string watcher = "void TrelSnmp::Agent::SnmpStatusSm::handleSnmpStatusInitialized()";
  const std::string startSMs = "void TrelSnmp::Agent::Agent::startSMs()";
  EXPECT_EQ(traces.lines(),
            (std::vector<std::string>{"TrelSnmpAgent/9 " + startSMs, "TrelSnmpAgent/8 startSMs",
                                      "TrelSnmpAgent/9 " + watcher + ": SnmpStatus not initialized",
                                      "TrelSnmpAgent/8 SnmpStatusSm: SnmpStatus not initialized",
                                      "TrelSnmpAgent/9 " + watcher + " took 0 us",
                                      "TrelSnmpAgent/9 " + startSMs + " took 0 us"}));
}

TEST_F(AgentTest, SnmpComesUp_ModulesAreRegisteredOnce) {
  auto agent = agentIs();
  TraceLog traces{"TrelSnmpAgent", "veldaTrelMIB", "veldaTrelHostResourcesMIB"};
  status->initializedIs(true);
  EXPECT_TRUE(registered());
  EXPECT_TRUE(Snmp::mibContextRegistered("", "veldaTrelMIB"));
  EXPECT_TRUE(Snmp::mibContextRegistered("", "veldaTrelHostResourcesMIB"));
  EXPECT_TRUE(agent->snmpStatusSm()->mibsInitialized());
  EXPECT_EQ(traces.count("TrelSnmpAgent/8 handleSnmpStatusInitialized"), 1U);
  status->initializedIs(false);
  EXPECT_TRUE(registered());
  status->initializedIs(true);
  EXPECT_EQ(traces.count("veldaTrelMIB/8 Initialized table veldaTrelReachabilityTable in context \"\""), 1U);
  EXPECT_EQ(
      traces.count("veldaTrelHostResourcesMIB/8 Initialized table veldaTrelStorageTable in context \"\""),
      1U);
  EXPECT_EQ(traces.count("TrelSnmpAgent/8 handleSnmpStatusInitialized"), 1U);
}

TEST_F(AgentTest, SnmpUpFromTheStart_ModulesAreRegisteredBeforeThePipelinesAreMade) {
  status->initializedIs(true);
  TraceLog traces;
  agentIs();
  auto position = [&](std::string_view line) {
    auto found = std::find(traces.lines().begin(), traces.lines().end(), line);
    EXPECT_NE(found, traces.lines().end()) << line;
    return found - traces.lines().begin();
  };
  const std::string inDefaultContext = " in context \"\"";
  const std::vector<std::string> order = {
      "veldaTrelMIB/8 Initialized table veldaTrelBaIfTable" + inDefaultContext,
      "veldaTrelMIB/8 Initialized table veldaTrelReachabilityTable" + inDefaultContext,
      "veldaTrelHostResourcesMIB/8 Initialized table veldaTrelHrSystemTable" + inDefaultContext,
      "veldaTrelHostResourcesMIB/8 Initialized table veldaTrelProcessorTable" + inDefaultContext,
      "veldaTrelHostResourcesMIB/8 Initialized table veldaTrelStorageTable" + inDefaultContext,
      "TrelSnmpIfTableSm/9 create local SMs",
      "TrelSnmpReachabilityTableSm/9 create local SMs",
      "TrelSnmpHostResourcesSm/9 create local SMs",
      "TrelSnmpHrStorageTableSm/9 create local SMs"};
  for (size_t i = 0; i + 1 < order.size(); ++i) EXPECT_LT(position(order[i]), position(order[i + 1])) << i;
}

TEST_F(AgentTest, WatchedRecordReplaced_TheNewOneCounts) {
  auto agent = agentIs();
  auto other = Zavro::makePtr<Snmp::Status>("other");
  agent->snmpStatusSm()->snmpStatusIs(other);
  status->initializedIs(true);
  EXPECT_FALSE(registered());
  other->initializedIs(true);
  EXPECT_TRUE(registered());
}

TEST_F(AgentTest, WatchedRecordReplacedByOneThatIsUp_RegistersAtOnce) {
  auto agent = agentIs();
  auto other = Zavro::makePtr<Snmp::Status>("other");
  other->initializedIs(true);
  agent->snmpStatusSm()->snmpStatusIs(other);
  EXPECT_TRUE(registered());
}

TEST_F(AgentTest, StatusWatcher_KeptForTheSameRecordReplacedForAnother) {
  auto agent = agentIs();
  auto watcher = agent->snmpStatusSm();
  EXPECT_EQ(agent->snmpStatusSmIs(status), watcher);
  auto other = Zavro::makePtr<Snmp::Status>("other");
  auto replacement = agent->snmpStatusSmIs(other);
  EXPECT_NE(replacement, watcher);
  EXPECT_EQ(agent->snmpStatusSm(), replacement);
  EXPECT_TRUE(replacement->hasNotificationActive());
  EXPECT_FALSE(watcher->hasNotificationActive());
  status->initializedIs(true);
  EXPECT_FALSE(registered());
}

TEST_F(AgentTest, StatusWatcherGetsAnotherRecordWhileInactive_ActsOnceItIsActive) {
  auto agent = agentIs();
  auto watcher = agent->snmpStatusSmDel();
  auto other = Zavro::makePtr<Snmp::Status>("other");
  other->initializedIs(true);
  watcher->snmpStatusIs(other);
  EXPECT_FALSE(registered());
  watcher->hasNotificationActiveIs(true);
  EXPECT_TRUE(registered());
}

TEST_F(AgentTest, StatusWatcherGetsTheSameRecord_NothingHappens) {
  auto agent = agentIs();
  TraceLog traces{"TrelSnmpAgent"};
  agent->snmpStatusSm()->snmpStatusIs(status);
  EXPECT_TRUE(traces.lines().empty());
}

TEST_F(AgentTest, StatusWatcherDetached_IsInactiveUntilItIsActiveAgain) {
  auto agent = agentIs();
  auto watcher = agent->snmpStatusSmDel();
  EXPECT_EQ(agent->snmpStatusSm(), nullptr);
  EXPECT_FALSE(watcher->hasNotificationActive());
  status->initializedIs(true);
  EXPECT_FALSE(registered());
  watcher->hasNotificationActiveIs(true);
  EXPECT_TRUE(registered());
  EXPECT_FALSE(watcher->hasZombieReactors());
}

TEST_F(AgentTest, WatcherFactory_MakesAnActiveWatcher) {
  auto watcher = snmpStatusSmFactory(status);
  EXPECT_TRUE(watcher->hasNotificationActive());
  EXPECT_EQ(watcher->snmpStatus(), status);
  EXPECT_FALSE(watcher->mibsInitialized());
}

TEST_F(AgentTest, PipelineSetter_KeepsForTheSameInputsAndTakesTheControl) {
  auto agent = agentIs();
  auto pipeline = agent->trelSnmpReachabilityTableSm();
  Rvx::SmControl control;
  control.taskName = "renamed";
  control.priority = 3;
  EXPECT_EQ(agent->trelSnmpReachabilityTableSmIs(reachabilityDir, ifMib, mib, control), pipeline);
  EXPECT_EQ(pipeline->rivoControl().taskName, "renamed");
  EXPECT_EQ(pipeline->rivoControl().priority, 3);
}

TEST_F(AgentTest, PipelineSetter_ReplacesForOtherInputsAndTheOldOneTakesTheControlToo) {
  auto agent = agentIs();
  auto pipeline = agent->trelSnmpReachabilityTableSm();
  auto otherDir = Zavro::makePtr<Kor::Dir>("other");
  Rvx::SmControl control;
  control.taskName = "renamed";
  auto replacement = agent->trelSnmpReachabilityTableSmIs(otherDir, ifMib, mib, control);
  EXPECT_NE(replacement, pipeline);
  EXPECT_EQ(pipeline->rivoControl().taskName, "renamed");
  EXPECT_TRUE(replacement->hasNotificationActive());
  EXPECT_EQ(agent->trelSnmpReachabilityTableSm(), replacement);
}

TEST_F(AgentTest, PipelineSetter_AnotherMib_RowsMoveThere) {
  reports("1", 2);
  linked();
  auto agent = agentIs();
  scheduler.drain();
  ASSERT_NE(mib->trelReachabilityTable({1, 2}), nullptr);
  ASSERT_NE(mib->trelIfTable(10), nullptr);
  auto other = trelMibFactory("other");
  auto reachability = agent->trelSnmpReachabilityTableSmIs(reachabilityDir, ifMib, other, Rvx::SmControl());
  auto links = agent->trelSnmpIfTableSmIs(topology, ifMib, other, Rvx::SmControl());
  EXPECT_EQ(reachability->trelMib(), other);
  EXPECT_EQ(links->trelMib(), other);
  EXPECT_TRUE(mib->trelReachabilityTable().empty());
  EXPECT_TRUE(mib->trelIfTable().empty());
  scheduler.drain();
  EXPECT_NE(other->trelReachabilityTable({1, 2}), nullptr);
  EXPECT_NE(other->trelIfTable(10), nullptr);
}

TEST_F(AgentTest, IfTablePipeline_KeptReplacedAndDeletedAlike) {
  linked();
  auto agent = agentIs();
  auto pipeline = agent->trelSnmpIfTableSm();
  scheduler.drain();
  EXPECT_NE(mib->trelIfTable(10), nullptr);
  Rvx::SmControl control;
  control.taskName = "renamed";
  EXPECT_EQ(agent->trelSnmpIfTableSmIs(topology, ifMib, mib, control), pipeline);
  EXPECT_EQ(pipeline->rivoControl().taskName, "renamed");
  auto otherTopology = Zavro::makePtr<Trel::TopologyConfig>("other");
  EXPECT_NE(agent->trelSnmpIfTableSmIs(otherTopology, ifMib, mib, control), pipeline);
  scheduler.drain();
  EXPECT_EQ(mib->trelIfTable(10), nullptr);
  auto detached = agent->trelSnmpIfTableSmDel();
  EXPECT_FALSE(detached->hasNotificationActive());
  EXPECT_EQ(agent->trelSnmpIfTableSm(), nullptr);
}

TEST_F(AgentTest, OtherInterfaces_ReplaceThePipelinesThatReadThem) {
  linked();
  reports("1", 2);
  auto agent = agentIs();
  auto links = agent->trelSnmpIfTableSm();
  auto reachability = agent->trelSnmpReachabilityTableSm();
  scheduler.drain();
  auto otherIfMib = Zavro::makePtr<IntfSnmp::IfMib>("other");
  EXPECT_NE(agent->trelSnmpIfTableSmIs(topology, otherIfMib, mib, Rvx::SmControl()), links);
  EXPECT_NE(agent->trelSnmpReachabilityTableSmIs(reachabilityDir, otherIfMib, mib, Rvx::SmControl()),
            reachability);
  scheduler.drain();
  EXPECT_TRUE(mib->trelIfTable().empty());
  EXPECT_EQ(mib->trelReachabilityTable({1, 2})->ifMib(), otherIfMib);
}

TEST_F(AgentTest, HostResourcesPipeline_KeptReplacedAndDeletedAlike) {
  hostResourcesDir->entityPtrIs(Zavro::makePtr<HostResources::HostResources>("1"));
  auto agent = agentIs();
  auto pipeline = agent->trelSnmpHostResourcesSm();
  scheduler.drain();
  EXPECT_NE(mib->trelHrSystemTable(1), nullptr);
  Rvx::SmControl control;
  control.taskName = "renamed";
  EXPECT_EQ(agent->trelSnmpHostResourcesSmIs(hostResourcesDir, mib, control), pipeline);
  EXPECT_EQ(pipeline->rivoControl().taskName, "renamed");
  auto otherDir = Zavro::makePtr<Kor::Dir>("other");
  auto replacement = agent->trelSnmpHostResourcesSmIs(otherDir, mib, control);
  EXPECT_NE(replacement, pipeline);
  EXPECT_TRUE(replacement->hasNotificationActive());
  scheduler.drain();
  EXPECT_EQ(mib->trelHrSystemTable(1), nullptr);
  auto otherMib = trelMibFactory("other");
  EXPECT_NE(agent->trelSnmpHostResourcesSmIs(otherDir, otherMib, control), replacement);
  auto detached = agent->trelSnmpHostResourcesSmDel();
  EXPECT_FALSE(detached->hasNotificationActive());
  EXPECT_EQ(agent->trelSnmpHostResourcesSm(), nullptr);
}

TEST_F(AgentTest, StoragePipeline_KeptReplacedAndDeletedAlike) {
  auto agent = agentIs();
  auto pipeline = agent->trelSnmpHrStorageTableSm();
  auto mappings = pipeline->storageEntryMappings();
  Rvx::SmControl control;
  control.taskName = "renamed";
  EXPECT_EQ(agent->trelSnmpHrStorageTableSmIs(hostResourcesDir, mib, mappings, control), pipeline);
  EXPECT_EQ(pipeline->rivoControl().taskName, "renamed");
  auto otherDir = Zavro::makePtr<Kor::Dir>("other");
  auto otherMib = trelMibFactory("other");
  auto otherMappings = Zavro::makePtr<HostResourcesMib::StorageEntryMappings>();
  auto another = agent->trelSnmpHrStorageTableSmIs(hostResourcesDir, mib, otherMappings, control);
  EXPECT_NE(another, pipeline);
  EXPECT_TRUE(another->hasNotificationActive());
  auto third = agent->trelSnmpHrStorageTableSmIs(otherDir, mib, otherMappings, control);
  EXPECT_NE(third, another);
  auto fourth = agent->trelSnmpHrStorageTableSmIs(otherDir, otherMib, otherMappings, control);
  EXPECT_NE(fourth, third);
  EXPECT_EQ(agent->trelSnmpHrStorageTableSmDel(), fourth);
  EXPECT_FALSE(fourth->hasNotificationActive());
  EXPECT_EQ(agent->trelSnmpHrStorageTableSm(), nullptr);
}

TEST_F(AgentTest, Mappings_AreMadeWhenThereAreNoneAndReusedWhenThereAre) {
  const char* kType = HostResourcesMib::StorageEntryMappings::kTypeName;
  EXPECT_EQ(Kor::Entity::singletonExists(kType), nullptr);
  auto made = agentIs()->trelSnmpHrStorageTableSm()->storageEntryMappings();
  EXPECT_EQ(Kor::Entity::singletonExists(kType), made);
  root->agentDel();
  EXPECT_EQ(agentIs()->trelSnmpHrStorageTableSm()->storageEntryMappings(), made);
}

TEST_F(AgentTest, Derivations_AreDeclaredForTheAgentsLife) {
  auto agent = agentIs();
  auto mappings = agent->trelSnmpHrStorageTableSm()->storageEntryMappings();
  auto declared = [&](const char* source, const char* target) {
    return Rvx::GlobalState::get().checkRegistry(
        Rvx::RegistryKey::make(hostResourcesDir, source, mappings, target));
  };
  EXPECT_TRUE(declared("entityPtr< HostResources::HostResources >[].storageInfoTable[]", "mountEntries[]"));
  EXPECT_TRUE(declared("entityPtr< HostResources::HostResources >[].memInfo", "memEntries[]"));
  Kor::invoke(*agent, "startSMs");
  EXPECT_EQ(Rvx::GlobalState::get().registry().size(), 2U);
  agent.reset();
  // A successor with the same inputs declares them too; what it declared is not the predecessor's to take
  // back.
  auto otherTopology = Zavro::makePtr<Trel::TopologyConfig>("other");
  root->agentIs(mib, status, ifMib, otherTopology, reachabilityDir, hostResourcesDir);
  EXPECT_EQ(Rvx::GlobalState::get().registry().size(), 2U);
  root->agentDel();
  EXPECT_TRUE(Rvx::GlobalState::get().registry().empty());
}

TEST_F(AgentTest, Derivations_AreDeclaredBeforeThePipelineThatReadsThem) {
  TraceLog traces({"TrelSnmpHrStorageTableSm"});
  agentIs();
  for (const std::string& line : traces.lines()) EXPECT_EQ(line.find("nobody declared"), std::string::npos);
}

// A synchronous successor writes while it is being made; whoever is told may throw.
TEST_F(AgentTest, SuccessorThatCannotBeMade_ThePredecessorStaysAndGoesOn) {
  reports("1", 2);
  auto agent = agentIs();
  scheduler.drain();
  auto pipeline = agent->trelSnmpReachabilityTableSm();
  auto otherDir = Zavro::makePtr<Kor::Dir>("other");
  auto entity = Zavro::makePtr<Trel::ReachabilityStatus>("7");
  entity->reachabilityStatus().set(Trel::MemberId(1),
                                   Zavro::makePtr<const State>(State::reachable, std::nullopt, 0));
  otherDir->entityPtrIs(entity);
  Rvx::SmControl control;
  control.mode = Rvx::Mode::synchronous;
  {
    auto subscription =
        mib->publisher().subscribe([](const TrelMib::Change&) { throw std::runtime_error("subscriber"); });
    EXPECT_THROW(agent->trelSnmpReachabilityTableSmIs(otherDir, ifMib, mib, control), std::runtime_error);
  }
  EXPECT_EQ(agent->trelSnmpReachabilityTableSm(), pipeline);
  EXPECT_TRUE(pipeline->hasNotificationActive());
  EXPECT_EQ(otherDir->useCount(), 1U);
  reports("2", 1);
  EXPECT_NE(mib->trelReachabilityTable({2, 1}), nullptr);
}

TEST_F(AgentTest, PipelineDeleted_IsInactiveAndItsRowsGoWithIt) {
  reports("1", 2);
  auto agent = agentIs();
  scheduler.drain();
  auto pipeline = agent->trelSnmpReachabilityTableSmDel();
  EXPECT_FALSE(pipeline->hasNotificationActive());
  EXPECT_EQ(agent->trelSnmpReachabilityTableSm(), nullptr);
  EXPECT_EQ(agent->trelSnmpReachabilityTableSmDel(), nullptr);
  EXPECT_NE(mib->trelReachabilityTable({1, 2}), nullptr);
  pipeline.reset();
  EXPECT_EQ(mib->trelReachabilityTable({1, 2}), nullptr);
}

TEST_F(AgentTest, AgentReplacedOverAFilledTable_NoRowIsEverMissing) {
  reports("1", 2);
  agentIs();
  scheduler.drain();
  size_t published = 0;
  auto subscription = mib->publisher().subscribe([&](const TrelMib::Change&) { ++published; });
  auto otherTopology = Zavro::makePtr<Trel::TopologyConfig>("other");
  root->agentIs(mib, status, ifMib, otherTopology, reachabilityDir, hostResourcesDir);
  scheduler.drain();
  EXPECT_EQ(published, 0U);
  EXPECT_NE(mib->trelReachabilityTable({1, 2}), nullptr);
}

TEST_F(AgentTest, SynchronousPipelineReplaced_TheSuccessorsRowsStand) {
  reports("1", 2);
  auto agent = agentIs();
  Rvx::SmControl control;
  control.mode = Rvx::Mode::synchronous;
  auto otherDir = Zavro::makePtr<Kor::Dir>("other");
  otherDir->entityPtrIs(reachabilityDir->entityPtr("1"));
  agent->trelSnmpReachabilityTableSmIs(otherDir, ifMib, mib, control);
  EXPECT_NE(mib->trelReachabilityTable({1, 2}), nullptr);
}

TEST_F(AgentTest, AgentReplacedForAnotherMib_TheOldMibIsEmptied) {
  reports("1", 2);
  agentIs();
  scheduler.drain();
  auto otherMib = trelMibFactory("other");
  root->agentIs(otherMib, status, ifMib, topology, reachabilityDir, hostResourcesDir);
  scheduler.drain();
  EXPECT_TRUE(mib->trelReachabilityTable().empty());
  EXPECT_EQ(otherMib->trelReachabilityTable().size(), 1U);
}

TEST_F(AgentTest, RootGoes_ItFallsSilentBeforeItReleasesItsAgent) {
  reports("1", 2);
  agentIs();
  scheduler.drain();
  Root* raw = root.get();
  bool asked = false;
  bool activeWhileReleasing = true;
  auto subscription = mib->publisher().subscribe([&](const TrelMib::Change&) {
    asked = true;
    activeWhileReleasing = raw->hasNotificationActive();
  });
  root.reset();
  EXPECT_TRUE(asked);
  EXPECT_FALSE(activeWhileReleasing);
}

TEST_F(AgentTest, StartSMsByName_KeepsWhatIsThereAndMakesWhatIsMissing) {
  auto agent = agentIs();
  auto watcher = agent->snmpStatusSm();
  agent->trelSnmpReachabilityTableSmDel();
  Kor::invoke(*agent, "startSMs");
  EXPECT_EQ(agent->snmpStatusSm(), watcher);
  EXPECT_NE(agent->trelSnmpReachabilityTableSm(), nullptr);
}

TEST_F(AgentTest, RunControl_IsDefaultAndSettableByNameOnly) {
  auto agent = agentIs();
  EXPECT_EQ(Kor::attribute(*agent, "rvxSmControl"), "(taskName=, priority=128, mode=0)");
  EXPECT_EQ(agent->rvxSmControl().scheduler, nullptr);
  Kor::attributeIs(*agent, "rvxSmControl", "(taskName=fast, priority=5, mode=1)");
  agent->trelSnmpReachabilityTableSmDel();
  Kor::invoke(*agent, "startSMs");
  EXPECT_TRUE(agent->trelSnmpReachabilityTableSm()->synchronous());
  EXPECT_EQ(agent->trelSnmpReachabilityTableSm()->rivoControl().taskName, "fast");
  EXPECT_THROW(Kor::attributeIs(*agent, "rvxSmControl", "(taskName=fast, priority=5, mode=3)"),
               Kor::ParseException);
  EXPECT_THROW(Kor::attributeIs(*agent, "trelMib", "x"), Kor::NoSuchMemberException);
}

TEST_F(AgentTest, NoStatusRecord_CountsAsNotInitialised) {
  auto agent = root->agentIs(mib, nullptr, ifMib, topology, reachabilityDir, hostResourcesDir);
  EXPECT_FALSE(agent->snmpStatusSm()->mibsInitialized());
  EXPECT_EQ(root->agentIs(mib, nullptr, ifMib, topology, reachabilityDir, hostResourcesDir), agent);
}

using AgentDeath = AgentTest;

// The toggles are read once in the life of a process, so each combination gets a process of its own.
class StorageToggles : public AgentTest {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    AgentTest::SetUp();
  }
  // Ends the process with 0 if the storage pipeline stands, or does not, as the toggle file has it.
  [[noreturn]] void start(const char* toggles, bool storageStands) {
    exit(standsAs(toggles, storageStands) ? 0 : 1);
  }
  static constexpr const char* kBothOff = R"({"TrelHrStorageSnmp": false, "TrelHrMemStorage": false})";

 private:
  bool standsAs(const char* toggles, bool storageStands) {
    Support::TempDir dir;
    Toggles::fileIs("TrelCore.json", dir.write("TrelCore.json", toggles));
    auto agent = agentIs();
    bool stands = agent->trelSnmpHrStorageTableSm() != nullptr;
    auto mappings = Kor::Entity::singletonExists(HostResourcesMib::StorageEntryMappings::kTypeName);
    bool asExpected = stands == storageStands && (mappings != nullptr) == storageStands &&
                      agent->pipelines().size() == (storageStands ? 4U : 3U);
    // Later changes of the file change nothing.
    Toggles::fileIs("TrelCore.json", dir.write("TrelCore.json", storageStands ? kBothOff : "{}"));
    Kor::invoke(*agent, "startSMs");
    return asExpected && (agent->trelSnmpHrStorageTableSm() != nullptr) == storageStands;
  }
};

TEST_F(StorageToggles, BothOn_StorageStands) {
  EXPECT_EXIT(start(R"({"TrelHrStorageSnmp": true, "TrelHrMemStorage": true})", true),
              testing::ExitedWithCode(0), "");
}
TEST_F(StorageToggles, NotMentioned_StorageStands) {
  EXPECT_EXIT(start("{}", true), testing::ExitedWithCode(0), "");
}
TEST_F(StorageToggles, StorageOff_NothingStandsNotEvenTheMappings) {
  EXPECT_EXIT(start(R"({"TrelHrStorageSnmp": false})", false), testing::ExitedWithCode(0), "");
}
TEST_F(StorageToggles, MemoryOff_NothingStandsNotEvenTheMappings) {
  EXPECT_EXIT(start(R"({"TrelHrMemStorage": false})", false), testing::ExitedWithCode(0), "");
}
TEST_F(StorageToggles, BothOff_NothingStands) {
  EXPECT_EXIT(start(kBothOff, false), testing::ExitedWithCode(0), "");
}
TEST_F(StorageToggles, FileThatCannotBeUsed_CountsAsOn) {
  EXPECT_EXIT(start("{", true), testing::ExitedWithCode(0), "");
}

TEST_F(AgentDeath, NotInTrelMode_EndsTheProcess) {
  Trel::trelModeIs(false);
  EXPECT_DEATH(agentIs(),
               "void TrelSnmp::Agent::Agent::startSMs\\(\\): Assertion `Trel::trelMode\\(\\) && "
               "\"TrelSnmp::Agent can not be run in non-trel mode\"' failed");
}

}  // namespace
}  // namespace TrelSnmp::Agent
