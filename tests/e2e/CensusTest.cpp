// Who belongs to the cluster and who is there, as the daemon's status tells, and what newer members say.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/e2e/Daemon.h"

namespace E2e {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Census : public testing::Test {
 protected:
  // "1 leaf-1 present", in order.
  std::vector<std::string> cluster() const {
    std::vector<std::string> all;
    const nlohmann::json status = daemon_.status();
    for (const auto& member : status.at("cluster")) {
      const auto& name = member.at("name");
      all.push_back(fmt::format("{} {} {}", member.at("member").get<std::string>(),
                                name.is_null() ? "-" : name.get<std::string>(),
                                member.at("state").get<std::string>()));
    }
    return all;
  }

  Daemon daemon_;
};

TEST_F(Census, WhoIsExpected_IsThere_IsLost_OrDoesNotBelongToTheCluster) {
  daemon_
      .stateIs(R"({"expected": {"1": {}, "2": {"name": "leaf-2"}, "3": {}},
      "members": {"1": {"name": "leaf-1", "processors": {}}, "3": {"reachability": {}}, "7": {"name": "stray"}}})")
      .start();
  EXPECT_THAT(cluster(),
              ElementsAre("1 leaf-1 present", "2 leaf-2 expected", "3 - present", "7 stray unexpected"));
  daemon_.stateIs(R"({"expected": {"1": {}, "2": {"name": "leaf-2"}, "3": {}},
      "members": {"2": {"processors": {}}, "3": {"reachability": {}}}})");
  ASSERT_TRUE(Support::waitUntil([&] { return cluster().size() == 3; }));
  EXPECT_THAT(cluster(), ElementsAre("1 leaf-1 lost", "2 leaf-2 present", "3 - present"));
  auto status = daemon_.ctl({"status"});
  EXPECT_EQ(status.status, 3);
  EXPECT_THAT(status.out, HasSubstr("member 1 (leaf-1) is lost since "));
  daemon_.stateIs(R"({"expected": {"2": {}, "3": {}},
      "members": {"2": {"processors": {}}, "3": {"reachability": {}}}})");
  ASSERT_TRUE(Support::waitUntil([&] { return cluster().size() == 2; }));
  EXPECT_EQ(daemon_.ctl({"status"}).status, 0);
}

TEST_F(Census, WhereNobodyIsSaidToBeExpected_WhoIsWiredOrWasSeenIs) {
  daemon_
      .stateIs(R"({"topology": {"1": {"2": {"intf": "Backplane1/1"}}},
      "members": {"1": {"processors": {}}, "5": {"processors": {}}}})")
      .start();
  EXPECT_THAT(cluster(), ElementsAre("1 - present", "2 - expected", "5 - present"));
  daemon_.stateIs(R"({"members": {"1": {"processors": {}}}})");
  ASSERT_TRUE(Support::waitUntil([&] { return cluster().size() == 2; }));
  EXPECT_THAT(cluster(), ElementsAre("1 - present", "5 - lost"));
}

// The state before would be a lie.
TEST_F(Census, StateOfANewerMember_IsServedAsUnrecognized) {
  constexpr const char* kDocument =
      R"({{"members": {{"1": {{"reachability": {{"2": {{"state": {}, "lastChange": 0}}}}}}}}}})";
  daemon_.stateIs(fmt::format(kDocument, R"("reachable")")).start();
  EXPECT_EQ(daemon_.manager().get({"reach.4.1.2"}), "reach.4.1.2 = INTEGER: 3\n");
  for (const char* state : {R"("quarantined")", "17"}) {
    daemon_.stateIs(fmt::format(kDocument, state));
    EXPECT_TRUE(Support::waitUntil(
        [&] { return daemon_.manager().get({"reach.4.1.2"}) == "reach.4.1.2 = INTEGER: 0\n"; }));
    daemon_.stateIs(fmt::format(kDocument, "2"));
    EXPECT_TRUE(Support::waitUntil(
        [&] { return daemon_.manager().get({"reach.4.1.2"}) == "reach.4.1.2 = INTEGER: 3\n"; }));
  }
  EXPECT_THAT(daemon_.process().err(),
              HasSubstr("found \"quarantined\", expected \"unknown\", \"initializing\", \"reachable\", "));
}

}  // namespace
}  // namespace E2e
