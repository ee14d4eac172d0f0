// The agent's life: what it is made of, what a change of its inputs makes anew, what it keeps, what the
// toggles and the mode of the process have to do with it, and what it leaves behind.
#include "platform/toggles/Toggles.h"
#include "tests/agent/AgentFixture.h"
#include "tests/support/TempDir.h"

namespace TrelSnmp::Agent {
namespace {

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

TEST_F(AgentTest, Inputs_AreTheVeryObjectsThatItWasGiven) {
  auto agent = agentIs();
  EXPECT_EQ(agent->trelMib(), mib);
  EXPECT_EQ(agent->snmpStatus(), status);
  EXPECT_EQ(agent->ifMib(), ifMib);
  EXPECT_EQ(agent->topologyConfig(), topology);
  EXPECT_EQ(agent->reachabilityDir(), reachabilityDir);
  EXPECT_EQ(agent->hostResourcesDir(), hostResourcesDir);
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

TEST_F(AgentTest, AgentGoes_PipelinesEndInTheOrderInWhichTheyWereMade) {
  reports("1", 2);
  linked();
  agentIs();
  scheduler.drain();
  std::vector<std::string> emptied;
  auto subscription = mib->publisher().subscribe([&](const TrelMib::Change& change) {
    if (!change.entry) emptied.emplace_back(change.table);
  });
  root->agentDel();
  EXPECT_EQ(emptied, (std::vector<std::string>{"trelIfTable", "trelReachabilityTable"}));
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
  // Ends the process with the number of complaints about what the toggle file says of the second toggle.
  [[noreturn]] void startAndCountComplaints(const char* toggles) {
    exit(static_cast<int>(complaints(toggles)));
  }
  static constexpr const char* kBothOff = R"({"TrelHrStorageSnmp": false, "TrelHrMemStorage": false})";

 private:
  size_t complaints(const char* toggles) {
    Support::TempDir dir;
    Toggles::fileIs("TrelCore.json", dir.write("TrelCore.json", toggles));
    TraceLog traces{"Toggles"};
    agentIs();
    return traces.lines().size();
  }
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

// Reading a toggle that is no boolean costs a complaint.
TEST_F(StorageToggles, StorageOff_MemoryIsNotRead) {
  EXPECT_EXIT(startAndCountComplaints(R"({"TrelHrStorageSnmp": true, "TrelHrMemStorage": 7})"),
              testing::ExitedWithCode(1), "");
  EXPECT_EXIT(startAndCountComplaints(R"({"TrelHrStorageSnmp": false, "TrelHrMemStorage": 7})"),
              testing::ExitedWithCode(0), "");
}

TEST_F(StorageToggles, FileThatCannotBeUsed_CountsAsOn) {
  EXPECT_EXIT(start("{", true), testing::ExitedWithCode(0), "");
}

TEST_F(AgentDeath, AgentReplacedOrDroppedWithinAPublication_EndsTheProcess) {
  agentIs();
  scheduler.drain();
  const std::function<void()> changes[] = {
      [&] { reachabilityDir = Zavro::makePtr<Kor::Dir>("other"), agentIs(); }, [&] { root->agentDel(); },
      [&] { root.reset(); }};
  for (const auto& change : changes) {
    auto changing = mib->publisher().subscribe([&](const TrelMib::Change&) { change(); });
    EXPECT_DEATH(reports("1", 2), "changed during publication");
  }
}

TEST_F(AgentDeath, NotInTrelMode_EndsTheProcess) {
  Trel::trelModeIs(false);
  EXPECT_DEATH(agentIs(),
               "void TrelSnmp::Agent::Agent::startSMs\\(\\): Assertion `Trel::trelMode\\(\\) && "
               "\"TrelSnmp::Agent can not be run in non-trel mode\"' failed");
}

}  // namespace
}  // namespace TrelSnmp::Agent
