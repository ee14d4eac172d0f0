// What the sources say, as the control protocol shows it.
#include "host/ValueReport.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/kelstore/World.h"

namespace Host {
namespace {

using nlohmann::json;

// The values of all lines, one line each.
std::string valuesOf(const Kelstore::LayeredState& layers, const std::vector<std::string>& below) {
  auto report = valueReport(layers, {"file:a", "file:b"}, below);
  std::string text;
  std::string line;
  bool done = false;
  while (report->next(line)) {
    json answer = json::parse(line);
    EXPECT_FALSE(done) << line;
    done = answer.value("done", false);
    for (const json& value : answer.value("values", json::array())) text += value.dump() + "\n";
  }
  EXPECT_TRUE(done);
  return text;
}

TEST(ValueReportTest, EachSourcesValue_AndWhichOneCounts) {
  Kelstore::World world(2);
  world.says(
      R"({"sysname": "a", "interfaces": {"Backplane1/1": {"ifIndex": 1}, "Backplane1/2": {"ifIndex": 2}}})",
      0);
  world.says(R"({"interfaces": {"Backplane1/2": {"ifIndex": 3}}})", 1);
  EXPECT_EQ(valuesOf(world.layers, {"interfaces"}),
            R"({"counts":true,"path":["interfaces","Backplane1/1"],"source":"file:a","value":{"ifIndex":1}})"
            "\n"
            R"({"counts":false,"path":["interfaces","Backplane1/2"],"source":"file:a","value":{"ifIndex":2}})"
            "\n"
            R"({"counts":true,"path":["interfaces","Backplane1/2"],"source":"file:b","value":{"ifIndex":3}})"
            "\n");
  EXPECT_EQ(valuesOf(world.layers, {"sysname"}),
            R"({"counts":true,"path":["sysname"],"source":"file:a","value":"a"})"
            "\n");
}

TEST(ValueReportTest, SegmentsAreWhole_AndContainersAreNoValues) {
  Kelstore::World world(2);
  world.says(
      R"({"members": {"1": {"processors": {"1": {"load": 1}}}, "11": {"processors": {"1": {"load": 2}}}}})",
      0);
  EXPECT_EQ(valuesOf(world.layers, {"members", "1"}),
            R"({"counts":true,"path":["members","1","processors","1"],"source":"file:a","value":{"load":1}})"
            "\n");
  EXPECT_EQ(valuesOf(world.layers, {"members", "2"}), "");
}

TEST(ValueReportTest, MoreThanALineHolds_AllAreThere) {
  Kelstore::World world(2);
  json document;
  for (int i = 1; i <= 600; ++i) document["interfaces"]["Backplane1/" + std::to_string(i)] = {{"ifIndex", i}};
  world.says(document.dump(), 1);
  std::string text = valuesOf(world.layers, {});
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 600);
}

}  // namespace
}  // namespace Host
