// Limits: their names and defaults, and what is used of documents that exceed them.
#include "kelstore/Limits.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "kelstore/Document.h"
#include "runtime/Errors.h"
#include "tests/support/TempDir.h"

namespace Kelstore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string fault(const std::string& text) {
  Limits limits;
  return Runtime::textOf(limitsAre(text, limits));
}

TEST(LimitsTest, AreSetByName) {
  Limits limits;
  EXPECT_TRUE(limitsAre("rows=7", limits).ok());
  EXPECT_EQ(limits.rows, 7u);
  EXPECT_EQ(limits.values, Limits().values);
  EXPECT_TRUE(limitsAre("values=8,key-bytes=1,rows=1073741824", limits).ok());
  EXPECT_EQ(limits.values, 8u);
  EXPECT_EQ(limits.keyBytes, 1u);
  EXPECT_EQ(limits.rows, 1073741824u);
}

TEST(LimitsTest, AnythingElse_OneLineThatSaysWhatIsExpected) {
  constexpr const char* kNames =
      "expected one of document-bytes, key-bytes, value-bytes, rows, cluster-rows, values, remembered";
  EXPECT_EQ(fault("lines=7"), std::string("found \"lines\", ") + kNames);
  EXPECT_EQ(fault(""), std::string("found \"\", ") + kNames);
  EXPECT_EQ(fault("rows=1,"), std::string("found \"\", ") + kNames);
  for (const char* bad : {"rows", "rows=", "rows=0", "rows=1073741825", "rows=-1", "rows=1x", "rows= 1",
                          "rows=99999999999999999999"}) {
    EXPECT_EQ(fault(bad),
              fmt::format("found \"{}\", expected rows=NUMBER with a number from 1 to 1073741824", bad));
  }
}

TEST(LimitsTest, TableOfTheDocument_HasThem) {
  std::string table = "| limit | default | of what |\n|---|---|---|\n";
  Limits limits;
  for (const LimitSpec& spec : allLimits()) {
    table += fmt::format("| `{}` | {} | {} |\n", spec.name, limits.*spec.limit, spec.meaning);
  }
  EXPECT_NE(Support::readFile(TREL_DOCS "/state.md").find(table), std::string::npos)
      << "docs/state.md is to have this table:\n"
      << table;
}

// Processors of one member, numbered from 1.
std::string processors(int member, int count) {
  std::string text = fmt::format(R"("{}": {{"processors": {{)", member);
  for (int i = 1; i <= count; ++i) text += fmt::format("{}\"{}\": {{\"load\": 1}}", i == 1 ? "" : ", ", i);
  return text + "}}";
}

std::vector<std::string> surplusOf(const Document& document) {
  std::vector<std::string> texts;
  for (const Document::Surplus& one : document.surplus) {
    texts.push_back(fmt::format("{}: {}", one.values, one.text));
  }
  return texts;
}

TEST(LimitsTest, TooManyRowsOfOneMember_AreLeftOut_AndThoseOfOthersCount) {
  Limits limits;
  limits.rows = 3;
  Document document = parseDocument(
      "{\"members\": {" + processors(1, 3) + "," + processors(2, 10) + "," + processors(3, 3) + "}}", limits);
  EXPECT_FALSE(document.unusable);
  EXPECT_THAT(document.faults, IsEmpty());
  EXPECT_THAT(surplusOf(document),
              ElementsAre("7: members/2/processors: 7 left out, as there are more than 3"));
  EXPECT_EQ(document.values.size(), 3 * 4u);
  Snapshot all(std::move(document.values));
  EXPECT_NE(all.find({Kind::processor, "2", "3"}), nullptr);
  EXPECT_EQ(all.find({Kind::processor, "2", "4"}), nullptr);
  EXPECT_NE(all.find({Kind::processor, "3", "3"}), nullptr);
}

TEST(LimitsTest, WhatIsTheWholeClusters_HasALimitOfItsOwn) {
  Limits limits;
  limits.rows = 1;
  limits.clusterRows = 2;
  Document document = parseDocument(
      R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 2}, "c": {"ifIndex": 3}, "a": {"ifIndex": 4}}})",
      limits);
  EXPECT_THAT(surplusOf(document), ElementsAre("1: interfaces: 1 left out, as there are more than 2"));
  EXPECT_EQ(document.faults.front().text, "interfaces/a: found twice, expected once");
}

TEST(LimitsTest, TooManyValuesInAll_TheRestIsLeftOut) {
  Limits limits;
  limits.values = 5;
  Document document =
      parseDocument("{\"members\": {" + processors(1, 3) + "," + processors(2, 3) + "}}", limits);
  EXPECT_EQ(document.values.size(), 5u);
  EXPECT_THAT(surplusOf(document),
              ElementsAre("3: members/2/processors: 3 left out, as there are more than 5"));
}

TEST(LimitsTest, MoreIsWrongThanIsRemembered_NothingIsTaken) {
  Limits limits;
  limits.remembered = 2;
  std::string text = R"({"interfaces": {"a": 1, "b": 2, "c": {"ifIndex": 3}}})";
  EXPECT_FALSE(parseDocument(text, limits).unusable);
  limits.remembered = 1;
  Document document = parseDocument(text, limits);
  EXPECT_EQ(document.unusable,
            ": found more than 1 values that cannot be used, the first is interfaces/a: found 1, expected an "
            "object");
  EXPECT_THAT(document.values, IsEmpty());
  EXPECT_THAT(document.faults, IsEmpty());
}

TEST(LimitsTest, WarningsBeyondThose_AreNotKept) {
  Limits limits;
  limits.remembered = 2;
  EXPECT_THAT(parseDocument(R"({"a": 1, "b": 1, "c": 1, "sysname": "x"})", limits).warnings,
              ElementsAre("a: unknown member, ignored", "b: unknown member, ignored"));
}

}  // namespace
}  // namespace Kelstore
