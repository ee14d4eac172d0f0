// The schema: what each kind accepts, the error line for anything else, and that the document says the same.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "kelstore/Path.h"
#include "kelstore/Schema.h"
#include "runtime/JsonFields.h"
#include "tests/support/TempDir.h"

namespace Kelstore {
namespace {

std::string rendered(const std::vector<Runtime::JsonNote>& notes) {
  std::string text;
  for (const Runtime::JsonNote& note : notes) {
    text += (text.empty() ? "" : "; ") + (note.where.empty() ? "" : note.where + ": ") + note.text;
  }
  return text;
}

std::string faults(Kind kind, const std::string& json) {
  Runtime::JsonNotes notes;
  auto value = specOf(kind).decode(nlohmann::json::parse(json), notes);
  EXPECT_EQ(value.has_value(), notes.faults.empty());
  return rendered(notes.faults);
}

template <class Typed>
Typed decoded(Kind kind, const std::string& json) {
  Runtime::JsonNotes notes;
  auto value = specOf(kind).decode(nlohmann::json::parse(json), notes);
  EXPECT_EQ(rendered(notes.faults), "");
  EXPECT_EQ(rendered(notes.warnings), "");
  return value ? value->template get<Typed>() : Typed();
}

// A good object of each kind, one member of which is then spoilt.
const std::map<Kind, std::string> kGood = {
    {Kind::expected, R"({"name": "spine"})"},
    {Kind::interface, R"({"ifIndex": 1})"},
    {Kind::link, R"({"intf": "Backplane1/1"})"},
    {Kind::system, R"({"uptime": 1, "currentTimeUtc": 2.5, "users": 3, "processes": 4, "memorySize": 5})"},
    {Kind::memory, R"({"total": 1, "free": 2, "available": 3, "nonBuffer": 4, "nonCache": 5})"},
    {Kind::processor, R"({"load": 7})"},
    {Kind::storage, R"({"allocationUnits": 1, "size": 2, "free": 3})"},
    {Kind::reachability, R"({"state": "degraded", "intf": "Backplane1/2", "lastChange": 9})"},
    {Kind::unread, R"({"state": "hangs", "since": 1767225601.5, "error": "no answer for 3 s"})"},
    {Kind::mountMapping, R"({"index": 1, "type": "1.3.6.1", "description": "root"})"},
    {Kind::memoryMapping, R"({"index": 1, "type": "1.3.6.1", "description": "RAM"})"},
};

std::string faultsWith(Kind kind, const std::string& member, const std::string& value) {
  auto object = nlohmann::json::parse(kGood.at(kind));
  object[member] = nlohmann::json::parse(value);
  return faults(kind, object.dump());
}

constexpr const char* kU32 = "expected an integer from 0 to 4294967295";
constexpr const char* kU64 = "expected an integer from 0 to 18446744073709551615";

TEST(SchemaTest, GoodValuesOfEveryKind) {
  EXPECT_EQ(decoded<std::string>(Kind::sysname, R"("alpha")"), "alpha");
  EXPECT_EQ(decoded<std::string>(Kind::name, R"("spine")"), "spine");
  EXPECT_EQ(decoded<Expected>(Kind::expected, "{}"), Expected());
  EXPECT_EQ(decoded<Expected>(Kind::expected, kGood.at(Kind::expected)), Expected{"spine"});
  EXPECT_EQ(decoded<Interface>(Kind::interface, R"({"ifIndex": 4294967295})"), (Interface{4294967295}));
  EXPECT_EQ(decoded<Interface>(Kind::interface, R"({"ifIndex": 1002, "machineIfIndex": 12})"),
            (Interface{1002, 12}));
  EXPECT_EQ(decoded<Link>(Kind::link, kGood.at(Kind::link)), (Link{Lanix::IntfId("Backplane1/1")}));
  EXPECT_EQ(decoded<System>(Kind::system, kGood.at(Kind::system)), (System{1, 2.5, 3, 4, 5}));
  EXPECT_EQ(decoded<Memory>(Kind::memory, kGood.at(Kind::memory)), (Memory{1, 2, 3, 4, 5}));
  EXPECT_EQ(decoded<Memory>(Kind::memory, "{}"), Memory());
  EXPECT_EQ(decoded<Processor>(Kind::processor, R"({"load": -32768})"), (Processor{-32768}));
  EXPECT_EQ(
      decoded<Storage>(Kind::storage, R"({"allocationUnits": 0, "size": 18446744073709551615, "free": 0})"),
      (Storage{0, std::numeric_limits<uint64_t>::max(), 0}));
  EXPECT_EQ(decoded<Reachability>(Kind::reachability, kGood.at(Kind::reachability)),
            (Reachability{Trel::ReachabilityState::degraded, Lanix::IntfId("Backplane1/2"), 9}));
  EXPECT_EQ(decoded<Reachability>(Kind::reachability, R"({"state": 5, "lastChange": 0})"),
            (Reachability{Trel::ReachabilityState::disabled, std::nullopt, 0}));
  EXPECT_EQ(decoded<Unread>(Kind::unread, kGood.at(Kind::unread)),
            (Unread{Unread::hangs, 1767225601.5, "no answer for 3 s"}));
  EXPECT_EQ(decoded<Mapping>(Kind::mountMapping, kGood.at(Kind::mountMapping)),
            (Mapping{Snmp::ObjectIdentifier("1.3.6.1"), "root", 1}));
}

TEST(SchemaTest, AllSixStatesByNameAndByNumber) {
  const char* names[] = {"unknown", "initializing", "reachable", "degraded", "unreachable", "disabled"};
  for (uint8_t i = 0; i < 6; ++i) {
    auto byName = R"({"lastChange": 0, "state": ")" + std::string(names[i]) + R"("})";
    auto byNumber = R"({"lastChange": 0, "state": )" + std::to_string(i) + "}";
    EXPECT_EQ(decoded<Reachability>(Kind::reachability, byName).state, i);
    EXPECT_EQ(decoded<Reachability>(Kind::reachability, byNumber).state, i);
  }
}

TEST(SchemaTest, UnsignedMembersRefuseEverythingElse) {
  const std::vector<std::pair<Kind, std::string>> members = {
      {Kind::interface, "ifIndex"},  {Kind::system, "users"},           {Kind::system, "processes"},
      {Kind::system, "memorySize"},  {Kind::memory, "total"},           {Kind::memory, "free"},
      {Kind::memory, "available"},   {Kind::memory, "nonBuffer"},       {Kind::memory, "nonCache"},
      {Kind::mountMapping, "index"}, {Kind::storage, "allocationUnits"}};
  for (const auto& [kind, member] : members) {
    for (const char* bad : {"-1", "4294967296", "1.5", "1.0", "1e3", R"("1")", "null", "true"}) {
      std::string found = nlohmann::json::parse(bad).dump();
      EXPECT_EQ(faultsWith(kind, member, bad), member + ": found " + found + ", " + kU32);
    }
    EXPECT_EQ(faultsWith(kind, member, "[]"), member + ": found an array, " + kU32);
    EXPECT_EQ(faultsWith(kind, member, "{}"), member + ": found an object, " + kU32);
    EXPECT_EQ(faultsWith(kind, member, "4294967295"), "");
  }
}

TEST(SchemaTest, WideAndSignedMembersHaveTheirOwnRanges) {
  EXPECT_EQ(faultsWith(Kind::storage, "size", "-1"), std::string("size: found -1, ") + kU64);
  EXPECT_EQ(faultsWith(Kind::storage, "free", "18446744073709551616"),
            std::string("free: found 1.8446744073709552e+19, ") + kU64);
  EXPECT_EQ(faultsWith(Kind::reachability, "lastChange", "-5"), std::string("lastChange: found -5, ") + kU64);
  EXPECT_EQ(faultsWith(Kind::processor, "load", "32768"),
            "load: found 32768, expected an integer from -32768 to 32767");
  EXPECT_EQ(faultsWith(Kind::processor, "load", "-32769"),
            "load: found -32769, expected an integer from -32768 to 32767");
  EXPECT_EQ(faultsWith(Kind::processor, "load", "32767"), "");
}

TEST(SchemaTest, SecondsAreNumbersThatSnmpCanCarry) {
  EXPECT_EQ(faultsWith(Kind::system, "uptime", "-0.5"),
            "uptime: found -0.5, expected a number from 0 to 1000000000000000");
  EXPECT_EQ(faultsWith(Kind::system, "uptime", R"("1")"),
            "uptime: found \"1\", expected a number from 0 to 1000000000000000");
  EXPECT_EQ(faultsWith(Kind::system, "currentTimeUtc", "2005949145600"),
            "currentTimeUtc: found 2005949145600, expected a number from 0 to 2005949145599");
  EXPECT_EQ(faultsWith(Kind::system, "currentTimeUtc", "2005949145599"), "");
  EXPECT_EQ(faultsWith(Kind::unread, "since", "18446744074"),
            "since: found 18446744074, expected a number from 0 to 18446744073");
  EXPECT_EQ(faultsWith(Kind::unread, "since", "18446744073"), "");
}

TEST(SchemaTest, InterfaceNamesAreNonEmptyPlainStrings) {
  EXPECT_EQ(faultsWith(Kind::link, "intf", R"("")"), "intf: found \"\", expected an interface name");
  EXPECT_EQ(faultsWith(Kind::link, "intf", "7"), "intf: found 7, expected an interface name");
  EXPECT_EQ(faultsWith(Kind::reachability, "intf", R"("a\u0000b")"),
            "intf: found \"a\\x00b\", expected an interface name");
  EXPECT_EQ(faultsWith(Kind::reachability, "intf", "null"), "intf: found null, expected an interface name");
}

// A newer member's: the old state must not stand in its place.
TEST(SchemaTest, UnknownStatesAreUnrecognized_AndSaid) {
  constexpr const char* kExpected =
      ", expected \"unknown\", \"initializing\", \"reachable\", \"degraded\", \"unreachable\", \"disabled\", "
      "or 0 to 5";
  for (const char* state : {R"("flying")", "6", "255", R"("Reachable")"}) {
    auto json = nlohmann::json::parse(kGood.at(Kind::reachability));
    json["state"] = nlohmann::json::parse(state);
    Runtime::JsonNotes notes;
    auto value = specOf(Kind::reachability).decode(json, notes);
    ASSERT_TRUE(value) << state;
    EXPECT_EQ(value->get<Reachability>().state, Trel::ReachabilityState::unrecognized);
    EXPECT_EQ(encode(*value)["state"], "unrecognized");
    EXPECT_EQ(rendered(notes.warnings),
              fmt::format("state: found {}{}; it is served as \"unrecognized\"", state, kExpected));
    EXPECT_EQ(rendered(notes.faults), "");
  }
  Reachability again = decoded<Reachability>(
      Kind::reachability, R"({"state": "unrecognized", "intf": "Backplane1/2", "lastChange": 9})");
  EXPECT_EQ(again.state, Trel::ReachabilityState::unrecognized);
  for (const char* state : {"-1", "256", "1.5", R"("")", R"("a\u0007")", "null"}) {
    EXPECT_THAT(faultsWith(Kind::reachability, "state", state), testing::HasSubstr(kExpected)) << state;
  }
}

TEST(SchemaTest, UnreadIsWhatFailsOrHangs_WithAShortError) {
  EXPECT_EQ(faultsWith(Kind::unread, "state", R"("works")"),
            "state: found \"works\", expected \"fails\", \"hangs\", or 0 to 1");
  EXPECT_EQ(faultsWith(Kind::unread, "error", R"("a\nb")"),
            "error: found \"a\\x0ab\", expected a string of at most 255 bytes without control characters");
  std::string longest(255, 'x');
  EXPECT_EQ(faultsWith(Kind::unread, "error", '"' + longest + '"'), "");
  EXPECT_NE(faultsWith(Kind::unread, "error", '"' + longest + "x\""), "");
}

TEST(SchemaTest, MappingsNeedAnObjectIdentifierAndAShortDescription) {
  EXPECT_EQ(faultsWith(Kind::mountMapping, "type", R"("hrStorageRam")"),
            "type: found \"hrStorageRam\", expected a dotted object identifier");
  EXPECT_EQ(faultsWith(Kind::mountMapping, "type", R"("")"),
            "type: found \"\", expected a dotted object identifier");
  std::string longText(256, 'x');
  EXPECT_THAT(faultsWith(Kind::memoryMapping, "description", '"' + longText + '"'),
              testing::EndsWith("expected a string of at most 255 bytes without control characters"));
  EXPECT_EQ(faultsWith(Kind::memoryMapping, "description", '"' + longText.substr(1) + '"'), "");
  EXPECT_EQ(faultsWith(Kind::memoryMapping, "description", R"("")"), "");
}

// They would reach terminals by way of whoever shows the table.
TEST(SchemaTest, ControlCharactersInADescription_AreRefused) {
  for (const char* control :
       {R"(\u0000)", R"(\u001b)", R"(\n)", R"(\u007f)", R"(\u009b)", R"(\u202e)", R"(\u2066)"}) {
    std::string found = faultsWith(Kind::mountMapping, "description", std::string("\"a") + control + "b\"");
    EXPECT_THAT(found, testing::StartsWith("description: found \"a\\")) << control;
  }
  EXPECT_EQ(faultsWith(Kind::mountMapping, "description", R"("größe /a\\b")"), "");
}

TEST(SchemaTest, SysnameIsAPlainShortString) {
  constexpr const char* kExpected = ", expected a string of 1 to 255 bytes without control characters";
  EXPECT_EQ(faults(Kind::sysname, "7"), std::string("found 7") + kExpected);
  EXPECT_EQ(faults(Kind::sysname, R"("")"), std::string("found \"\"") + kExpected);
  EXPECT_EQ(faults(Kind::sysname, R"("a\nb")"), std::string("found \"a\\x0ab\"") + kExpected);
  EXPECT_THAT(faults(Kind::sysname, '"' + std::string(256, 'x') + '"'), testing::HasSubstr("xxx...\""));
}

TEST(SchemaTest, MissingMembersAreNamed_OptionalOnesAreNot) {
  EXPECT_EQ(faults(Kind::interface, "{}"), std::string("ifIndex: found nothing, ") + kU32);
  EXPECT_EQ(faults(Kind::reachability, R"({"state": 1})"), std::string("lastChange: found nothing, ") + kU64);
  EXPECT_EQ(faults(Kind::memory, "{}"), "");
  for (const auto& [kind, good] : kGood) {
    auto object = nlohmann::json::parse(good);
    for (const auto& [member, value] : object.items()) {
      auto without = object;
      without.erase(member);
      bool optional =
          kind == Kind::memory || kind == Kind::expected || (kind == Kind::reachability && member == "intf");
      EXPECT_EQ(faults(kind, without.dump()).empty(), optional) << good << " without " << member;
    }
  }
}

TEST(SchemaTest, NoObject_OneFaultForTheWhole) {
  for (const auto& [kind, good] : kGood) {
    EXPECT_EQ(faults(kind, "7"), "found 7, expected an object");
    EXPECT_EQ(faults(kind, "null"), "found null, expected an object");
    EXPECT_EQ(faults(kind, "[1]"), "found an array, expected an object");
  }
}

TEST(SchemaTest, UnknownMembersWarnAndAreIgnored) {
  Runtime::JsonNotes notes;
  auto value =
      specOf(Kind::processor).decode(nlohmann::json::parse(R"({"load": 1, "colour": "red"})"), notes);
  EXPECT_TRUE(value);
  EXPECT_EQ(rendered(notes.warnings), "colour: unknown member, ignored");
}

TEST(SchemaTest, EveryFaultOfAValueIsNamed) {
  EXPECT_EQ(faults(Kind::storage, R"({"allocationUnits": "x", "size": -1})"),
            std::string("allocationUnits: found \"x\", ") + kU32 + "; size: found -1, " + kU64 +
                "; free: found nothing, " + kU64);
}

TEST(SchemaTest, EncodedValuesDecodeToThemselves) {
  for (const auto& [kind, good] : kGood) {
    Runtime::JsonNotes notes;
    auto value = specOf(kind).decode(nlohmann::json::parse(good), notes);
    ASSERT_TRUE(value);
    EXPECT_EQ(encode(*value), nlohmann::json::parse(good));
    EXPECT_EQ(specOf(kind).decode(nlohmann::json::parse(encode(*value).dump()), notes), value) << good;
    EXPECT_EQ(rendered(notes.warnings), "");
  }
  EXPECT_EQ(encode(std::string("alpha")).dump(), R"("alpha")");
  EXPECT_EQ(encode(Present{}).dump(), "{}");
}

TEST(SchemaTest, WhatIsAbsentIsNotEncoded_NoDigitIsLost) {
  EXPECT_EQ(encode(Memory{}).dump(), "{}");
  Memory some;
  some.available = 3;
  EXPECT_EQ(encode(some).dump(), R"({"available":3})");
  Reachability alone{Trel::ReachabilityState::disabled, std::nullopt, std::numeric_limits<uint64_t>::max()};
  EXPECT_EQ(encode(alone).dump(), R"({"lastChange":18446744073709551615,"state":"disabled"})");
  System system{1767225601.123456, 0.1, 1, 2, 3};
  Runtime::JsonNotes notes;
  EXPECT_EQ(specOf(Kind::system).decode(nlohmann::json::parse(encode(system).dump()), notes), Value(system));
}

// The kind's path, with something good at each variable segment.
std::vector<std::string> segmentsOf(const KindSpec& spec) {
  std::vector<std::string> segments;
  std::string path(spec.path);
  for (size_t at = 0; at <= path.size();) {
    size_t slash = std::min(path.find('/', at), path.size());
    std::string segment = path.substr(at, slash - at);
    segments.push_back(segment.starts_with('<') ? "7" : segment);
    at = slash + 1;
  }
  return segments;
}

TEST(SchemaTest, EveryKindHasAPlaceOfItsOwn) {
  uint8_t next = 0;
  for (const KindSpec& spec : allKinds()) {
    EXPECT_EQ(static_cast<uint8_t>(spec.kind), next++) << spec.path << ": out of order";
    std::vector<std::string> segments = segmentsOf(spec);
    Position position = positionOf(segments);
    EXPECT_EQ(position.what, spec.container() ? Position::What::container : Position::What::leaf)
        << spec.path;
    EXPECT_EQ(position.path.kind, spec.kind) << spec.path;
    EXPECT_EQ(position.path.segments(), segments);
    Walk way = walk(segments);
    EXPECT_EQ(way.depth, segments.size());
    EXPECT_EQ(way.position.path, position.path);
    EXPECT_EQ(spec.entity == MemberEntity::none, !spec.path.starts_with("members/")) << spec.path;
  }
}

TEST(SchemaTest, WalkEndsWhereThePathDoes) {
  auto depth = [](std::vector<std::string> segments) { return walk(segments).depth; };
  EXPECT_EQ(walk({}).position.what, Position::What::interior);
  EXPECT_EQ(depth({"members", "1"}), 2u);
  EXPECT_EQ(depth({"colour", "red", "1"}), 1u);
  EXPECT_EQ(depth({"members", "300", "system"}), 2u);
  EXPECT_EQ(depth({"members", "1", "system", "uptime"}), 3u) << "within a value";
}

std::string ownerText(Owner owner) {
  switch (owner) {
    case Owner::cluster:
      return "the operator";
    case Owner::firstMember:
      return "the member that is the first";
    case Owner::member:
      break;
  }
  return "the member";
}

// The tables of the document, as the schema has them.
std::string tablesOfTheSchema() {
  std::string text = "| path | published by | meaning |\n|---|---|---|\n";
  for (const KindSpec& spec : allKinds()) {
    text += fmt::format("| `{}` | {} | {} |\n", spec.path, ownerText(spec.owner), spec.meaning);
  }
  text += "\n| path | field | value | meaning |\n|---|---|---|---|\n";
  for (const KindSpec& spec : allKinds()) {
    if (spec.container()) continue;
    for (const FieldSpec& field : spec.fields()) {
      text += fmt::format("| `{}` | {} | {} | {}{} |\n", spec.path,
                          field.name.empty() ? "" : "`" + field.name + "`", field.type, field.meaning,
                          field.optional ? "; may be left out" : "");
    }
  }
  return text;
}

TEST(SchemaTest, TablesOfTheDocument_AreTheSchema) {
  EXPECT_NE(Support::readFile(TREL_DOCS "/state.md").find(tablesOfTheSchema()), std::string::npos)
      << "docs/state.md is to have these tables:\n"
      << tablesOfTheSchema();
}

}  // namespace
}  // namespace Kelstore
