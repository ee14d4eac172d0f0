// The packed forms: what they give, alone and beside the values' own paths.
#include "kelstore/Packed.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tests/support/Random.h"

namespace Kelstore {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAreArray;

const Path kFigures{Kind::figures, "1", ""};
const Path kSystem{Kind::system, "1", ""};
const Path kMemory{Kind::memory, "1", ""};
const std::string kHead =
    R"("bootTime": 100.5, "clock": 1000.75, "users": 3, "processes": 4, "memorySize": 5)";

Path processor(const std::string& index) { return {Kind::processor, "1", index}; }
Path storage(const std::string& mountPoint) { return {Kind::storage, "1", mountPoint}; }

std::vector<std::string> faultsOf(const Document& document) {
  std::vector<std::string> texts;
  for (const auto& fault : document.faults) texts.push_back(fault.text);
  return texts;
}

std::string figures(const std::string& more) { return "{" + kHead + more + "}"; }

TEST(PackedTest, Figures_AreSystemMemoryAndProcessors) {
  Document document =
      parseValue(kFigures, figures(R"(, "memory": {"total": 9}, "loads": {"1": 50, "2": -1})"));
  EXPECT_THAT(faultsOf(document), IsEmpty());
  EXPECT_THAT(document.warnings, IsEmpty());
  Memory memory;
  memory.total = 9;
  EXPECT_THAT(document.values,
              ElementsAre(Snapshot::Entry(kSystem, System{900.25, 1000.75, 3, 4, 5}),
                          Snapshot::Entry(kMemory, memory), Snapshot::Entry(processor("1"), Processor{50}),
                          Snapshot::Entry(processor("2"), Processor{-1})));
}

TEST(PackedTest, BootTimeIsNotKnown_NeitherIsUptime) {
  Document document = parseValue(kFigures, R"({"clock": 7, "users": 0, "processes": 0, "memorySize": 0})");
  EXPECT_THAT(document.values, ElementsAre(Snapshot::Entry(kSystem, System{0, 7, 0, 0, 0})));
}

TEST(PackedTest, Filesystems_AreStorage) {
  Document document = parseValue({Kind::filesystems, "1", ""},
                                 R"({"/var/log": {"allocationUnits": 1, "size": 2, "free": 3}})");
  EXPECT_THAT(document.values, ElementsAre(Snapshot::Entry(storage("/var/log"), Storage{1, 2, 3})));
}

std::vector<Snapshot::Entry> randomEntries(Support::Random& random) {
  std::vector<Snapshot::Entry> entries;
  auto u32 = [&random] { return static_cast<uint32_t>(random.any()); };
  for (const char* member : {"0", "1", "255"}) {
    if (random.percent(20)) continue;
    double clock = random.below(2'000'000'000) + random.below(1000) / 1000.0;
    entries.push_back({{Kind::system, member, ""},
                       System{static_cast<double>(random.below(1'000'000)), clock, u32(), u32(), u32()}});
    if (random.percent(80)) {
      Memory memory;
      memory.total = u32();
      if (random.percent(50)) memory.available = u32();
      entries.push_back({{Kind::memory, member, ""}, memory});
    }
    for (uint32_t i = 1 + random.below(5); i > 1; --i) {
      entries.push_back({{Kind::processor, member, std::to_string(random.any() % 1000 * 10 + i)},
                         Processor{static_cast<int16_t>(random.any())}});
    }
    for (uint32_t i = random.below(5); i > 0; --i) {
      entries.push_back({{Kind::storage, member, "/\"\\ \xc3\xa4" + std::to_string(i)},
                         Storage{u32(), random.any(), random.any()}});
    }
  }
  return entries;
}

TEST(PackedTest, RandomValues_ComeBackAsTheyWere) {
  for (uint64_t seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(seed);
    Support::Random random(seed);
    std::vector<Snapshot::Entry> entries = randomEntries(random);
    size_t most = random.from(300, 1500);
    std::vector<Snapshot::Entry> back;
    for (const auto& [path, text] : packed(entries, most)) {
      EXPECT_LE(text.size(), most);
      Document document = parseValue(path, text);
      EXPECT_THAT(faultsOf(document), IsEmpty());
      std::move(document.values.begin(), document.values.end(), std::back_inserter(back));
    }
    EXPECT_THAT(back, UnorderedElementsAreArray(entries));
  }
}

TEST(PackedTest, RandomDamage_IsAFaultOrNone_AndGivesNothingElse) {
  for (uint64_t seed = 0; seed < 3000; ++seed) {
    Support::Random random(seed);
    for (auto& [path, text] : packed(randomEntries(random), 4096)) {
      std::string damaged = text;
      for (uint32_t i = 1 + random.below(3); i > 0; --i) {
        size_t at = random.below(static_cast<uint32_t>(damaged.size()));
        static const std::string kBytes = "{}[]\",:0-9e.ntf\\\x01\xff";
        if (random.percent(50)) {
          damaged[at] = random.of(kBytes);
        } else {
          damaged.erase(at, 1 + random.below(20));
        }
        if (damaged.empty()) break;
      }
      Document document = parseValue(path, damaged);
      for (const auto& [given, value] : document.values) {
        ASSERT_TRUE(packedFormOf(given) == path) << given.text() << " from " << damaged;
      }
    }
  }
}

struct Wrong {
  std::string text;
  std::string fault;
  std::vector<Path> affected;
  size_t good;  // values that can be used
};

TEST(PackedTest, WrongPart_IsNamed_AndTheOthersCanBeUsed) {
  const std::vector<Path> kAll = {kSystem, kMemory, processor("1"), processor("2")};
  const std::vector<Wrong> all = {
      {"3", "members/1/figures: found 3, expected an object", kAll, 0},
      {"[{}]", "members/1/figures: found an array, expected an object", kAll, 0},
      {R"({"clock": 1, "processes": 1, "memorySize": 1, "loads": {"1": 1}})",
       "members/1/figures/users: found nothing, expected an integer from 0 to 4294967295",
       {kSystem},
       1},
      {figures(R"(, "memory": 3)"), "members/1/figures/memory: found 3, expected an object", {kMemory}, 1},
      {figures(R"(, "memory": {"free": -1}, "loads": {"1": 1})"),
       "members/1/figures/memory/free: found -1, expected an integer from 0 to 4294967295",
       {kMemory},
       2},
      {figures(R"(, "loads": {"1": 1, "2": 70000})"),
       "members/1/figures/loads/2: found 70000, expected an integer from -32768 to 32767",
       {processor("2")},
       2},
      {figures(R"(, "loads": {"1": {"load": 1}})"),
       "members/1/figures/loads/1: found an object, expected an integer from -32768 to 32767",
       {processor("1")},
       1},
      {figures(R"(, "loads": {"01": 1, "2": 1})"),
       R"(members/1/figures/loads/01: found "01", expected a number from 0 to 4294967295)",
       {},
       2},
      {figures(R"(, "loads": [1])"),
       "members/1/figures/loads: found an array, expected an object",
       {processor("1"), processor("2")},
       1},
      {figures(R"(, "loads": {"1": 1, "1": 2})"), "members/1/figures/loads/1: found twice, expected once",
       kAll, 0},
      {R"({"bootTime": 2, "clock": 1, "users": 1, "processes": 1, "memorySize": 1})",
       "members/1/figures/bootTime: found 2, expected at most the clock, 1",
       {kSystem},
       0},
  };
  for (const Wrong& one : all) {
    SCOPED_TRACE(one.text);
    Document document = parseValue(kFigures, one.text);
    EXPECT_THAT(faultsOf(document), ElementsAre(one.fault));
    EXPECT_THAT(document.values, SizeIs(one.good));
    FaultyPlaces faulty(document);
    for (const Path& path : kAll) {
      bool affected = std::find(one.affected.begin(), one.affected.end(), path) != one.affected.end();
      EXPECT_EQ(faulty.affect(path), affected) << path.text();
    }
    EXPECT_FALSE(faulty.affect(storage("/")));
    EXPECT_FALSE(faulty.affect({Kind::system, "2", ""}));
  }
}

TEST(PackedTest, DocumentInEitherForm_IsTheSame) {
  std::string own = R"({"members": {"1": {
      "system": {"uptime": 900.25, "currentTimeUtc": 1000.75, "users": 3, "processes": 4, "memorySize": 5},
      "processors": {"2": {"load": 7}}, "storage": {"/": {"allocationUnits": 1, "size": 2, "free": 1}}}}})";
  std::string packed = R"({"members": {"1": {"figures": )" + figures(R"(, "loads": {"2": 7})") +
                       R"(, "filesystems": {"/": {"allocationUnits": 1, "size": 2, "free": 1}}}}})";
  Document first = parseDocument(own);
  std::erase_if(first.values, [](const auto& entry) { return entry.second.template is<Present>(); });
  EXPECT_THAT(parseDocument(packed).values, UnorderedElementsAreArray(first.values));
}

TEST(PackedTest, BothFormsInADocument_ThePackedOneCounts_WithAWarning) {
  for (bool packedFirst : {true, false}) {
    std::string load = R"("processors": {"1": {"load": 1}, "3": {"load": 3}})";
    std::string form = R"("figures": )" + figures(R"(, "loads": {"1": 7})");
    Document document = parseDocument(R"({"members": {"1": {)" + (packedFirst ? form : load) + ", " +
                                      (packedFirst ? load : form) + "}}}");
    EXPECT_THAT(document.warnings,
                ElementsAre("members/1/processors/1: found in members/1/figures too, which counts"));
    Snapshot snapshot(std::move(document.values));
    EXPECT_EQ(*snapshot.find(processor("1")), Value(Processor{7}));
    EXPECT_EQ(*snapshot.find(processor("3")), Value(Processor{3}));
  }
}

TEST(PackedTest, WrongPartInADocument_ThatPathStaysAsItWas) {
  auto document = [](const std::string& loads) {
    return parseDocument(R"({"members": {"1": {"figures": )" + figures(R"(, "loads": )" + loads) + "}}}");
  };
  Snapshot before = withLastGood(document(R"({"1": 1, "2": 2, "3": 3})"), {});
  Snapshot after = withLastGood(document(R"({"1": "x", "2": 20})"), before);
  EXPECT_EQ(*after.find(processor("1")), Value(Processor{1}));
  EXPECT_EQ(*after.find(processor("2")), Value(Processor{20}));
  EXPECT_EQ(after.find(processor("3")), nullptr) << "it is not there any more";
  Snapshot unusable = withLastGood(parseDocument(R"({"members": {"1": {"figures": 3}}})"), before);
  EXPECT_THAT(differences(before, unusable), IsEmpty());
}

TEST(PackedTest, MoreThanTheLimits_IsLeftOut) {
  Limits limits;
  limits.rows = 2;
  Document document = parseValue(kFigures, figures(R"(, "loads": {"1": 1, "2": 2, "3": 3, "4": 4})"), limits);
  EXPECT_EQ(document.values.size(), 3u);
  ASSERT_THAT(document.surplus, SizeIs(1));
  EXPECT_EQ(document.surplus[0].text, "members/1/figures/loads: 2 left out, as there are more than 2");
  limits.rows = 10;
  limits.values = 2;
  document = parseValue(kFigures, figures(R"(, "loads": {"1": 1, "2": 2, "3": 3, "4": 4})"), limits);
  EXPECT_EQ(document.values.size(), 2u);
  EXPECT_EQ(document.surplus.at(0).text, "members/1/figures: 3 left out, as there are more than 2");
}

TEST(PackedTest, WhatMakesAFormTooLarge_HasItsOwnKeys) {
  std::vector<Snapshot::Entry> entries = {{kSystem, System{1, 2, 3, 4, 5}}};
  for (int i = 1000; i < 2000; ++i) entries.push_back({processor(std::to_string(i)), Processor{100}});
  auto texts = packed(entries, 4096);
  EXPECT_LE(texts.at(kFigures).size(), 4096u);
  EXPECT_FALSE(texts.contains(processor("1000")));
  EXPECT_EQ(texts.at(processor("1999")), R"({"load":100})");
  size_t inFigures = nlohmann::json::parse(texts.at(kFigures)).at("loads").size();
  EXPECT_EQ(inFigures + texts.size() - 1, 1000u);
  for (auto& [path, value] : entries) {
    if (path.kind == Kind::processor) value = Processor{0};
  }
  auto idle = packed(entries, 4096);
  for (const auto& [path, text] : texts) EXPECT_TRUE(idle.contains(path)) << "it does not move with the load";
}

TEST(PackedTest, WithoutASystem_NothingIsPacked) {
  auto texts = packed({{processor("1"), Processor{1}}, {{Kind::processors, "1", ""}, Present()}}, 4096);
  EXPECT_THAT(texts, ElementsAre(testing::Pair(processor("1"), R"({"load":1})")));
}

TEST(PackedTest, LaterWithAnotherClock_UptimeGoesOnWithWhatHasPassed) {
  std::string text = packed({{kSystem, System{10, 1000, 3, 4, 5}}}, 4096).at(kFigures);
  auto later = [&text](double clock, double passed) {
    return parseValue(kFigures, withClock(text, clock, passed)).values;
  };
  EXPECT_THAT(later(1002.5, 2.5), ElementsAre(Snapshot::Entry(kSystem, System{12.5, 1002.5, 3, 4, 5})));
  EXPECT_THAT(later(4602.5, 2.5), ElementsAre(Snapshot::Entry(kSystem, System{12.5, 4602.5, 3, 4, 5})));
  EXPECT_THAT(later(3, 2.5), ElementsAre(Snapshot::Entry(kSystem, System{12.5, 3, 3, 4, 5})));
  text = packed({{kSystem, System{0, 1000, 3, 4, 5}}}, 4096).at(kFigures);
  EXPECT_THAT(later(1002.5, 2.5), ElementsAre(Snapshot::Entry(kSystem, System{0, 1002.5, 3, 4, 5})));
}

}  // namespace
}  // namespace Kelstore
