// The direct answers against those of the chain behind them: the same for whatever is asked.
#include <gtest/gtest.h>

#include <fmt/ranges.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tests/snmp-modules/ModuleTest.h"

namespace SnmpTest {
namespace {

// --- every table

class DirectOfEveryTable : public ModuleTest, public testing::WithParamInterface<TableOfModule> {
 protected:
  const TableCase& table() const { return GetParam().table; }
  void rows(std::initializer_list<uint32_t> numbers) {
    for (uint32_t first : numbers) {
      if (table().index.size() == 1) {
        table().add(mib(), {first, 0});
        continue;
      }
      for (uint32_t second : numbers) table().add(mib(), {first, second});
    }
  }

  // Names in the table and around it: with each sub-identifier missing, or one that some name has.
  Names names() const {
    std::vector<unsigned> columns{0, 1, 2};
    for (const ColumnCase& column : table().columns) columns.push_back(column.number);
    columns.push_back(table().columns.back().number + 1);
    columns.push_back(4294967295u);
    Names all{std::string(table().at), ".1.3.6.1.4", std::string(table().at) + ".2.3.4"};
    for (unsigned entry : {0u, 1u, 2u, 4294967295u}) {
      std::string entryName = fmt::format("{}.{}", table().at, entry);
      all.push_back(entryName);
      for (unsigned column : columns) addInstances(fmt::format("{}.{}", entryName, column), all);
    }
    return all;
  }

  // What is answered to each name by itself, to neighbouring ones together, and to walks of some repetitions.
  std::string answers(const Names& names, bool together = true) {
    std::string all;
    auto add = [&all](const std::string& question, const std::string& answer) {
      all += fmt::format("{}: {}\n", question, answer);
    };
    for (size_t i = 0; i < names.size(); ++i) {
      const std::string& name = names[i];
      const std::string& other = names[(i * 7 + 3) % names.size()];
      add("get " + name, agent().get({name}));
      add("getNext " + name, agent().getNext({name}));
      add("getBulk " + name, agent().getBulk(0, 30, {name}));
      if (!together) continue;
      add("get both " + name, agent().get({name, other}));
      add("getNext both " + name, agent().getNext({name, other}));
      add("getBulk both " + name, agent().getBulk(0, 9, {name, other}));
      add("getBulk one and another " + name, agent().getBulk(1, 9, {name, other, names[i / 2]}));
    }
    return all;
  }
  std::string answers(By by, const Names& names, bool together = true) {
    answeredBy(by);
    std::string all = answers(names, together);
    EXPECT_EQ(recordOf(table().name)->counters().directAnswers() != 0, by == By::direct);
    return all;
  }

  // Another module's object in place of a value of the table, while this lives. net-snmp splits the table's
  // subtree around it, and leaves it so for the life of the process.
  class ObjectInside {
   public:
    explicit ObjectInside(const std::string& instance) : name_(oidOf(instance)) {
      EXPECT_EQ(
          netsnmp_register_read_only_int_instance("inside", name_.data(), name_.size(), &value_, nullptr),
          MIB_REGISTERED_OK);
    }
    ~ObjectInside() { unregister_mib(name_.data(), name_.size()); }
    ObjectInside(const ObjectInside&) = delete;
    ObjectInside& operator=(const ObjectInside&) = delete;

   private:
    std::vector<oid> name_;
    int value_ = 42;
  };
  std::string inside() const { return table().instance(table().columns.back().number, {5, 5}); }

  // Ends the process, a copy of the one that the other tests run in, without what is done at an exit.
  [[noreturn]] static void endWith(const std::string& got, const std::string& expected) {
    if (got != expected) fmt::print(stderr, "got:\n{}\nexpected:\n{}\n", got, expected);
    std::_Exit(got == expected ? 0 : 1);
  }
  // The parts behind the object have handlers of their own.
  [[noreturn]] void expectWalkAroundTheObject(const std::vector<std::string>& tree) {
    ObjectInside object(inside());
    std::vector<std::string> expected = tree;
    for (std::string& varbind : expected) {
      if (varbind.starts_with(inside() + '=')) varbind = inside() + "=i:42";
    }
    std::string got = lines(agent().walk(table().at)) + '\n' +
                      agent().getBulk(0, static_cast<int>(expected.size()), {table().at});
    bool byChain = counters(table().name).find("direct") != 0;
    endWith(got + (byChain ? "by the chain" : ""),
            lines(expected) + '\n' + fmt::format("{}", fmt::join(expected, " ")));
  }
  // The table is registered in parts, and all but the first get neither this handler nor the serialising one.
  // So the chain answers several names together wrongly.
  [[noreturn]] void expectPartsAnswerAlike() {
    { ObjectInside object(inside()); }
    Names asked = names();
    asked.push_back(inside());
    std::string byDirect = answers(By::direct, asked, false);
    endWith(byDirect, answers(By::chain, asked, false));
  }

 private:
  static void addInstances(const std::string& column, Names& all) {
    all.push_back(column);
    for (uint32_t first : {0u, 2u, 5u, 2147483648u, 4294967295u}) {
      std::string partial = fmt::format("{}.{}", column, first);
      all.push_back(partial);
      for (const char* rest : {".0", ".5", ".4294967295", ".5.0", ".2.4294967295"}) {
        all.push_back(partial + rest);
      }
    }
  }
};
INSTANTIATE_TEST_SUITE_P(All, DirectOfEveryTable, testing::ValuesIn(allTables()), nameOf);

TEST_P(DirectOfEveryTable, AnswersAsTheChain) {
  rows({0, 5, 6, 2147483648u, 4294967295u});
  EXPECT_EQ(answers(By::direct, names()), answers(By::chain, names()));
}

TEST_P(DirectOfEveryTable, EmptyTable_AnswersAsTheChain) {
  std::string byChain = answers(By::chain, {table().at, table().instance(table().columns[0].number, {5, 5})});
  answeredBy(By::direct);
  EXPECT_EQ(answers({table().at, table().instance(table().columns[0].number, {5, 5})}), byChain);
}

TEST_P(DirectOfEveryTable, AnotherObjectInside_TheWalkGoesAroundIt) {
  rows({4, 5, 6});
  std::vector<std::string> tree = agent().walk(table().at);
  EXPECT_EXIT(expectWalkAroundTheObject(tree), testing::ExitedWithCode(0), "");
}

TEST_P(DirectOfEveryTable, RegisteredInParts_AnswersAsTheChain) {
  rows({4, 5, 6});
  EXPECT_EXIT(expectPartsAnswerAlike(), testing::ExitedWithCode(0), "");
}

TEST_P(DirectOfEveryTable, TracesOfRequests_TheChainAnswers) {
  rows({5, 6});
  std::string name = table().instance(table().columns.front().number, {5, 5});
  std::string answer = agent().get({name});
  EXPECT_EQ(counters(table().name), "direct=1");
  TraceLog log({GetParam().module});
  Lumalog::levelIs(GetParam().module, 2);
  EXPECT_EQ(agent().get({name}), answer);
  EXPECT_EQ(counters(table().name), "1=1 direct=1");
  Lumalog::levelIs(GetParam().module, 1);
  EXPECT_EQ(agent().get({name}), answer);
  EXPECT_EQ(counters(table().name), "1=1 direct=2");
  EXPECT_TRUE(
      log.contains(fmt::format("{}/2 {}_handler: request mode 160", GetParam().module, table().name)));
}

TEST_P(DirectOfEveryTable, Set_TheChainAnswers) {
  rows({5});
  EXPECT_EQ(agent().set(table().instance(table().columns.front().number, {5, 5}), 1), "notWritable(1)");
  EXPECT_EQ(recordOf(table().name)->counters().directAnswers(), 0u);
}

// --- single ones

class DirectAnswersTest : public ModuleTest {
 protected:
  DirectAnswersTest() {
    for (uint32_t ifIndex = 1; ifIndex <= 40; ++ifIndex) baIf(ifIndex, 1, ifIndex);
  }
};

// Calls of the handlers for the table of backplane interfaces.
int calls = 0;
int countCall(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*registration*/,
              netsnmp_agent_request_info* /*info*/, netsnmp_request_info* /*requests*/) {
  ++calls;
  return SNMP_ERR_NOERROR;
}
void countCalls() {
  netsnmp_mib_handler* counting = netsnmp_create_handler("counting", &countCall);
  counting->flags |= MIB_HANDLER_AUTO_NEXT;
  netsnmp_inject_handler(registrationAt(kBaIfName), counting);
  calls = 0;
}

TEST_F(DirectAnswersTest, GetBulk_IsOneCallForAllRepetitions) {
  countCalls();
  std::string answer = agent().getBulk(0, 50, {"1.1.2"});
  EXPECT_TRUE(answer.starts_with("1.1.2.1=i:1 1.1.2.2=i:1 ")) << answer;
  EXPECT_TRUE(answer.ends_with(" 1.1.3.9=i:9 1.1.3.10=i:10")) << answer;
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(counters(kBaIf), "direct=50");
}

TEST_F(DirectAnswersTest, GetBulkOfManyColumns_IsOneCallToo) {
  countCalls();
  std::string answer = agent().getBulk(1, 3, {"1", "1.1.3.7", "1.1.2.9"});
  EXPECT_EQ(answer,
            "1.1.2.1=i:1 1.1.3.8=i:8 1.1.2.10=i:1 1.1.3.9=i:9 1.1.2.11=i:1 1.1.3.10=i:10 1.1.2.12=i:1");
  EXPECT_EQ(calls, 1);
}

TEST_F(DirectAnswersTest, GetBulkAboveTheAgentsLimit_StopsThere) {
  std::string answer = agent().getBulk(0, 1000, {"1.1.2"});
  EXPECT_TRUE(answer.find(" 1.1.3.40=i:40 ") != std::string::npos) << answer;
  EXPECT_EQ(counters(kBaIf), "direct=80");
  answer = agent().getBulk(0, 1000, {"1.1.2", "1.1.2.10", "1.1.3.30"});
  EXPECT_EQ(std::count(answer.begin(), answer.end(), '='), 99) << answer;
}

TEST_F(DirectAnswersTest, ConversionThatFailsInALaterRepetition_IsGenErr) {
  Snmp::ConversionOverride<Snmp::U32ToAsnUnsignedF> failing(
      [](const uint32_t& value, unsigned char* buffer, int capacity) {
        return value == 39 ? -1 : Snmp::U32ToAsnUnsignedF::convert(value, buffer, capacity);
      });
  EXPECT_EQ(agent().getBulk(0, 3, {"1.1.3.35"}), "1.1.3.36=i:36 1.1.3.37=i:37 1.1.3.38=i:38");
  // The chain passes over an index that it cannot convert.
  std::string byDirect = agent().getBulk(0, 5, {"1.1.3.35"});
  answeredBy(By::chain);
  EXPECT_EQ(agent().getBulk(0, 5, {"1.1.3.35"}), byDirect);
}

TEST_F(DirectAnswersTest, ValueThatFailsInALaterRepetition_IsGenErrForTheMessage) {
  baIf(50, 1, 977);
  Snmp::ConversionOverride<Snmp::U32ToAsnUnsignedF> failing(
      [](const uint32_t& value, unsigned char* buffer, int capacity) {
        return value == 977 ? -1 : Snmp::U32ToAsnUnsignedF::convert(value, buffer, capacity);
      });
  EXPECT_EQ(agent().getBulk(0, 4, {"1.1.3.38"}), "genErr(1)");
  std::string byDirect = agent().getBulk(1, 4, {"1.1.2", "1.1.3.38"});
  answeredBy(By::chain);
  EXPECT_EQ(agent().getBulk(0, 4, {"1.1.3.38"}), "genErr(1)");
  EXPECT_EQ(agent().getBulk(1, 4, {"1.1.2", "1.1.3.38"}), byDirect);
}

TEST_F(DirectAnswersTest, RowThatIsNotThere_CostsOneSearch) {
  for (uint32_t ifIndex = 1000; ifIndex < 3000; ++ifIndex) baIf(ifIndex);
  EXPECT_EQ(agent().get({"1.1.2.500", "1.1.3.5000"}), "1.1.2.500=noSuchInstance 1.1.3.5000=noSuchInstance");
  EXPECT_EQ(counters(kBaIf), "direct=2");
}

TEST_F(DirectAnswersTest, ToggledOff_StandsNowhere) {
  answeredBy(By::chain);
  for (const TableOfModule& table : allTables()) {
    const netsnmp_mib_handler* first = registrationAt(table.table.at)->handler;
    EXPECT_EQ(first->handler_name, std::string("unsigned_names"));
    EXPECT_EQ(first->next->handler_name, std::string("serialize"));
  }
}

}  // namespace
}  // namespace SnmpTest
