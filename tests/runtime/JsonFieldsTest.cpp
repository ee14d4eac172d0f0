// Members of JSON objects: what is taken, and what is noted of anything else.
#include "runtime/JsonFields.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

namespace Runtime {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class JsonFieldsTest : public testing::Test {
 protected:
  static std::vector<std::string> texts(const std::vector<JsonNote>& notes) {
    std::vector<std::string> all;
    for (const auto& [where, text] : notes) all.push_back(where + ": " + text);
    return all;
  }
  std::vector<std::string> faults() const { return texts(notes_.faults); }
  std::vector<std::string> warnings() const { return texts(notes_.warnings); }

  JsonNotes notes_;
};

TEST_F(JsonFieldsTest, GoodMembers_AreTaken_OthersLeaveTheirTarget) {
  auto json = nlohmann::json::parse(R"({"a": 5, "b": -1, "c": 0.5, "d": true, "e": "x"})");
  JsonFields fields(json, notes_);
  uint8_t a = 0;
  int64_t b = 0;
  double c = 0;
  bool d = false;
  std::string e;
  int untouched = 77;
  EXPECT_TRUE(fields.required("a", JsonInteger<uint8_t>(), a));
  EXPECT_TRUE(fields.required("b", JsonInteger<int64_t>(), b));
  EXPECT_TRUE(fields.optional("c", JsonNumber{0, 1}, c));
  EXPECT_TRUE(fields.optional("d", JsonBoolean(), d));
  EXPECT_TRUE(fields.optional("e", JsonText{"a text", [](const std::string&) { return true; }}, e));
  EXPECT_FALSE(fields.optional("f", JsonInteger<int>(), untouched));
  EXPECT_FALSE(fields.required("g", JsonInteger<int>{1, 2}, untouched));
  fields.done();
  EXPECT_EQ(a, 5);
  EXPECT_EQ(b, -1);
  EXPECT_EQ(c, 0.5);
  EXPECT_TRUE(d);
  EXPECT_EQ(e, "x");
  EXPECT_EQ(untouched, 77);
  EXPECT_THAT(faults(), ElementsAre("g: found nothing, expected an integer from 1 to 2"));
  EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(JsonFieldsTest, RangesOfNumbers) {
  auto json = nlohmann::json::parse(
      R"({"a": 256, "b": -1, "c": 1.5, "d": 3, "e": 18446744073709551615, "f": 1.1, "g": "1"})");
  JsonFields fields(json, notes_);
  uint8_t small = 9;
  uint64_t large = 0;
  double number = 9;
  fields.required("a", JsonInteger<uint8_t>(), small);
  fields.required("b", JsonInteger<uint8_t>(), small);
  fields.required("c", JsonInteger<uint8_t>(), small);
  fields.required("d", JsonInteger<uint8_t>{1, 2}, small);
  EXPECT_TRUE(fields.required("e", JsonInteger<uint64_t>(), large));
  fields.required("f", JsonNumber{0, 1}, number);
  fields.required("g", JsonNumber{0, 1}, number);
  EXPECT_THAT(faults(), ElementsAre("a: found 256, expected an integer from 0 to 255",
                                    "b: found -1, expected an integer from 0 to 255",
                                    "c: found 1.5, expected an integer from 0 to 255",
                                    "d: found 3, expected an integer from 1 to 2",
                                    "f: found 1.1, expected a number from 0 to 1",
                                    "g: found \"1\", expected a number from 0 to 1"));
  EXPECT_EQ(small, 9);
  EXPECT_EQ(number, 9);
  EXPECT_EQ(large, std::numeric_limits<uint64_t>::max());
}

TEST_F(JsonFieldsTest, ObjectsWithinObjects_AreNamedByTheirPlace) {
  auto json = nlohmann::json::parse(R"({"a": {"b": {"c": 7, "x": 1}}, "d": 5, "list": {}, "": 1})");
  JsonFields fields(json, notes_, "top[1]");
  std::string text;
  fields.object("a", [&](JsonFields& a) {
    a.object("b", [&](JsonFields& b) {
      b.required("c", JsonText{"a text", [](const std::string&) { return true; }}, text);
    });
  });
  fields.object("d", [](JsonFields& d) { EXPECT_FALSE(d.isObject()); });
  fields.object("none", [](JsonFields&) { FAIL(); });
  EXPECT_EQ(fields.array("list"), nullptr);
  fields.done();
  EXPECT_THAT(faults(),
              ElementsAre("top[1]/a/b/c: found 7, expected a text", "top[1]/d: found 5, expected an object",
                          "top[1]/list: found an object, expected an array"));
  EXPECT_THAT(warnings(),
              ElementsAre("top[1]/a/b/x: unknown member, ignored", "top[1]/\"\": unknown member, ignored"));
}

TEST_F(JsonFieldsTest, NoObject_OneFault) {
  nlohmann::json json = "x";
  JsonFields fields(json, notes_);
  int target = 0;
  EXPECT_FALSE(fields.required("a", JsonInteger<int>(), target));
  EXPECT_EQ(fields.array("b"), nullptr);
  fields.done();
  EXPECT_THAT(faults(), ElementsAre(": found \"x\", expected an object"));
}

// A type may say more of what is wrong than what it expects.
struct Even {
  static std::string expected() { return "an even number"; }
  static std::optional<int> decode(const nlohmann::json& json) {
    return json.get<int>() % 2 == 0 ? std::optional(json.get<int>()) : std::nullopt;
  }
  static std::string fault(const nlohmann::json& json) { return json.dump() + " is odd"; }
};

TEST_F(JsonFieldsTest, TypeWithWordsOfItsOwn) {
  auto json = nlohmann::json::parse(R"({"a": 3})");
  JsonFields fields(json, notes_);
  int target = 0;
  fields.required("a", Even(), target);
  fields.required("b", Even(), target);
  EXPECT_THAT(faults(), ElementsAre("a: 3 is odd", "b: found nothing, expected an even number"));
}

}  // namespace
}  // namespace Runtime
