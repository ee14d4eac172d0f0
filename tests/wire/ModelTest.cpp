// The model and what it is written with, by examples worked out by hand; no daemon takes part.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/wire/Model.h"
#include "tests/wire/Requests.h"

namespace Wire {
namespace {

using nlohmann::json;

Oid oid(size_t table, const Oid& more) { return joined(tableShapes()[table].root, more); }

// Interfaces 5 and 7 join member 1 with members 2 and 3.
Model links() {
  json document = {
      {"interfaces", {{"Backplane1/1", {{"ifIndex", 5}}}, {"Backplane1/2", {{"ifIndex", 7}}}}},
      {"topology", {{"1", {{"2", {{"intf", "Backplane1/1"}}}, {"3", {{"intf", "Backplane1/2"}}}}}}}};
  return Model(treeOf(document, AgentClock()));
}

// What is answered to a request as the reader.
std::string answer(const Model& model, PduType type, const std::vector<Oid>& names, int64_t first = 0,
                   int64_t second = 0, Version version = Version::v2c) {
  Message request{version, kReader, {type, 9, first, second, {}}};
  for (const Oid& name : names) request.pdu.varbinds.push_back({name, {}});
  std::string lines = text(model.answerTo(request).value().pdu);
  std::string root = text(Oid(tableShapes()[0].root.begin(), tableShapes()[0].root.end() - 3));
  for (size_t at = 0; (at = lines.find(root, at)) != std::string::npos;) lines.erase(at, root.size());
  return lines;
}

TEST(Ber, NumbersAndNames_InTheShortestForm) {
  EXPECT_EQ(hex(integerContent(0)), "00");
  EXPECT_EQ(hex(integerContent(127)), "7f");
  EXPECT_EQ(hex(integerContent(128)), "0080");
  EXPECT_EQ(hex(integerContent(-128)), "80");
  EXPECT_EQ(hex(integerContent(-129)), "ff7f");
  EXPECT_EQ(hex(unsignedContent(4294967295)), "00ffffffff");
  EXPECT_EQ(hex(oidContent({1, 3, 6, 1, 127, 128, 4294967295})), "2b06017f81008fffffff7f");
  EXPECT_EQ(hex(oidContent({2, 999})), "8837");
  EXPECT_EQ(hex(tlv(Tag::octetString, Bytes(200, 'x')).substr(0, 3)), "0481c8");
  EXPECT_EQ(hex(lengthBytes(65536)), "83010000");
}

TEST(Ber, WhatIsWritten_IsReadBack) {
  for (int64_t number : {0L, 1L, -1L, 255L, -32769L, 2147483648L, INT64_MAX, INT64_MIN}) {
    EXPECT_EQ(integerOf(integerContent(number)), number);
  }
  for (const Oid& name : {Oid{0, 0}, Oid{0, 39}, Oid{1, 39}, Oid{2, 0}, Oid{2, 4294967215, 0, 4294967295}}) {
    EXPECT_EQ(oidOf(oidContent(name)), name);
  }
  Message message{Version::v1, "c", {PduType::getBulk, -5, 3, 4, {{{1, 3}, integerValue(-7)}, {{2, 5}, {}}}}};
  EXPECT_EQ(decode(encode(message)), message);
  EXPECT_EQ(requestIdOf(encode(message)), -5);
}

TEST(Ber, WhatIsNotWhole_IsRefused) {
  Bytes whole = encode(Message{Version::v2c, "c", {PduType::get, 1, 0, 0, {{{1, 3}, {}}}}});
  for (size_t length = 0; length < whole.size(); ++length) {
    EXPECT_THROW(decode(whole.substr(0, length)), Malformed) << length;
  }
  EXPECT_THROW(decode(whole + whole), Malformed);
  EXPECT_THROW(oidOf("\x81"), Malformed);
  EXPECT_THROW(oidOf("\x2b\x90\x80\x80\x80\x01"), Malformed);
}

TEST(Tables, EveryTable_HasTheRowsOfTheDocument) {
  json document = json::parse(R"({
    "interfaces": {"Backplane1": {"ifIndex": 4294967295}, "Ethernet1": {"ifIndex": 3}},
    "topology": {"1": {"2": {"intf": "Backplane1"}, "3": {"intf": "Ethernet1"}, "4": {"intf": "Backplane9"}}},
    "members": {"7": {
      "system": {"uptime": 1.5, "currentTimeUtc": 1767225601.25, "users": 1, "processes": 2, "memorySize": 4294967295},
      "processors": {"9": {"load": -1}},
      "storage": {"/": {"allocationUnits": 512, "size": 100, "free": 150}, "/unmapped": {"allocationUnits": 1, "size": 1, "free": 1}},
      "memory": {"total": 8000000, "available": 3000000},
      "reachability": {"8": {"state": "degraded", "intf": "Ethernet1", "lastChange": 2500000000}}}},
    "storageMappings": {
      "mounts": {"/": {"index": 31, "type": "1.3.6.1.4", "description": "root"}},
      "memory": {"1": {"index": 100, "type": "1.3.6.1.2", "description": ""}}}})");
  Pdu pdu{PduType::response, 0, 0, 0, {}};
  for (const auto& [name, value] : treeOf(document, AgentClock(1))) {
    pdu.varbinds.push_back({Oid(name.begin() + 8, name.end()), value});
  }
  EXPECT_EQ(text(pdu),
            "RESPONSE request-id=0 0 0\n"
            "  .40.1.1.1.2.4294967295 = INTEGER 1\n"
            "  .40.1.1.1.3.4294967295 = INTEGER 2\n"
            "  .40.1.2.1.3.7.8 = INTEGER 3\n"
            "  .40.1.2.1.4.7.8 = INTEGER 4\n"
            "  .40.1.2.1.5.7.8 = 43:0096\n"
            "  .41.1.1.1.2.7 = 43:0096\n"
            "  .41.1.1.1.3.7 = 04:07ea0101000001022b0000\n"
            "  .41.1.1.1.4.7 = 42:01\n"
            "  .41.1.1.1.5.7 = 42:02\n"
            "  .41.1.1.1.6.7 = INTEGER -1\n"
            "  .41.1.2.1.3.7.9 = INTEGER -1\n"
            "  .41.1.3.1.3.7.31 = 06:2b060104\n"
            "  .41.1.3.1.3.7.100 = 06:2b060102\n"
            "  .41.1.3.1.4.7.31 = 04:726f6f74\n"
            "  .41.1.3.1.4.7.100 = 04:\n"
            "  .41.1.3.1.5.7.31 = INTEGER 512\n"
            "  .41.1.3.1.5.7.100 = INTEGER 1024\n"
            "  .41.1.3.1.6.7.31 = INTEGER 100\n"
            "  .41.1.3.1.6.7.100 = INTEGER 8000000\n"
            "  .41.1.3.1.7.7.31 = INTEGER -50\n"
            "  .41.1.3.1.7.7.100 = INTEGER 5000000\n");
}

TEST(AgentClock, QuestionAnswered_TellsTheStart) {
  constexpr double kStart = 1767225600.1234;
  constexpr uint64_t kAround = 1'767'229'200'000'000'000;
  std::vector<uint32_t> ticks;
  json question = AgentClock::question(kAround);
  for (const json& report : question["members"]["1"]["reachability"]) {
    ticks.push_back(AgentClock(kStart).ticksAt(report["lastChange"]));
  }
  std::sort(ticks.begin(), ticks.end());
  AgentClock clock = AgentClock::answer(kAround, ticks);
  EXPECT_EQ(clock.ticksAt(1'767'225'601'000'000'000), 87u);
  EXPECT_TRUE(clock.knows(1'767'225'601'000'000'000));
  EXPECT_FALSE(clock.knows(1'767'225'601'003'400'000));
}

TEST(Model, Get_ValuesAndWhatIsMissing) {
  EXPECT_EQ(answer(links(), PduType::get,
                   {oid(0, {1, 3, 7}), oid(0, {1, 3, 6}), oid(0, {1, 1, 5}), oid(0, {}), {1, 3}}),
            "RESPONSE request-id=9 0 0\n"
            "  .40.1.1.1.3.7 = INTEGER 3\n"
            "  .40.1.1.1.3.6 = noSuchInstance\n"
            "  .40.1.1.1.1.5 = noSuchObject\n"
            "  .40.1.1 = noSuchObject\n"
            "  .1.3 = noSuchObject\n");
}

TEST(Model, GetNext_FromAnywhereToTheNextOrTheEnd) {
  EXPECT_EQ(answer(links(), PduType::getNext, {oid(0, {1, 3, 7}), oid(0, {1, 2, 5, 0}), {0, 0}}),
            "RESPONSE request-id=9 0 0\n"
            "  .40.1.1.1.3.7 = endOfMibView\n"
            "  .40.1.1.1.2.7 = INTEGER 1\n"
            "  .40.1.1.1.2.5 = INTEGER 1\n");
}

TEST(Model, GetBulk_NonRepeatersThenRowsUntilAllHaveEnded) {
  EXPECT_EQ(answer(links(), PduType::getBulk, {{1, 3}, oid(0, {1, 2, 7}), oid(0, {1, 3, 5})}, 1, 10),
            "RESPONSE request-id=9 0 0\n"
            "  .40.1.1.1.2.5 = INTEGER 1\n"
            "  .40.1.1.1.3.5 = INTEGER 2\n"
            "  .40.1.1.1.3.7 = INTEGER 3\n"
            "  .40.1.1.1.3.7 = INTEGER 3\n"
            "  .40.1.1.1.3.7 = endOfMibView\n"
            "  .40.1.1.1.3.7 = endOfMibView\n"
            "  .40.1.1.1.3.7 = endOfMibView\n");
}

TEST(Model, GetBulkOutOfRange_IsWithinIt) {
  EXPECT_EQ(answer(links(), PduType::getBulk, {oid(0, {1, 3})}, -1, -1), "RESPONSE request-id=9 0 0\n");
  EXPECT_EQ(answer(links(), PduType::getBulk, {oid(0, {1, 3})}, 2147483647, 5),
            "RESPONSE request-id=9 0 0\n  .40.1.1.1.3.5 = INTEGER 2\n");
}

TEST(Model, V1_ExceptionsFailTheRequest) {
  EXPECT_EQ(answer(links(), PduType::get, {oid(0, {1, 3, 6}), oid(0, {1, 3, 7})}, 0, 0, Version::v1),
            "RESPONSE request-id=9 2 1\n  .40.1.1.1.3.6 = NULL\n  .40.1.1.1.3.7 = NULL\n");
}

TEST(Model, Set_IsRefusedWhereverItGoes) {
  auto status = [](const Oid& name, const Value& value, const char* community = kWriter) {
    Message request{Version::v2c, community, {PduType::set, 1, 0, 0, {{name, value}}}};
    return static_cast<ErrorStatus>(links().answerTo(request).value().pdu.first);
  };
  EXPECT_EQ(status(oid(0, {1, 3, 7}), integerValue(1)), ErrorStatus::notWritable);
  EXPECT_EQ(status(oid(2, {1, 3, 7}), integerValue(1)), ErrorStatus::notWritable);
  EXPECT_EQ(status(oid(2, {1, 3, 7, 7}), integerValue(1)), ErrorStatus::noCreation);
  EXPECT_EQ(status(oid(2, {1, 3, 7}), Value{}), ErrorStatus::wrongType);
  EXPECT_EQ(status({1, 3}, integerValue(1)), ErrorStatus::noAccess);
  EXPECT_EQ(status(oid(0, {1, 3, 7}), integerValue(1), kReader), ErrorStatus::noAccess);
}

TEST(Model, WhatCannotBeRead_IsNotAnswered) {
  auto isAnswered = [](const Bytes& community, const Varbind& varbind) {
    return links().answerTo({Version::v2c, community, {PduType::get, 1, 0, 0, {varbind}}}).has_value();
  };
  EXPECT_TRUE(isAnswered(kReader, {Oid(128, 1), {}}));
  EXPECT_FALSE(isAnswered(kReader, {Oid(129, 1), {}}));
  EXPECT_FALSE(isAnswered(kReader, {{1, 3}, {0x01, "\x01"}}));
  EXPECT_FALSE(isAnswered("stranger", {{1, 3}, {}}));
}

}  // namespace
}  // namespace Wire
