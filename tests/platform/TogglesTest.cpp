#include "platform/toggles/Toggles.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "tests/support/TempDir.h"
#include "tests/support/TraceLog.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class TogglesTest : public testing::Test {
 protected:
  TogglesTest() { Toggles::fileIs("TrelCore.json", path()); }
  ~TogglesTest() override { Toggles::fileIs("TrelCore.json", ""); }

  std::string path() const { return dir_.file("TrelCore.json"); }
  void write(const std::string& contents) const { dir_.write("TrelCore.json", contents); }
  // "<state with default false><state with default true>"
  static std::string states(const std::string& name, const std::string& file = "TrelCore.json") {
    std::string states;
    for (bool byDefault : {false, true}) states += Toggles::getToggleState(name, file, byDefault) ? "1" : "0";
    return states;
  }
  // The trace lines of reading a toggle, which must have yielded the default.
  std::vector<std::string> complaints(const std::string& name = "A") const {
    Toggles::fileIs("TrelCore.json", path());
    TraceLog log({});
    EXPECT_TRUE(Toggles::getToggleState(name, "TrelCore.json", true));
    return log.lines();
  }

  const Support::TempDir dir_;
};

TEST_F(TogglesTest, File_SaysWhichAreOn_OthersKeepTheirDefault) {
  TraceLog log;
  write(R"({"On": true, "Off": false, "": true})");
  EXPECT_EQ(states("On"), "11");
  EXPECT_EQ(states("Off"), "00");
  EXPECT_EQ(states(""), "11");
  EXPECT_EQ(states("on"), "01");
  EXPECT_EQ(states("Unnamed"), "01");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TogglesTest, FileIsReadEachTime) {
  write(R"({"A": true})");
  EXPECT_EQ(states("A"), "11");
  write(R"({"A": false})");
  EXPECT_EQ(states("A"), "00");
}

TEST_F(TogglesTest, UnknownFileName_KeepsDefaultsWithoutAWord) {
  TraceLog log;
  EXPECT_EQ(states("A", "Other.json"), "01");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(TogglesTest, MissingFile_CostsOneLine) {
  EXPECT_THAT(complaints(), ElementsAre("Toggles/0 " + path() +
                                        ": No such file or directory, all toggles keep their defaults"));
}

TEST_F(TogglesTest, DirectoryInItsPlace_CostsOneLine) {
  std::filesystem::create_directory(path());
  EXPECT_THAT(complaints(),
              ElementsAre("Toggles/0 " + path() + ": Is a directory, all toggles keep their defaults"));
}

TEST_F(TogglesTest, MalformedFile_CostsOneLine) {
  for (std::string contents : {"", "{", "{\"A\": true", "{\"A\": true}}", "A: true", "{\"A\": tru}",
                               "\n\n{'A': true}", "\xff\xfe{", "{\"A\": 1e999}"}) {
    write(contents);
    EXPECT_THAT(complaints(), ElementsAre(StartsWith("Toggles/0 " + path() +
                                                     ": expected JSON, all toggles keep their defaults: ")))
        << contents;
  }
  write(std::string(10000, '['));
  EXPECT_EQ(complaints().size(), 1u);
}

TEST_F(TogglesTest, ComplaintIsOneLine) {
  write("{\"A\":\n\n true");
  ASSERT_EQ(complaints().size(), 1u);
  EXPECT_EQ(complaints().front().find('\n'), std::string::npos);
}

TEST_F(TogglesTest, DocumentThatIsNoObject_CostsOneLine) {
  for (auto [contents, found] : {std::pair{"[\"A\"]", "array"},
                                 {"\"A\"", "string"},
                                 {"true", "boolean"},
                                 {"null", "null"},
                                 {"7", "number"}}) {
    write(contents);
    EXPECT_THAT(complaints(),
                ElementsAre(fmt::format(
                    "Toggles/0 {}: found {}, expected an object of toggles; all keep their defaults", path(),
                    found)));
  }
}

TEST_F(TogglesTest, ToggleThatIsNoBoolean_CostsOneLineAndOnlyItself) {
  write(R"({"A": 1, "B": "true", "C": null, "D": true})");
  EXPECT_THAT(complaints("A"),
              ElementsAre("Toggles/0 " + path() +
                          ": toggle \"A\": found number, expected true or false; it keeps its default true"));
  EXPECT_EQ(complaints("B").size(), 1u);
  EXPECT_EQ(complaints("C").size(), 1u);
  EXPECT_EQ(states("D"), "11");
}

TEST_F(TogglesTest, FaultOfTheFile_IsSaidOnceForAllToggles) {
  write("{");
  Toggles::fileIs("TrelCore.json", path());
  TraceLog log;
  EXPECT_EQ(states("A") + states("B"), "0101");
  EXPECT_EQ(log.lines().size(), 1u);
  write("[]");
  EXPECT_EQ(states("A") + states("B"), "0101");
  EXPECT_EQ(log.lines().size(), 2u);
}

}  // namespace
