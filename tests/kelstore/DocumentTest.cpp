// Whole documents: where things may stand, and every way in which a document can be bad.
#include "kelstore/Document.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

namespace Kelstore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class Values>
std::vector<std::string> paths(const Values& values) {
  std::vector<std::string> texts;
  for (const auto& [path, value] : values) texts.push_back(path.text());
  return texts;
}

std::vector<std::string> faultTexts(const Document& document) {
  std::vector<std::string> texts;
  for (const auto& fault : document.faults) texts.push_back(fault.text);
  return texts;
}

std::string unusable(std::string_view text) {
  Document document = parseDocument(text);
  EXPECT_THAT(document.values, IsEmpty());
  return document.unusable.value_or("usable");
}

TEST(DocumentTest, EveryPathOfTheStateModel) {
  Document document = parseDocument(R"({
    "sysname": "alpha",
    "interfaces": {"Backplane1/1": {"ifIndex": 1}},
    "topology": {"0": {"255": {"intf": "Backplane1/1"}}},
    "members": {"1": {
      "system": {"uptime": 1, "currentTimeUtc": 2, "users": 3, "processes": 4, "memorySize": 5},
      "processors": {"4294967295": {"load": 1}},
      "storage": {"/var/log": {"allocationUnits": 1, "size": 2, "free": 3}},
      "memory": {},
      "reachability": {"2": {"state": 1, "lastChange": 0}}}},
    "storageMappings": {"mounts": {"/": {"index": 1, "type": "1.3", "description": ""}},
                        "memory": {"-2147483648": {"index": 1, "type": "1.3", "description": ""}}}})");
  EXPECT_FALSE(document.unusable) << *document.unusable;
  EXPECT_THAT(faultTexts(document), IsEmpty());
  EXPECT_THAT(document.warnings, IsEmpty());
  EXPECT_THAT(paths(document.values),
              ElementsAre("sysname", R"(interfaces/"Backplane1/1")", "topology/0/255", "members/1/system",
                          "members/1/processors", "members/1/processors/4294967295", "members/1/storage",
                          R"(members/1/storage/"/var/log")", "members/1/memory", "members/1/reachability",
                          "members/1/reachability/2", R"(storageMappings/mounts/"/")",
                          "storageMappings/memory/-2147483648"));
}

TEST(DocumentTest, EmptyObject_NoValues) {
  Document document = parseDocument("{}");
  EXPECT_FALSE(document.unusable);
  EXPECT_THAT(document.values, IsEmpty());
}

TEST(DocumentTest, ByteOrderMarkAndBlanks_AreFine) {
  EXPECT_EQ(paths(parseDocument("\xEF\xBB\xBF \r\n\t{\"sysname\": \"a\"}\n").values),
            std::vector<std::string>{"sysname"});
}

TEST(DocumentTest, BadValue_OneFaultWithItsPath_OthersAreTaken) {
  Document document = parseDocument(R"({"members": {"1": {"processors": {
      "1": {"load": 70000}, "2": {"load": 5}, "x": {"load": 1}, "01": {"load": 1}}},
      "256": {"memory": {}}, "one": {"memory": {}}}})");
  EXPECT_THAT(
      faultTexts(document),
      ElementsAre("members/1/processors/1/load: found 70000, expected an integer from -32768 to 32767",
                  "members/1/processors/x: found \"x\", expected a number from 0 to 4294967295",
                  "members/1/processors/01: found \"01\", expected a number from 0 to 4294967295",
                  "members/256: found \"256\", expected a member id, 0 to 255",
                  "members/one: found \"one\", expected a member id, 0 to 255"));
  EXPECT_THAT(paths(document.values), ElementsAre("members/1/processors", "members/1/processors/2"));
}

TEST(DocumentTest, WrongTypeWhereAnObjectBelongs_OneFault) {
  Document document = parseDocument(
      R"({"interfaces": [[1, {"x": []}], 2], "topology": null, "members": {"1": 5, "2": {"reachability": "x"}}})");
  EXPECT_THAT(faultTexts(document), ElementsAre("interfaces: found an array, expected an object",
                                                "topology: found null, expected an object",
                                                "members/1: found 5, expected an object",
                                                "members/2/reachability: found \"x\", expected an object"));
  EXPECT_THAT(document.values, IsEmpty());
}

TEST(DocumentTest, UnknownMembersAtEveryLevel_WarnAndAreSkippedWhole) {
  Document document = parseDocument(R"({"colour": {"deep": [1, {"members": {}}]},
      "members": {"1": {"fan": [], "memory": {"swap": {"a": 1}}}}, "sysname": "a"})");
  EXPECT_THAT(document.warnings,
              ElementsAre("colour: unknown member, ignored", "members/1/fan: unknown member, ignored",
                          "members/1/memory/swap: unknown member, ignored"));
  EXPECT_THAT(faultTexts(document), IsEmpty());
  EXPECT_THAT(paths(document.values), ElementsAre("members/1/memory", "sysname"));
}

TEST(DocumentTest, KeysThatOccurTwice_AreFaults) {
  Document document = parseDocument(R"({"sysname": "a", "sysname": "b",
      "members": {"1": {"memory": {"free": 1, "free": 2}}, "1": {"memory": {}}}})");
  EXPECT_THAT(faultTexts(document), ElementsAre("sysname: found twice, expected once",
                                                "members/1/memory/free: found twice, expected once",
                                                "members/1: found twice, expected once"));
  EXPECT_EQ(withLastGood(std::move(document), Snapshot()).size(), 0u);
}

TEST(DocumentTest, NoJson_OneLineWithLineAndColumn) {
  EXPECT_EQ(unusable(""), ":1:1: found nothing, expected a JSON object");
  EXPECT_EQ(unusable(" \n\n "), ":3:2: found nothing, expected a JSON object");
  EXPECT_THAT(unusable("{\n  \"sysname\": tru\n}"), testing::StartsWith(":2:17: "));
  EXPECT_THAT(unusable("{\"sysname\": \"a\""), testing::StartsWith(":1:16: "));
  EXPECT_THAT(unusable("{} x"), testing::StartsWith(":1:4: "));
  EXPECT_THAT(unusable("{\"a\": NaN}"), testing::StartsWith(":1:7: "));
  EXPECT_THAT(unusable("{\"a\": 1e999}"), testing::HasSubstr("number overflow parsing '1e999'"));
  EXPECT_THAT(unusable("{'a': 1}"), testing::StartsWith(":1:2: "));
  EXPECT_THAT(unusable(std::string_view("{\"a\": \"\0\"}", 10)), testing::StartsWith(":1:8: "));
  EXPECT_THAT(unusable("{\"a\": \"\xC3\x28\"}"), testing::StartsWith(":1:9: "));
  EXPECT_THAT(unusable("\xFF\xFE{"), testing::StartsWith(":1:1: "));
  EXPECT_EQ(unusable("[1, 2]"), ":1:1: found an array, expected an object");
  EXPECT_EQ(unusable("7"), ":1:1: found 7, expected an object");
  EXPECT_EQ(unusable("null"), ":1:1: found null, expected an object");
}

TEST(DocumentTest, MessagesStayOnOneLineAndShort) {
  std::string text = unusable("{\"a\": \"\n" + std::string(100'000, 'x'));
  EXPECT_EQ(text.find('\n'), std::string::npos);
  EXPECT_LT(text.size(), 400u);
}

TEST(DocumentTest, TruncatedAnywhere_NothingIsTaken) {
  std::string whole = R"({"members": {"1": {"processors": {"1": {"load": 7}}}}, "sysname": "a"})";
  ASSERT_FALSE(parseDocument(whole).unusable);
  for (size_t length = 0; length < whole.size(); ++length) {
    EXPECT_NE(unusable(whole.substr(0, length)), "usable") << length;
  }
}

TEST(DocumentTest, NestedAMillionLevelsDeep_OneLine) {
  std::string deep;
  for (int i = 0; i < 1'000'000; ++i) deep += "[";
  EXPECT_EQ(unusable(deep), ": found more than 64 levels of nesting, expected 4");
  EXPECT_EQ(unusable("{\"members\": " + deep), ": members: found more than 64 levels of nesting, expected 4");
  std::string objects;
  for (int i = 0; i < 1'000'000; ++i) objects += "{\"x\":";
  EXPECT_EQ(unusable(objects), ": x: found more than 64 levels of nesting, expected 4");
}

// What a source held before.
Snapshot before() {
  return Snapshot(parseDocument(R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 2}},
      "members": {"1": {"processors": {"1": {"load": 1}, "2": {"load": 2}}, "memory": {"free": 1}}}})")
                      .values);
}

std::vector<std::string> kept(std::string_view text) {
  return paths(withLastGood(parseDocument(text), before()));
}

TEST(DocumentTest, LastGoodValuesStayAtAffectedPathsOnly) {
  Snapshot after = withLastGood(
      parseDocument(R"({"interfaces": {"a": {"ifIndex": -1}}, "members": {"1": {"processors": 7}}})"),
      before());
  EXPECT_THAT(paths(after), ElementsAre("interfaces/a", "members/1/processors", "members/1/processors/1",
                                        "members/1/processors/2"));
  EXPECT_EQ(after.find({Kind::interface, "a", {}})->get<Interface>().ifIndex, 1u);
}

TEST(DocumentTest, MemberIsOfTheWrongType_AllThatItHeldStays) {
  EXPECT_THAT(kept(R"({"members": {"1": []}})"),
              ElementsAre("members/1/memory", "members/1/processors", "members/1/processors/1",
                          "members/1/processors/2"));
}

TEST(DocumentTest, NoFaults_NothingOfBeforeStays) { EXPECT_THAT(kept("{}"), IsEmpty()); }

// A value that is parsed on its own, as JSON, or what is wrong with it.
std::string atPath(const Path& path, std::string_view text) {
  Document document = parseValue(path, text);
  if (document.unusable) return "unusable" + *document.unusable;
  if (!document.faults.empty()) return document.faults.front().text;
  EXPECT_EQ(document.values.size(), 1u);
  EXPECT_EQ(document.values.front().first, path);
  std::string warning = document.warnings.empty() ? "" : ", " + document.warnings.front();
  return encode(document.values.front().second).dump() + warning;
}

TEST(DocumentTest, ValueOnItsOwn_SameRulesAsInADocument) {
  const Path load{Kind::processor, "1", "2"};
  EXPECT_EQ(atPath(load, R"( {"load": 7} )"), R"({"load":7})");
  EXPECT_EQ(atPath({Kind::sysname, {}, {}}, R"("alpha")"), R"("alpha")");
  EXPECT_EQ(atPath(load, R"({"load": 7, "x": {"y": []}})"),
            R"({"load":7}, members/1/processors/2/x: unknown member, ignored)");
  EXPECT_EQ(atPath(load, R"({"load": 70000})"),
            "members/1/processors/2/load: found 70000, expected an integer from -32768 to 32767");
  EXPECT_EQ(atPath(load, "7"), "members/1/processors/2: found 7, expected an object");
  EXPECT_EQ(atPath(load, R"({"load": 7, "load": 8})"),
            "members/1/processors/2/load: found twice, expected once");
  EXPECT_EQ(atPath(load, ""), "unusable:1:1: found nothing, expected a JSON value");
  EXPECT_THAT(atPath(load, R"({"load": 7}})"), testing::StartsWith("unusable:1:12: "));
  EXPECT_THAT(atPath(load, "{\"load\": \xff}"), testing::StartsWith("unusable:1:10: "));
  EXPECT_EQ(atPath(load, std::string(100'000, '[')),
            "unusable: members/1/processors/2: found more than 64 levels of nesting, expected 4");
}

TEST(DocumentTest, DifferencesNameWhatAppearedChangedAndVanished) {
  Snapshot a(
      parseDocument(R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 2}, "c": {"ifIndex": 3}}})")
          .values);
  Snapshot b(
      parseDocument(R"({"interfaces": {"b": {"ifIndex": 2}, "c": {"ifIndex": 4}, "d": {"ifIndex": 5}}})")
          .values);
  std::vector<std::string> texts;
  for (const Path& path : differences(a, b)) texts.push_back(path.text());
  EXPECT_THAT(texts, ElementsAre("interfaces/a", "interfaces/c", "interfaces/d"));
  EXPECT_THAT(differences(a, a), IsEmpty());
}

}  // namespace
}  // namespace Kelstore
