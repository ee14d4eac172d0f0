// From keys to a document, and from a document to the changes that a store needs.
#include "programs/trelctl/StoreContent.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

namespace TrelCtl {
namespace {

using Kelstore::Kind;
using Kelstore::Path;
using Kelstore::Etcd::KeySpace;
using Kelstore::Etcd::Listing;
using Kelstore::Etcd::Op;
using testing::ElementsAre;
using testing::Pair;

const KeySpace kKeys("p");

Listing listing(const std::vector<std::pair<std::string, std::string>>& entries) {
  Listing all;
  for (const auto& [key, value] : entries) {
    all.records.emplace_back();
    all.records.back().key = key;
    all.records.back().value = value;
  }
  return all;
}

Values valuesOf(std::string_view document) {
  Values values;
  for (auto& entry : Kelstore::parseDocument(document).values) {
    if (!entry.second.is<Kelstore::Present>()) values.insert(std::move(entry));
  }
  return values;
}

std::vector<std::string> rendered(const std::vector<Op>& ops) {
  std::vector<std::string> texts;
  for (const Op& op : ops) texts.push_back(op.what == Op::What::put ? op.key + "=" + op.value : "-" + op.key);
  return texts;
}

TEST(StoreContentTest, ValuesNestByPath) {
  StoreContent content = contentOf(
      kKeys, listing({{"p/interfaces/Backplane1%2F1", R"({"ifIndex": 7})"},
                      {"p/members/1/processors/2", R"({"load":3})"},
                      {"p/members/1/storage/%2Fvar%2Flog", R"({"allocationUnits":1,"size":2,"free":3})"},
                      {"p/sysname", R"("alpha")"}}));
  EXPECT_EQ(Kelstore::documentOf(content.values), nlohmann::json::parse(R"({
      "sysname": "alpha",
      "interfaces": {"Backplane1/1": {"ifIndex": 7}},
      "members": {"1": {"processors": {"2": {"load": 3}},
                        "storage": {"/var/log": {"allocationUnits": 1, "size": 2, "free": 3}}}}})"));
  EXPECT_THAT(content.setAside, ElementsAre());
  EXPECT_EQ(Kelstore::documentOf({}).dump(), "{}");
}

TEST(StoreContentTest, BadKeysAndValuesAreSetAside_OtherKeysAreForeign) {
  StoreContent content = contentOf(kKeys, listing({{"p/members/01/system", "{}"},
                                                   {"p/members/1/processors/1", R"({"load": 70000})"},
                                                   {"p/members/1/processors/2", "{"},
                                                   {"p/members/1/processors/3", R"({"load": 1, "x": 2})"},
                                                   {"p/notes", "call Bob"}}));
  EXPECT_THAT(
      content.setAside,
      ElementsAre(Pair("p/members/01/system", "members/01: found \"01\", expected a member id, 0 to 255"),
                  Pair("p/members/1/processors/1",
                       "members/1/processors/1/load: found 70000, expected an integer from -32768 to "
                       "32767"),
                  Pair("p/members/1/processors/2", testing::StartsWith("members/1/processors/2:1:2: "))));
  EXPECT_THAT(content.foreign, ElementsAre(Pair("p/notes", "notes: unknown, ignored")));
  EXPECT_THAT(content.warnings, ElementsAre("members/1/processors/3/x: unknown member, ignored"));
  EXPECT_EQ(content.values.size(), 1u);
}

TEST(StoreContentTest, OnlyDifferencesAreWritten) {
  StoreContent now = contentOf(kKeys, listing({{"p/interfaces/a", R"( {"ifIndex" : 1} )"},
                                               {"p/interfaces/b", R"({"ifIndex":2})"},
                                               {"p/interfaces/c", R"({"ifIndex":"?"})"},
                                               {"p/interfaces/d", R"({"ifIndex":4})"}}));
  Values wanted = valuesOf(R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 22}, "c": {"ifIndex": 3},
                                              "e": {"ifIndex": 5}}})");
  Difference difference = differenceOf(kKeys, now, wanted, false);
  EXPECT_THAT(rendered(difference.ops),
              ElementsAre(R"(p/interfaces/b={"ifIndex":22})", R"(p/interfaces/c={"ifIndex":3})",
                          R"(p/interfaces/e={"ifIndex":5})"));
  EXPECT_EQ(difference.written, 3u);
  EXPECT_EQ(difference.deleted, 0u);
  EXPECT_EQ(difference.unchanged, 1u);
}

TEST(StoreContentTest, ReplaceDeletesTheRestOfTheState_NothingForeign_NoKeyTwice) {
  StoreContent now = contentOf(kKeys, listing({{"p/interfaces/a", R"({"ifIndex":1})"},
                                               {"p/interfaces/b", R"({"ifIndex":"?"})"},
                                               {"p/interfaces/c", R"({"ifIndex":"?"})"},
                                               {"p/members/%31/system", "{}"},
                                               {"p/notes", "x"}}));
  Difference difference =
      differenceOf(kKeys, now, valuesOf(R"({"interfaces": {"b": {"ifIndex": 2}}})"), true);
  EXPECT_THAT(rendered(difference.ops), ElementsAre(R"(p/interfaces/b={"ifIndex":2})", "-p/interfaces/a",
                                                    "-p/interfaces/c", "-p/members/%31/system"));
  EXPECT_EQ(difference.written, 1u);
  EXPECT_EQ(difference.deleted, 3u);
}

TEST(StoreContentTest, WhatRowsAreComputedFromIsWrittenFirst) {
  Values wanted = valuesOf(R"({"members": {"1": {"memory": {"free": 1}}}, "interfaces": {"a": {"ifIndex": 1}},
      "storageMappings": {"memory": {"1": {"index": 1, "type": "1.3.6.1", "description": "RAM"}}}})");
  Difference difference = differenceOf(kKeys, {}, wanted, false);
  ASSERT_EQ(difference.ops.size(), 3u);
  EXPECT_EQ(difference.ops[0].key, "p/storageMappings/memory/1");
  EXPECT_EQ(difference.ops[1].key, "p/interfaces/a");
  EXPECT_EQ(difference.ops[2].key, "p/members/1/memory");
}

TEST(StoreContentTest, TransactionsAreFullButNeverTooLarge) {
  auto sizes = [](size_t count, size_t valueBytes, size_t maxOps, size_t maxBytes) {
    std::vector<Op> ops;
    for (size_t i = 0; i < count; ++i) ops.push_back({Op::What::put, "k", std::string(valueBytes, 'x')});
    std::vector<size_t> all;
    for (const auto& transaction : transactionsOf(std::move(ops), maxOps, maxBytes)) {
      all.push_back(transaction.size());
    }
    return all;
  };
  EXPECT_THAT(sizes(0, 1, 3, 100), ElementsAre());
  EXPECT_THAT(sizes(3, 1, 3, 100), ElementsAre(3));
  EXPECT_THAT(sizes(7, 1, 3, 100), ElementsAre(3, 3, 1));
  EXPECT_THAT(sizes(5, 9, 100, 20), ElementsAre(2, 2, 1));
  EXPECT_THAT(sizes(2, 50, 100, 20), ElementsAre(1, 1));
}

const std::string kHead = R"("clock": 1, "users": 0, "processes": 0, "memorySize": 0)";

// Two processors in a packed form, one of which has a key of its own, too.
StoreContent packedContent() {
  return contentOf(kKeys, listing({{"p/members/1/figures", "{" + kHead + R"(, "loads": {"1": 1, "2": 2}})"},
                                   {"p/members/1/processors/1", R"({"load":9})"}}));
}

TEST(StoreContentTest, PackedForm_IsShownAsItsValues_AndCounts) {
  EXPECT_EQ(Kelstore::documentOf(packedContent().values), nlohmann::json::parse(R"({"members": {"1": {
      "system": {"uptime": 0, "currentTimeUtc": 1, "users": 0, "processes": 0, "memorySize": 0},
      "processors": {"1": {"load": 1}, "2": {"load": 2}}}}})"));
}

TEST(StoreContentTest, PartOfAPackedFormIsWrong_TheOthersAreShown) {
  StoreContent content =
      contentOf(kKeys, listing({{"p/members/1/figures", "{" + kHead + R"(, "loads": {"1": "x", "2": 2}})"}}));
  EXPECT_EQ(content.values.size(), 2u);
  EXPECT_THAT(content.setAside,
              ElementsAre(Pair("p/members/1/figures",
                               "members/1/figures/loads/1: found \"x\", expected an integer from -32768 to "
                               "32767")));
}

TEST(StoreContentTest, PackedFormHasWhatIsWanted_NothingIsWritten) {
  Difference difference = differenceOf(
      kKeys, packedContent(), valuesOf(R"({"members": {"1": {"processors": {"2": {"load": 2}}}}})"), false);
  EXPECT_THAT(rendered(difference.ops), ElementsAre());
  EXPECT_EQ(difference.unchanged, 1u);
}

TEST(StoreContentTest, PackedFormHasSomethingElse_ItsValuesAreWrittenByThemselves) {
  Values wanted = valuesOf(R"({"members": {"1": {"processors": {"2": {"load": 3}}}}})");
  Difference difference = differenceOf(kKeys, packedContent(), wanted, false);
  EXPECT_THAT(
      rendered(difference.ops),
      ElementsAre(testing::StartsWith("p/members/1/system="), R"(p/members/1/processors/1={"load":1})",
                  R"(p/members/1/processors/2={"load":3})", "-p/members/1/figures"));
  difference = differenceOf(kKeys, packedContent(), wanted, true);
  EXPECT_THAT(rendered(difference.ops), ElementsAre(R"(p/members/1/processors/2={"load":3})",
                                                    "-p/members/1/processors/1", "-p/members/1/figures"));
}

TEST(StoreContentTest, KeysOfAMember_WithTheInterfacesThatNoOtherMemberNames) {
  Listing all = listing({{"p/interfaces/a", R"({"ifIndex":1})"},
                         {"p/interfaces/b", R"({"ifIndex":2})"},
                         {"p/interfaces/c", R"({"ifIndex":3})"},
                         {"p/members/1/reachability/2", R"({"state":"reachable","intf":"a","lastChange":1})"},
                         {"p/members/1/unknown", "1"},
                         {"p/members/11/processors/1", R"({"load":1})"},
                         {"p/members/2/reachability/1", R"({"state":"reachable","intf":"b","lastChange":1})"},
                         {"p/topology/1/2", R"({"intf":"b"})"},
                         {"p/topology/2/1", R"({"intf":"c"})"}});
  EXPECT_THAT(TrelCtl::keysOfMember(kKeys, all, 1),
              testing::ElementsAre("p/interfaces/a", "p/members/1/reachability/2", "p/members/1/unknown",
                                   "p/topology/1/2"));
}

}  // namespace
}  // namespace TrelCtl
