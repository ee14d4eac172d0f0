// The agent starts: its pipelines fill the tables at once, the modules are registered once SNMP is up, be
// that before or after, and which record is watched for that.
#include "tests/agent/AgentFixture.h"

namespace TrelSnmp::Agent {
namespace {

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

}  // namespace
}  // namespace TrelSnmp::Agent
