// How trelctl finds a table by its name, and what has changed in it.
#include "programs/trelctl/TableChanges.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/Thrown.h"

namespace TrelCtl {
namespace {

const std::vector<std::string> kNames = {"veldaTrelReachabilityTable", "veldaTrelHrSystemTable",
                                         "veldaTrelHrStorageTable"};

ShownTables tablesOf(const char* rows) {
  ShownTables tables;
  append({{"table", "a"}, {"indexColumns", 1}, {"rows", Json::array()}}, tables);
  append({{"table", "b"}, {"indexColumns", 2}, {"rows", Json::parse(rows)}}, tables);
  return tables;
}

std::string changed(const char* before, const char* now) {
  std::string text;
  for (const RowChange& change : changesOf(tablesOf(before), tablesOf(now))) text += textOf(change) + "\n";
  return text;
}

TEST(TableChangesTest, TableIsNamedInFullInShortOrInPart) {
  for (const char* name : {"veldaTrelReachabilityTable", "Reachability", "reach", "REACH", "veldaTrelReach"})
    EXPECT_EQ(tableNamed(name, kNames), kNames[0]) << name;
  EXPECT_EQ(tableNamed("hrsystem", kNames), kNames[1]);
}

TEST(TableChangesTest, NameOfNoTable_OrOfSeveral_IsRefusedWithThose) {
  EXPECT_EQ(thrown<std::invalid_argument>([] { tableNamed("hr", kNames); }),
            "found \"hr\", expected one alone of veldaTrelHrSystemTable, veldaTrelHrStorageTable");
  EXPECT_EQ(thrown<std::invalid_argument>([] { tableNamed("x\n", kNames); }),
            "found \"x\\x0a\", expected one of veldaTrelReachabilityTable, veldaTrelHrSystemTable, "
            "veldaTrelHrStorageTable");
}

TEST(TableChangesTest, NothingChanged_NothingIsSaid) {
  EXPECT_EQ(changed(R"([{"x":1,"y":2,"z":3}])", R"([{"x":1,"y":2,"z":3}])"), "");
}

TEST(TableChangesTest, RowsThatComeChangeAndGo) {
  EXPECT_EQ(changed(R"([{"x":1,"y":2,"z":3,"s":"up"},{"x":1,"y":3,"z":3,"s":"up"}])",
                    R"([{"x":1,"y":1,"z":null,"s":"a\n"},{"x":1,"y":2,"z":4,"s":"down"}])"),
            "b 1.1: new: x 1, y 1, z -, s a\\x0a\n"
            "b 1.2: z 3 -> 4, s up -> down\n"
            "b 1.3: gone\n");
}

TEST(TableChangesTest, LinesOfATable_AreJoined) {
  ShownTables tables = tablesOf(R"([{"x":1,"y":2}])");
  append({{"table", "b"}, {"indexColumns", 2}, {"rows", {{{"x", 2}, {"y", 1}}}}}, tables);
  ASSERT_EQ(tables.size(), 2u);
  EXPECT_EQ(tables[1].rows.size(), 2u);
}

}  // namespace
}  // namespace TrelCtl
