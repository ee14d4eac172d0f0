#include "tests/snmp-modules/ModuleTest.h"

#include <fmt/ranges.h>

#include <algorithm>

#include "platform/toggles/Toggles.h"
#include "tests/support/TempDir.h"

namespace SnmpTest {
namespace {

using Counter = Snmp::OrderedTableIteratorCounterTypes;

// The system's root with an entity at TrelMib's path, or without it.
Zavro::Ptr<const Kor::Dir> rootWith(const Zavro::Ptr<Kor::Entity>& entity) {
  auto root = Zavro::makePtr<Kor::Dir>("switch");
  auto snmp = Zavro::makePtr<Kor::Dir>("snmp");
  auto trel = Zavro::makePtr<Kor::Dir>("trel");
  if (entity) trel->entityPtrIs("trelMib", entity);
  snmp->entityPtrIs(trel);
  root->entityPtrIs(snmp);
  return root;
}

void databaseIs(const Zavro::Ptr<Kor::Entity>& entity) {
  Snmp::KelstoreUtil::rootIs(rootWith(entity), Zavro::makePtr<const Snmp::Config>("switch"));
}

// The tables that are registered from now on.
void toggleIs(By by) {
  static const Support::TempDir dir;
  const char* toggles = by == By::direct ? "{}" : R"({"TrelSnmpDirect": false})";
  Toggles::fileIs("TrelCore.json", dir.write("TrelCore.json", toggles));
}

void initAll() {
  for (const ModuleCase& module : allModules()) module.init("");
}
void unregisterAll() {
  for (const ModuleCase& module : allModules()) module.unregister("");
}

}  // namespace

Database::Database() : mib_(TrelSnmp::trelMibFactory("trelMib")) { databaseIs(mib_); }

Database::Database(Zavro::Ptr<Kor::Entity> instead) { databaseIs(instead); }

Database::~Database() {
  Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
  Kor::Entity::singletonDel(Snmp::RegVoidCollByContext::kTypeName);
}

std::string textOf(By by) { return by == By::direct ? "direct" : "chain"; }

ModuleTest::ModuleTest(By by) {
  InProcessAgent::instance();
  toggleIs(by);
  initAll();
}

ModuleTest::~ModuleTest() {
  unregisterAll();
  toggleIs(By::direct);
}

void ModuleTest::answeredBy(By by) {
  unregisterAll();
  toggleIs(by);
  initAll();
}

void ModuleTest::reach(uint32_t src, uint32_t dst, int state, double uptime) {
  auto changedNs = static_cast<uint64_t>((kAgentStart + uptime) * 1e9);
  auto record =
      Zavro::makePtr<const Trel::ReachabilityState>(static_cast<State>(state), std::nullopt, changedNs);
  mib().trelReachabilityTableIs({src, dst}, record, nullptr);
}

std::string ModuleTest::counters(const char* table) {
  std::vector<std::string> counted;
  for (size_t kind = 0; kind < Snmp::TableCounters::kKinds; ++kind) {
    uint64_t count = recordOf(table)->counters().orderedIterCntr(static_cast<Counter>(kind));
    if (count != 0) counted.push_back(fmt::format("{}={}", kind, count));
  }
  uint64_t direct = recordOf(table)->counters().directAnswers();
  if (direct != 0) counted.push_back(fmt::format("direct={}", direct));
  return fmt::format("{}", fmt::join(counted, " "));
}

uint64_t ModuleTest::steps(const char* table) {
  const Snmp::TableCounters& counted = recordOf(table)->counters();
  return counted.orderedIterCntr(Counter::advanced) + counted.orderedIterCntr(Counter::reachedEnd);
}

void ModuleTest::expectTree(const std::string& subtree, const std::vector<std::string>& expected) {
  EXPECT_EQ(lines(agent().walk(subtree)), lines(expected));
  expectGets(expected);
  expectBulk(subtree, expected);
}

void ModuleTest::expectGets(const std::vector<std::string>& expected) {
  std::string last;
  for (const std::string& varbind : expected) {
    std::string name = varbind.substr(0, varbind.find('='));
    EXPECT_EQ(agent().get({name}), varbind);
    if (!last.empty()) {
      EXPECT_EQ(agent().getNext({last}), varbind);
    }
    EXPECT_EQ(agent().set(name, 3), "notWritable(1)") << name;
    last = name;
  }
}

void ModuleTest::expectBulk(const std::string& subtree, const std::vector<std::string>& expected) {
  constexpr size_t kRepetitions = 4;
  std::string at = subtree;
  for (size_t done = 0; done < expected.size(); done += kRepetitions) {
    auto begin = expected.begin() + static_cast<long>(done);
    auto count = static_cast<long>(std::min(kRepetitions, expected.size() - done));
    std::string wanted = fmt::format("{}", fmt::join(begin, begin + count, " "));
    EXPECT_EQ(agent().getBulk(0, static_cast<int>(count), {at}), wanted);
    at = (begin + count - 1)->substr(0, (begin + count - 1)->find('='));
  }
}

std::string EveryTableTest::line(int level, const std::string& text) const {
  return fmt::format("{}/{} {}\n", GetParam().module, level, text);
}

std::string nameOf(const ::testing::TestParamInfo<TableOfModule>& table) { return table.param.table.name; }

Snmp::RegVoid* recordOf(const char* table) {
  return Snmp::RegVoidCollByContext::singleton()->regVoid("", table);
}

std::string lines(const std::vector<std::string>& answers) {
  return fmt::format("{}", fmt::join(answers, "\n"));
}

}  // namespace SnmpTest
