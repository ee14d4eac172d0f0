// Where values come from, and why there are none.
#include "programs/trelctl/Explain.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/support/Thrown.h"

namespace TrelCtl {
namespace {

using testing::HasSubstr;

constexpr const char* kStore = "etcd:h:1,h:2//trel";

ShownTables tables() {
  Json lines = Json::parse(R"([
      {"table":"veldaTrelBaIfTable","oid":"1.3.6.1.4.1.9.1","indexColumns":1,
       "columns":{"ifIndex":1,"localMemberId":2,"remoteMemberId":3},
       "rows":[{"ifIndex":7,"localMemberId":1,"remoteMemberId":2}]},
      {"table":"veldaTrelReachabilityTable","oid":"1.3.6.1.4.1.9.2","indexColumns":2,
       "columns":{"srcId":1,"destId":2,"baIfIndex":3,"state":4,"lastUpdate":5},
       "rows":[{"srcId":1,"destId":2,"baIfIndex":7,"state":3,"stateName":"reachable","lastUpdate":0}]},
      {"table":"veldaTrelHrSystemTable","oid":"1.3.6.1.4.1.9.3","indexColumns":1,
       "columns":{"memberId":1,"upTime":2},"rows":[{"memberId":1,"upTime":null}]},
      {"table":"veldaTrelStorageTable","oid":"1.3.6.1.4.1.9.5","indexColumns":2,
       "columns":{"memberId":1,"index":2,"type":3,"descr":4},
       "rows":[{"memberId":1,"index":31,"type":"1.3","descr":"/var"}]}])");
  ShownTables all;
  for (const Json& line : lines) append(line, all);
  return all;
}

class ExplainTest : public testing::Test {
 protected:
  void says(const std::string& source, const std::vector<std::string>& path, const char* value,
            bool counts = true) {
    values_.push_back(
        {{"path", path}, {"source", source}, {"counts", counts}, {"value", Json::parse(value)}});
  }
  Json explained(const std::string& what) const {
    return explain(instanceOf(what, tables()), values_, status_);
  }
  std::string why(const std::string& what) const {
    std::string text;
    Json explanation = explained(what);
    for (const Json& why : explanation.at("why")) text += why.get<std::string>() + "\n";
    return text;
  }

  Json values_ = Json::array();
  Json status_ = Json::parse(R"({"sources":[],"setAside":[],"members":[]})");
};

std::string instanceText(const std::string& text) {
  Instance instance = instanceOf(text, tables());
  return instance.table.name + " " + instance.column + " " + instance.indexText();
}

TEST_F(ExplainTest, InstanceIsAnOidOrAName) {
  for (const char* text :
       {"1.3.6.1.4.1.9.2.1.4.1.2", ".1.3.6.1.4.1.9.2.1.4.1.2", "veldaTrelReachabilityState.1.2",
        "VELDA-TREL-MIB::veldaTrelReachabilityState.1.2"})
    EXPECT_EQ(instanceText(text), "veldaTrelReachabilityTable state 1.2") << text;
  for (const char* text : {"reach.1.2", "veldaTrelReachabilityTable.1.2"})
    EXPECT_EQ(instanceText(text), "veldaTrelReachabilityTable  1.2") << text;
}

TEST_F(ExplainTest, OtherText_IsRefusedWithWhatIsExpected) {
  auto refused = [](const char* text) {
    return thrown<std::invalid_argument>([&] { instanceOf(text, tables()); });
  };
  for (const char* text :
       {"", "reach", ".", "x.1", "reach.", "reach.1.", "reach.1.x", "reach.4294967296.1", ".reach"})
    EXPECT_THAT(refused(text), HasSubstr("expected an OID, or a name and an index, such as ")) << text;
  EXPECT_THAT(refused("1.3.6.1.2.1.1.3.0"), HasSubstr("expected an OID of a column of the served tables"));
  EXPECT_THAT(refused("1.3.6.1.4.1.9.2.1.4"), HasSubstr("expected an index of 2 numbers"));
  EXPECT_THAT(refused("reach.1"),
              HasSubstr("expected an index of 2 numbers, as the veldaTrelReachabilityTable has"));
  EXPECT_THAT(refused("1.3.6.1.4.1.9.2.1.6.1.2"),
              HasSubstr("expected a column of the veldaTrelReachabilityTable, 1 to 5"));
}

TEST_F(ExplainTest, ServedValue_ItsPathsSourcesKeysAndPublisher) {
  says("file:/x", {"members", "1", "reachability", "2"}, R"({"state":"degraded"})", false);
  says(kStore, {"members", "1", "reachability", "2"}, R"({"state":"reachable","intf":"Backplane1/2"})");
  says(kStore, {"interfaces", "Backplane1/2"}, R"({"ifIndex":7,"machineIfIndex":12})");
  status_["members"] =
      Json::parse(R"([{"source":"s","member":"1","leased":true,"leaseLeft":12,"lastChange":"T"},
                                       {"source":"s","member":"2","leased":true,"leaseLeft":12,"lastChange":"T"}])");
  EXPECT_EQ(explanationText(explained("veldaTrelReachabilityState.1.2")),
            "veldaTrelReachabilityState.1.2 = 3  (.1.3.6.1.4.1.9.2.1.4.1.2)\n"
            "\n"
            "row:\n"
            "  srcId  destId  baIfIndex  state      lastUpdate\n"
            "      1       2          7  reachable     0:00:00\n"
            "\n"
            "from:\n"
            "  members/1/reachability/2 = {\"state\":\"degraded\"}\n"
            "    source file:/x: overridden by a later source\n"
            "  members/1/reachability/2 = {\"state\":\"reachable\",\"intf\":\"Backplane1/2\"}\n"
            "    source etcd:h:1,h:2//trel, key /trel/members/1/reachability/2\n"
            "  interfaces/Backplane1%2F2 = {\"ifIndex\":7,\"machineIfIndex\":12}\n"
            "    source etcd:h:1,h:2//trel, key /trel/interfaces/Backplane1%2F2\n"
            "    the member's own IF-MIB has it as 12\n"
            "  published by member 1, under a lease with 12 s left; its last change: T\n");
}

TEST_F(ExplainTest, PublisherWithoutALease_OrWithOneThatEnded) {
  says(kStore, {"members", "1", "system"}, "{}");
  status_["members"] =
      Json::parse(R"([{"member":"1","leased":false,"leaseLeft":null,"heldSince":null,"lastChange":null}])");
  EXPECT_THAT(
      explanationText(explained("hrs.1")),
      HasSubstr("published by member 1, no lease: its values stay when it is gone; its last change: before "
                "this daemon's start\n"));
  status_["members"][0]["heldSince"] = "T";
  EXPECT_THAT(explanationText(explained("hrs.1")), HasSubstr("member 1, held, as its lease ended at T;"));
}

TEST_F(ExplainTest, NobodySaysAnything) {
  EXPECT_EQ(why("reach.1.3"), "no source says anything at members/1/reachability/3\n");
  EXPECT_EQ(explained("reach.1.3").at("served"), false);
  EXPECT_THAT(explanationText(explained("veldaTrelReachabilityState.1.3")),
              testing::StartsWith(
                  "veldaTrelReachabilityState.1.3 is not served  (.1.3.6.1.4.1.9.2.1.4.1.3)\n  - no source"));
}

TEST_F(ExplainTest, OnlyAHiddenSourceSaysSomething) {
  says("embedded", {"members", "2", "system"}, "{}", false);
  EXPECT_EQ(
      why("hrs.2"),
      "what is said there does not count, as another source speaks for this member; at members/2/system\n");
}

TEST_F(ExplainTest, ValueIsSetAside_OrItsSourceIsFaulty) {
  status_["setAside"].push_back(
      {{"source", kStore}, {"key", "/trel/members/2/system"}, {"error", "found 1"}});
  status_["sources"].push_back({{"name", "file:/x"}, {"state", "stale"}, {"error", "/x:1:1: no JSON"}});
  says(kStore, {"members", "2", "processors", "1"}, "{}");
  // Only what a source says names the store's key.
  EXPECT_EQ(why("hrs.2"),
            "no source says anything at members/2/system\n"
            "/trel/members/2/system is set aside: found 1\n"
            "source file:/x is stale: /x:1:1: no JSON\n");
}

// Its fault is another value's.
TEST_F(ExplainTest, PartialSource_IsNamedOnlyWhereItMayBeWhy) {
  auto& sources = status_["sources"];
  sources.push_back({{"name", kStore}, {"state", "partial"}, {"setAside", 1}, {"error", "key a: found 1"}});
  status_["setAside"].push_back(
      {{"source", kStore}, {"key", "/trel/members/9/system"}, {"error", "found 1"}});
  sources.push_back({{"name", "file:/x"},
                     {"state", "partial"},
                     {"setAside", 1},
                     {"error", "/x: members/9/system/users: found nothing"}});
  EXPECT_EQ(why("hrs.2"), "no source says anything at members/2/system\n");
  EXPECT_EQ(why("hrs.9"),
            "no source says anything at members/9/system\n"
            "/trel/members/9/system is set aside: found 1\n"
            "source file:/x is partial: /x: members/9/system/users: found nothing\n");
  // More than are listed.
  for (Json& source : sources) source["setAside"] = 2;
  EXPECT_THAT(why("hrs.2"), HasSubstr("source etcd:h:1,h:2//trel is partial: key a: found 1\n"));
  EXPECT_THAT(why("hrs.2"), HasSubstr("source file:/x is partial: "));
}

TEST_F(ExplainTest, ReportWithoutAnIndex) {
  says(kStore, {"members", "1", "reachability", "2"}, R"({"state":"reachable"})");
  EXPECT_EQ(why("reach.1.2"), "no ifIndex, as the report names no interface\n");
  values_[0]["value"]["intf"] = "Backplane1/2";
  EXPECT_EQ(why("reach.1.2"),
            "no source says anything at interfaces/Backplane1%2F2\n"
            "no ifIndex: see that the member publishes interfaces/Backplane1%2F2\n");
}

TEST_F(ExplainTest, StorageWithoutAMapping_AndAMappingOfWhichTheMemberHasNothing) {
  EXPECT_THAT(why("storage.2.40"), testing::StartsWith("no storage mapping has the index 40: "));
  says("file:/m", {"storageMappings", "mounts", "/var"}, R"({"index":31})");
  EXPECT_EQ(why("storage.2.31"), "no source says anything at members/2/storage/%2Fvar\n");
  says("file:/m", {"storageMappings", "memory", "1"}, R"({"index":1})");
  EXPECT_EQ(why("storage.2.1"), "no source says anything at members/2/memory\n");
}

TEST_F(ExplainTest, InterfaceOfNoLink_OfSeveral_OrThatIsNone) {
  EXPECT_EQ(why("baif.8"), "no interface has the index 8\n");
  says("a", {"interfaces", "Backplane1/2"}, R"({"ifIndex":7})");
  EXPECT_EQ(why("baif.7"), "no link of the topology uses Backplane1/2\n");
  says("a", {"topology", "1", "2"}, R"({"intf":"Backplane1/2"})");
  EXPECT_EQ(why("baif.7"), "");
  says("a", {"interfaces", "Ethernet1"}, R"({"ifIndex":7})");
  says("a", {"topology", "2", "1"}, R"({"intf":"Ethernet1"})");
  EXPECT_EQ(
      why("baif.7"),
      "Ethernet1 is no link between members: the name of such a one is Backplane and a number\n"
      "claimed by several links: 1 to 2, 2 to 1; 1 to 2 has the row; give each interface its own index\n");
  values_[3]["value"]["intf"] = "Backplane1/2";
  values_.erase(2);
  EXPECT_EQ(why("baif.7"),
            "claimed by several links: 1 to 2, 2 to 1; 1 to 2 has the row; Backplane1/2 is the interface of "
            "several: give each link one with a name of its own\n");
}

TEST_F(ExplainTest, ValueThatCannotBeConverted_AndARowThatIsBeingMade) {
  says("a", {"members", "1", "system"}, "{}");
  EXPECT_EQ(why("veldaTrelHrSystemUpTime.1"), "the value cannot be converted to what the column holds\n");
  EXPECT_EQ(explained("veldaTrelHrSystemUpTime.1").at("served"), false);
  says("a", {"members", "2", "system"}, "{}");
  EXPECT_EQ(why("hrs.2"), "its row is still being made, or was just deleted: ask again\n");
}

TEST_F(ExplainTest, NeedsNoMoreOfTheStateThanItsInputs) {
  auto needed = [](const char* what) { return Json(neededFor(instanceOf(what, tables()))).dump(); };
  EXPECT_EQ(needed("baif.7"), R"([["interfaces"],["topology"]])");
  EXPECT_EQ(needed("reach.1.2"), R"([["members","1"],["interfaces"]])");
  EXPECT_EQ(needed("hrs.3"), R"([["members","3"]])");
  EXPECT_EQ(needed("storage.3.31"), R"([["members","3"],["storageMappings"]])");
}

}  // namespace
}  // namespace TrelCtl
