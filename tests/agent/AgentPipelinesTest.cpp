// The agent's pipelines one by one: kept for the same inputs, replaced for others, deleted; and whose rows
// stand.
#include "tests/agent/AgentFixture.h"

namespace TrelSnmp::Agent {
namespace {

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
  // What used to go wrong: the row that it had written stood for good.
  EXPECT_NE(mib->trelReachabilityTable({7, 1}), nullptr);
  scheduler.drain();
  EXPECT_NE(mib->trelReachabilityTable({2, 1}), nullptr);
  EXPECT_EQ(mib->trelReachabilityTable({7, 1}), nullptr);
  EXPECT_NE(mib->trelReachabilityTable({1, 2}), nullptr);
  EXPECT_TRUE(pipeline->idle());
}

// Whichever of its writes it fails at, the predecessor's rows are what its inputs say, and no other.
TEST_F(AgentTest, SuccessorFailsAtEachOfItsWritesInTurn_ThePredecessorsRowsStand) {
  reports("1", 2);
  reports("2", 1);
  reports("4", 1);
  auto agent = agentIs();
  scheduler.drain();
  auto pipeline = agent->trelSnmpReachabilityTableSm();
  auto otherDir = Zavro::makePtr<Kor::Dir>("other");
  for (const char* member : {"1", "3", "4"}) {
    auto entity = Zavro::makePtr<Trel::ReachabilityStatus>(member);
    for (uint8_t neighbour : std::initializer_list<uint8_t>{1, 5}) {
      entity->reachabilityStatus().set(Trel::MemberId(neighbour),
                                       Zavro::makePtr<const State>(State::degraded, std::nullopt, 0));
    }
    otherDir->entityPtrIs(entity);
  }
  Rvx::SmControl control;
  control.mode = Rvx::Mode::synchronous;
  using Rows = std::vector<std::pair<MemberIdPair, State::State>>;
  auto rows = [this] {
    Rows all;
    for (auto row = mib->trelReachabilityTable().begin(); row; row.next()) {
      all.emplace_back(row.key(), mib->trelReachabilityTable(row.key())->reachabilityState()->state());
    }
    return all;
  };
  const Rows before = rows();
  size_t failures = 0;
  for (bool made = false; !made;) {
    size_t writes = 0;
    auto subscription = mib->publisher().subscribe([&](const TrelMib::Change&) {
      if (++writes > failures) throw std::runtime_error("subscriber");
    });
    try {
      agent->trelSnmpReachabilityTableSmIs(otherDir, ifMib, mib, control);
      made = true;
    } catch (const std::runtime_error&) {
      ++failures;
      subscription.reset();
      scheduler.drain();
      EXPECT_EQ(agent->trelSnmpReachabilityTableSm(), pipeline);
      EXPECT_EQ(rows(), before) << "after write " << failures;
    }
  }
  EXPECT_GE(failures, 6U);
  EXPECT_EQ(rows().size(), 6U);
}

TEST_F(AgentTest, SuccessorThatCannotBeMade_APausedPredecessorStaysPaused) {
  reports("1", 2);
  auto agent = agentIs();
  scheduler.drain();
  auto pipeline = agent->trelSnmpReachabilityTableSm();
  pipeline->hasNotificationActiveIs(false);
  auto otherDir = Zavro::makePtr<Kor::Dir>("other");
  auto entity = Zavro::makePtr<Trel::ReachabilityStatus>("1");
  entity->reachabilityStatus().set(Trel::MemberId(2),
                                   Zavro::makePtr<const State>(State::degraded, std::nullopt, 0));
  otherDir->entityPtrIs(entity);
  Rvx::SmControl control;
  control.mode = Rvx::Mode::synchronous;
  auto subscription = mib->publisher().subscribe([](const TrelMib::Change& change) {
    if (change.entry) throw std::runtime_error("subscriber");
  });
  EXPECT_THROW(agent->trelSnmpReachabilityTableSmIs(otherDir, ifMib, mib, control), std::runtime_error);
  EXPECT_FALSE(pipeline->hasNotificationActive());
  subscription.reset();
  scheduler.drain();
  EXPECT_EQ(mib->trelReachabilityTable({1, 2})->reachabilityState()->state(), State::degraded);
  pipeline->hasNotificationActiveIs(true);
  scheduler.drain();
  EXPECT_EQ(mib->trelReachabilityTable({1, 2})->reachabilityState()->state(), State::reachable);
}

TEST_F(AgentTest, AgentReplaced_EachPipelineLeavesItsRowsToOneThatWritesTheSameMib) {
  reports("1", 2);
  linked();
  auto agent = agentIs();
  auto other = trelMibFactory("other");
  agent->trelSnmpReachabilityTableSmIs(reachabilityDir, ifMib, other, Rvx::SmControl());
  scheduler.drain();
  ASSERT_NE(other->trelReachabilityTable({1, 2}), nullptr);
  agent.reset();
  size_t published = 0;
  auto subscription = other->publisher().subscribe([&](const TrelMib::Change& change) {
    if (change.table == "trelReachabilityTable") ++published;
  });
  // Another one for the same MIB state object: what the pipeline wrote elsewhere is nobody's, and goes.
  auto otherTopology = Zavro::makePtr<Trel::TopologyConfig>("other");
  root->agentIs(mib, status, ifMib, otherTopology, reachabilityDir, hostResourcesDir);
  scheduler.drain();
  EXPECT_TRUE(other->trelReachabilityTable().empty());
  root->agent()->trelSnmpReachabilityTableSmIs(reachabilityDir, ifMib, other, Rvx::SmControl());
  scheduler.drain();
  published = 0;
  // One for the object that the pipeline wrote: its rows are the successor's.
  root->agentIs(other, status, ifMib, otherTopology, reachabilityDir, hostResourcesDir);
  scheduler.drain();
  EXPECT_NE(other->trelReachabilityTable({1, 2}), nullptr);
  EXPECT_EQ(published, 0U);
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

}  // namespace
}  // namespace TrelSnmp::Agent
