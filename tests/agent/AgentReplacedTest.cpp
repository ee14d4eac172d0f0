// A host replaces its agent, or the agent's watcher: while SNMP is up, while somebody holds what was
// replaced, and when the successor cannot be made.
#include <stdexcept>

#include "snmp-modules/ServedTable.h"
#include "tests/agent/AgentFixture.h"

namespace TrelSnmp::Agent {
namespace {

// A trace sink that throws instead of taking line number `at`: a failure at any point of what is traced. The
// end of a block is traced by a destructor, which must not throw.
class ThrowingSink final : public Lumalog::Sink {
 public:
  explicit ThrowingSink(size_t at) : at_(at), before_(Lumalog::sink()) {
    Lumalog::levelIs("*", Lumalog::kMaxLevel);
    Lumalog::sinkIs(this);
  }
  ~ThrowingSink() override {
    Lumalog::sinkIs(before_);
    Lumalog::levelsReset();
  }
  void trace(const Lumalog::Line& line) override {
    if (line.format.find(" took ") == std::string_view::npos && lines_++ == at_)
      throw std::runtime_error("full");
  }

 private:
  const size_t at_;
  size_t lines_ = 0;
  Lumalog::Sink* before_;
};

class AgentReplaced : public AgentTest {
 protected:
  Zavro::Ptr<Agent> replacement() {
    topology = Zavro::makePtr<Trel::TopologyConfig>("other");
    return agentIs();
  }
  // How often the modules' tables were set up while that was done.
  static size_t tablesSetUp(const std::function<void()>& done) {
    TraceLog traces{"veldaTrelMIB", "veldaTrelHostResourcesMIB"};
    done();
    return static_cast<size_t>(std::count_if(
        traces.lines().begin(), traces.lines().end(),
        [](const std::string& line) { return line.find("/8 Initialized table ") != std::string::npos; }));
  }
  const size_t kTables = servedTables().size();
};

TEST_F(AgentReplaced, WhileSomebodyHoldsTheOldOne_ModulesAreRegisteredOnce) {
  auto held = agentIs();
  auto agent = replacement();
  EXPECT_FALSE(held->snmpStatusSm()->hasNotificationActive());
  EXPECT_EQ(tablesSetUp([&] { status->initializedIs(true); }), kTables);
  EXPECT_TRUE(agent->snmpStatusSm()->mibsInitialized());
  EXPECT_FALSE(held->snmpStatusSm()->mibsInitialized());
}

TEST_F(AgentReplaced, WhileSnmpIsUp_TablesStayRegistered) {
  status->initializedIs(true);
  reports("1", 2);
  agentIs();
  scheduler.drain();
  auto* record = Snmp::RegVoidCollByContext::singleton()->regVoid("", "veldaTrelReachabilityTable");
  EXPECT_EQ(tablesSetUp([&] { replacement(); }), 0U);
  EXPECT_TRUE(root->agent()->snmpStatusSm()->mibsInitialized());
  EXPECT_EQ(Snmp::RegVoidCollByContext::singleton()->regVoid("", "veldaTrelReachabilityTable"), record);
  EXPECT_EQ(record->object(), mib);
  EXPECT_NE(mib->trelReachabilityTable({1, 2}), nullptr);
}

TEST_F(AgentReplaced, DroppedAndMadeAnewWhileSnmpIsUp_TablesStayRegistered) {
  status->initializedIs(true);
  agentIs();
  root->agentDel();
  EXPECT_TRUE(registered());
  EXPECT_EQ(tablesSetUp([&] { agentIs(); }), 0U);
  EXPECT_TRUE(root->agent()->snmpStatusSm()->mibsInitialized());
}

TEST_F(AgentReplaced, TwoAgentsAtATime_SnmpComesUpForBoth_ModulesAreRegisteredOnce) {
  auto held = agentIs();
  root->agentDel();
  agentIs();
  EXPECT_EQ(tablesSetUp([&] { status->initializedIs(true); }), kTables);
  EXPECT_TRUE(held->snmpStatusSm()->mibsInitialized());
  EXPECT_TRUE(root->agent()->snmpStatusSm()->mibsInitialized());
}

TEST_F(AgentReplaced, ModulesWereUnregistered_AreRegisteredAgainWithTheObjectOfThatTime) {
  status->initializedIs(true);
  agentIs();
  unregister_veldaTrelHostResourcesMIB("");
  auto* mibDir = dynamic_cast<Kor::Dir*>(Snmp::KelstoreUtil::getEntityRelative("snmp/trel").get());
  mib = trelMibFactory("trelMib");
  mibDir->entityPtrDel("trelMib");
  mibDir->entityPtrIs(mib);
  EXPECT_EQ(tablesSetUp([&] { agentIs(); }), 3U);
  auto records = Snmp::RegVoidCollByContext::singleton();
  EXPECT_EQ(records->regVoid("", "veldaTrelStorageTable")->object(), mib);
  EXPECT_NE(records->regVoid("", "veldaTrelReachabilityTable")->object(), mib);
}

TEST_F(AgentReplaced, WatcherWhileSnmpIsUp_TablesStayRegistered) {
  status->initializedIs(true);
  auto agent = agentIs();
  auto other = Zavro::makePtr<Snmp::Status>("other");
  EXPECT_EQ(tablesSetUp([&] { agent->snmpStatusSmIs(other); }), 0U);
  EXPECT_FALSE(agent->snmpStatusSm()->mibsInitialized());
  EXPECT_EQ(tablesSetUp([&] { other->initializedIs(true); }), 0U);
  EXPECT_TRUE(agent->snmpStatusSm()->mibsInitialized());
  agent->snmpStatusSmDel();
  EXPECT_EQ(tablesSetUp([&] { EXPECT_TRUE(agent->snmpStatusSmIs(other)->mibsInitialized()); }), 0U);
}

// The first construction that no trace line fails tells how many lines there are.
TEST_F(AgentReplaced, FirstAgentCannotBeMade_NothingIsLeftBehind) {
  reports("1", 2);
  const uint32_t useCount = reachabilityDir->useCount();
  size_t failures = 0;
  for (size_t at = 0; root->agent() == nullptr; ++at) {
    ThrowingSink sink(at);
    try {
      agentIs();
    } catch (const std::runtime_error&) {
      ++failures;
      EXPECT_EQ(reachabilityDir->useCount(), useCount) << at;
      EXPECT_EQ(hostResourcesDir->useCount(), 1U) << at;
      EXPECT_EQ(status->useCount(), 1U) << at;
      EXPECT_TRUE(Rvx::GlobalState::get().registry().empty()) << at;
      EXPECT_FALSE(scheduler.step()) << at;
    }
  }
  EXPECT_GT(failures, 4U);
  scheduler.drain();
  EXPECT_NE(mib->trelReachabilityTable({1, 2}), nullptr);
}

TEST_F(AgentReplaced, SuccessorCannotBeMade_TheAgentGoesOn) {
  status->initializedIs(true);
  reports("1", 2);
  auto agent = agentIs();
  agent->trelSnmpIfTableSm()->hasNotificationActiveIs(false);
  scheduler.drain();
  size_t failures = 0;
  for (size_t at = 0; root->agent() == agent; ++at) {
    try {
      ThrowingSink sink(at);
      replacement();
    } catch (const std::runtime_error&) {
      ++failures;
      EXPECT_EQ(topology->useCount(), 1U) << at;
      EXPECT_EQ(Rvx::GlobalState::get().registry().size(), 2U) << at;
      EXPECT_TRUE(agent->snmpStatusSm()->hasNotificationActive()) << at;
      EXPECT_FALSE(agent->trelSnmpIfTableSm()->hasNotificationActive()) << "the host paused it, " << at;
      auto neighbour = static_cast<uint8_t>(at + 3);
      reports("2", neighbour);
      scheduler.drain();
      EXPECT_NE(mib->trelReachabilityTable({1, 2}), nullptr) << at;
      EXPECT_NE(mib->trelReachabilityTable({2, neighbour}), nullptr) << at;
    }
  }
  EXPECT_GT(failures, 4U);
}

}  // namespace
}  // namespace TrelSnmp::Agent
