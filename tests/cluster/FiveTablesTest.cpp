// All five tables together: clusters of 64 members and more change at random, thousands of times; after each
// settling a manager's walk is held against the tables stated anew from the document. Agents come and go over
// the filled tables.
#include <gtest/gtest.h>

#include "agent/TrelSnmpAgent.h"
#include "kelstore/Document.h"
#include "kelstore/LayeredState.h"
#include "kelstore/Mirror.h"
#include "platform/snmp/KelstoreUtil.h"
#include "platform/snmp/RegVoidCollByContext.h"
#include "snmp-modules/veldaTrelHostResourcesMIB.h"
#include "snmp-modules/veldaTrelMIB.h"
#include "tests/cluster/RandomCluster.h"
#include "tests/snmp-modules/InProcessAgent.h"
#include "tests/support/DrivenScheduler.h"

namespace TrelSnmp::Agent {
namespace {

const std::string kRoot = fmt::format(".1.3.6.1.4.1.{}.3", TREL_ENTERPRISE_NUMBER);

// A whole walk over both modules with GETBULK.
RandomCluster::Walk walked() {
  RandomCluster::Walk walk;
  const std::vector<oid> root = SnmpTest::oidOf(kRoot);
  std::string last = kRoot;
  while (true) {
    std::string answer = SnmpTest::InProcessAgent::instance().getBulk(0, 50, {last});
    // "name=value name=value ...": a value may hold blanks, a name begins after the last blank before "=".
    std::vector<std::pair<std::string, std::string>> varbinds;
    size_t at = 0;
    while (at < answer.size()) {
      size_t equals = answer.find('=', at);
      size_t nextEquals = answer.find('=', equals + 1);
      size_t end = nextEquals == std::string::npos ? answer.size() : answer.rfind(' ', nextEquals);
      if (equals == std::string::npos) {
        ADD_FAILURE() << answer;
        return walk;
      }
      varbinds.emplace_back(answer.substr(at, equals - at), answer.substr(equals + 1, end - equals - 1));
      at = end + 1;
    }
    for (const auto& [name, value] : varbinds) {
      std::vector<oid> numbers = SnmpTest::oidOf(name);
      bool within = numbers.size() > root.size() && std::equal(root.begin(), root.end(), numbers.begin()) &&
                    (numbers[root.size()] == 40 || numbers[root.size()] == 41);
      if (!within || value == "endOfMibView") return walk;
      std::vector<uint32_t> key;
      for (size_t i = root.size(); i < numbers.size(); ++i) key.push_back(static_cast<uint32_t>(numbers[i]));
      if (!walk.empty() && key <= walk.rbegin()->first) {
        ADD_FAILURE() << "the walk does not grow at " << name;
        return walk;
      }
      walk.emplace(key, value);
      last = name;
    }
  }
}

std::string differences(const RandomCluster::Walk& expected, const RandomCluster::Walk& found) {
  std::string text;
  auto line = [&](const char* what, const auto& row) {
    if (text.size() < 2000) text += fmt::format("{} {} = {}\n", what, fmt::join(row.first, "."), row.second);
  };
  for (const auto& row : expected) {
    auto same = found.find(row.first);
    if (same == found.end() || same->second != row.second) line("expected", row);
  }
  for (const auto& row : found) {
    auto same = expected.find(row.first);
    if (same == expected.end() || same->second != row.second) line("found   ", row);
  }
  return text;
}

class FiveTables : public testing::TestWithParam<unsigned> {
 protected:
  static constexpr unsigned kSettlings = 20;
  static constexpr unsigned kChangesEach = 100;

  void SetUp() override {
    Lumalog::levelIs("*", -1);
    SnmpTest::InProcessAgent::instance();
    layer_ = layers_.addLayer();
    scheduler_.yieldWhen([this] { return ++asked_ % 7 == 0; });
    auto snmpDir = Zavro::makePtr<Kor::Dir>("snmp");
    auto trelDir = Zavro::makePtr<Kor::Dir>("trel");
    stateRoot_->entityPtrIs(snmpDir);
    snmpDir->entityPtrIs(trelDir);
    trelDir->entityPtrIs(mib_);
    Snmp::KelstoreUtil::rootIs(stateRoot_, Zavro::makePtr<const Snmp::Config>("switch-1"));
    Vem::TaskSchedulerRoot::schedulerIs(scheduler_.get());
    status_->initializedIs(true);
    agentIs(status_);
  }
  void TearDown() override {
    root_.reset();
    unregisterModules();
    Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
    Kor::Entity::singletonDel(Snmp::RegVoidCollByContext::kTypeName);
    Kor::Entity::singletonDel(HostResourcesMib::StorageEntryMappings::kTypeName);
    Vem::TaskSchedulerRoot::schedulerIs(nullptr);
    Lumalog::levelsReset();
  }

  void agentIs(const Zavro::Ptr<Snmp::Status>& status) {
    root_->agentIs(mib_, status, mirror_.ifMib(), mirror_.topologyConfig(), mirror_.reachabilityDir(),
                   mirror_.hostResourcesDir());
  }
  static void unregisterModules() {
    unregister_veldaTrelHostResourcesMIB("");
    unregister_veldaTrelMIB("");
  }
  void settle() {
    Kelstore::Document document = Kelstore::parseDocument(cluster_.document());
    ASSERT_TRUE(document.faults.empty()) << document.faults.front().text;
    auto before = layers_.snapshot(layer_);
    auto after =
        std::make_shared<const Kelstore::Snapshot>(Kelstore::withLastGood(std::move(document), *before));
    layers_.snapshotIs(layer_, after, Kelstore::differences(*before, *after));
    layers_.settledIs(layer_);
    scheduler_.drain();
    ASSERT_TRUE(layers_.idle());
  }

  DrivenScheduler scheduler_;
  unsigned asked_ = 0;
  Kelstore::Mirror mirror_;
  Kelstore::LayeredState layers_{scheduler_.get(), mirror_};
  Kelstore::LayeredState::Layer layer_ = 0;
  RandomCluster cluster_{GetParam(), GetParam()};
  Zavro::Ptr<Kor::Dir> stateRoot_ = Zavro::makePtr<Kor::Dir>("switch-1");
  Zavro::Ptr<TrelMib> mib_ = trelMibFactory("trelMib");
  Zavro::Ptr<Snmp::Status> status_ = Zavro::makePtr<Snmp::Status>("status");
  Zavro::Ptr<Root> root_ = rootFactory("root");
};

TEST_P(FiveTables, ChangeAtRandom_AManagerSeesWhatTheDocumentSays) {
  for (unsigned settling = 0; settling < kSettlings; ++settling) {
    for (unsigned i = 0; i < kChangesEach; ++i) cluster_.change();
    settle();
    auto expected = cluster_.expected();
    ASSERT_EQ(differences(expected, walked()), "") << "after settling " << settling;
    ASSERT_GT(expected.size(), 10 * GetParam());
  }
}

TEST_P(FiveTables, AgentReplacedOverFilledTables_NoRowIsEverMissing) {
  settle();
  auto expected = cluster_.expected();
  ASSERT_EQ(differences(expected, walked()), "");
  size_t removals = 0;
  auto subscription =
      mib_->publisher().subscribe([&](const TrelMib::Change& change) { removals += change.entry ? 0 : 1; });
  auto otherStatus = Zavro::makePtr<Snmp::Status>("other");
  agentIs(otherStatus);
  while (scheduler_.step()) {
  }
  EXPECT_EQ(removals, 0U);
  EXPECT_EQ(differences(expected, walked()), "");
  // The new agent follows what happens.
  for (unsigned i = 0; i < kChangesEach; ++i) cluster_.change();
  settle();
  EXPECT_EQ(differences(cluster_.expected(), walked()), "");
}

TEST_P(FiveTables, AgentGoneWhileTheStateChanges_TheNextOneVerifiesWhatItFinds) {
  settle();
  root_->agentDel();
  unregisterModules();  // the next agent's watcher registers them again
  for (unsigned i = 0; i < kChangesEach; ++i) cluster_.change();
  settle();
  agentIs(status_);
  scheduler_.drain();
  EXPECT_EQ(differences(cluster_.expected(), walked()), "");
}

INSTANTIATE_TEST_SUITE_P(Members, FiveTables, testing::Values(64U, 100U, 255U));

}  // namespace
}  // namespace TrelSnmp::Agent
