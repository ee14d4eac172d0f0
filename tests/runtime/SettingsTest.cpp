// A table of settings: what the command line and the file set, and the line for everything that is wrong.
#include "runtime/Settings.h"

#include <gmock/gmock.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "runtime/CommandLine.h"
#include "runtime/Nearest.h"
#include "tests/support/TempDir.h"

namespace Runtime {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Targets {
  uint32_t seconds = 5;
  std::string path = "here";
  std::vector<std::string> places;
  bool quick = false;
  std::string mode = "keep";
  double share = 0.5;
  std::string inner;
  int elements = 0;
};

Settings tableOf(Targets& targets) {
  Settings table;
  table.number({"waitSeconds", "SECONDS", "How long", Settings::Applies::atReload}, 1U, 60U, targets.seconds);
  table.text({"path", "PATH", "Where"}, targets.path, isPath);
  table.list({"place", "PLACE", "Places"}, targets.places, isPath);
  table.flag({"quick", "", "Whether"}, targets.quick);
  table.choice({"mode", "keep|clear", "How"}, {"keep", "clear"}, "keep",
               [&targets](const std::string& word) { targets.mode = word; });
  table.percent({"group/share", "PERCENT", "How much"}, targets.share);
  table.text({"group/inner", "TEXT", "What"}, targets.inner);
  table.onlyInFile({"rows", "", "Rows"}, [&targets](const nlohmann::json& json, JsonNotes&) {
    targets.elements = int(json.size());
  });
  return table;
}

class SettingsTest : public testing::Test {
 protected:
  // Reads the file, if there is one, under the options. Lines of findings begin with "F:".
  std::vector<std::string> read(const std::string& text, std::vector<const char*> options = {}) {
    targets_ = {};
    Settings table = tableOf(targets_);
    CLI::App app("", "program");
    Arguments arguments;
    table.describe(app, "--config", "/nowhere/at/all.json", arguments);
    std::string file = text.empty() ? "" : directory_.write("c.json", text);
    options.insert(options.begin(), "program");
    if (!file.empty()) options.insert(options.end(), {"--config", file.c_str()});
    EXPECT_EQ(parseCommandLine(app, static_cast<int>(options.size()), options.data(), [] {}), -1);
    Findings findings = table.read(arguments);
    atStart_ = table.atStart();
    std::vector<std::string> lines = findings.faults();
    for (std::string& line : lines) {
      if (!file.empty() && line.starts_with(file)) line = "F" + line.substr(file.size());
    }
    return lines;
  }

  Support::TempDir directory_;
  Targets targets_;
  Settings::AtStart atStart_;
};

TEST_F(SettingsTest, File_SetsEverything) {
  EXPECT_THAT(read(R"({"waitSeconds": 7, "path": "p", "place": ["a", "b"], "quick": true, "mode": "clear",
                       "group": {"share": 2.5, "inner": "i"}, "rows": [1, 2]})"),
              IsEmpty());
  EXPECT_EQ(targets_.seconds, 7u);
  EXPECT_EQ(targets_.path, "p");
  EXPECT_THAT(targets_.places, ElementsAre("a", "b"));
  EXPECT_TRUE(targets_.quick);
  EXPECT_EQ(targets_.mode, "clear");
  EXPECT_EQ(targets_.share, 2.5);
  EXPECT_EQ(targets_.inner, "i");
  EXPECT_EQ(targets_.elements, 2);
}

TEST_F(SettingsTest, Option_WinsOverTheFile_AndTheRestOfTheFileCounts) {
  EXPECT_THAT(
      read(R"({"waitSeconds": 7, "path": "p", "place": ["a", "b"], "group": {"share": 1, "inner": "i"}})",
           {"--wait-seconds", "9", "--place", "c", "--group-share", "3.5", "--quick", "--mode", "clear"}),
      IsEmpty());
  EXPECT_EQ(targets_.seconds, 9u);
  EXPECT_EQ(targets_.path, "p");
  EXPECT_THAT(targets_.places, ElementsAre("c"));
  EXPECT_EQ(targets_.share, 3.5);
  EXPECT_EQ(targets_.inner, "i");
  EXPECT_TRUE(targets_.quick);
  EXPECT_EQ(targets_.mode, "clear");
}

TEST_F(SettingsTest, WhatIsWrong_IsNamedWithFileLineAndKey_AllOfIt) {
  EXPECT_THAT(
      read("{\n\"waitSeconds\": 61,\n\"path\": \"\",\n\"place\": [\"a\",\n \"\"],\n\"quick\": 1,\n"
           "\"mode\": \"no\",\n\"group\": {\n\"share\": 101},\n\"wiatSeconds\": 3,\n\"path\":\n7}"),
      ElementsAre("F:11: path: found it twice in one object, expected it once",
                  "F:2: waitSeconds: found 61, expected an integer from 1 to 60",
                  "F:11: path: found 7, expected a string PATH", "F:4: place: found nothing, expected a path",
                  "F:6: quick: found 1, expected true or false",
                  "F:7: mode: found \"no\", expected keep, clear",
                  "F:9: group/share: found 101, expected a number from 0 to 100",
                  "F:10: wiatSeconds: found an unknown key, expected \"waitSeconds\": correct it"));
}

TEST_F(SettingsTest, WrongOption_IsNamedAsOne) {
  EXPECT_THAT(read(R"({"waitSeconds": 7})", {"--wait-seconds", "soon", "--group-share", "x"}),
              ElementsAre("--wait-seconds: found \"soon\", expected an integer from 1 to 60",
                          "--group-share: found \"x\", expected a number from 0 to 100"));
}

TEST_F(SettingsTest, FileThatIsNoJsonObject_IsOneLine) {
  EXPECT_THAT(read("{\n \"path\": }"), ElementsAre(testing::StartsWith("F:2:10: syntax error")));
  EXPECT_THAT(read("\n [7]"), ElementsAre("F:2: found an array, expected an object"));
  EXPECT_THAT(read(" "), ElementsAre(testing::HasSubstr("found nothing, expected a JSON object")));
}

TEST_F(SettingsTest, FileThatIsNestedWithoutEnd_IsRefusedAtOnce) {
  EXPECT_THAT(read(std::string(1 << 20, '[')), testing::SizeIs(1));
  for (size_t levels : {17, 1000, 500'000}) {
    EXPECT_THAT(
        read("{\"rows\":\n" + std::string(levels, '[') + std::string(levels, ']') + ",\n\"path\": 7}"),
        ElementsAre("F:2: found values within more than 16 others, expected 16 at most"));
  }
  EXPECT_THAT(read("{\"rows\":\n" + std::string(15, '[') + std::string(15, ']') + ",\n\"path\": 7}"),
              ElementsAre("F:3: path: found 7, expected a string PATH"));
}

TEST_F(SettingsTest, OptionsHideNothingThatIsWrongInTheFile) {
  EXPECT_THAT(read("{\"waitSeconds\": 3,\n\"waitSeconds\": 4}", {"--wait-seconds", "5"}),
              ElementsAre("F:2: waitSeconds: found it twice in one object, expected it once"));
  EXPECT_THAT(read("{\n\"group\": 5}", {"--group-share", "1"}),
              ElementsAre("F:2: group: found 5, expected an object"));
  EXPECT_THAT(read("{\n\"waitSeconds\": 1e400}"), ElementsAre(testing::StartsWith("F:2: number overflow")));
}

TEST_F(SettingsTest, FileIsUnusable_WrongOptionsAreNamedAllTheSame) {
  EXPECT_THAT(read("{", {"--wait-seconds", "0"}),
              ElementsAre(testing::StartsWith("F:1:2: syntax error"),
                          "--wait-seconds: found 0, expected an integer from 1 to 60"));
}

TEST_F(SettingsTest, FileThatWasThereAtTheStart_MustBeThereAtAReload) {
  Arguments arguments{directory_.write("c.json", "{}"), false,
                      std::make_shared<nlohmann::json>(nlohmann::json::object())};
  Arguments later = forReload(arguments);
  EXPECT_TRUE(later.named);
  EXPECT_FALSE(forReload({directory_.file("none"), false, arguments.given}).named);
  std::filesystem::remove(arguments.file);
  Targets targets;
  EXPECT_THAT(tableOf(targets).read(later).faults(),
              ElementsAre(arguments.file + ": No such file or directory"));
  EXPECT_THAT(tableOf(targets).read(arguments).faults(), IsEmpty());
}

TEST_F(SettingsTest, FileThatIsNotThere_IsAFaultWhenItWasNamed) {
  EXPECT_THAT(read(""), IsEmpty());
  EXPECT_THAT(read("", {"--config", "/nowhere/else"}),
              ElementsAre("/nowhere/else: No such file or directory"));
  EXPECT_THAT(read("", {"--config", ""}), IsEmpty());
}

TEST_F(SettingsTest, Differences_AreOfWhatAReloadDoesNotApply_AndNotOfADefaultThatIsWritten) {
  EXPECT_THAT(read(R"({"waitSeconds": 7, "group": {"share": 1}})"), IsEmpty());
  Settings::AtStart before = atStart_;
  EXPECT_THAT(
      read(R"({"waitSeconds": 8, "mode": "keep", "path": "here", "group": {"share": 2}, "quick": true})"),
      IsEmpty());
  EXPECT_THAT(Settings::differences(before, atStart_), ElementsAre("quick", "group/share"));
}

TEST(NearestTest, AFewLettersOff_AndNothingWhenTooMany) {
  std::vector<std::string> names = {"listen", "limit", "rocommunity", "hold"};
  EXPECT_EQ(nearest("rocomunity", names), "rocommunity");
  EXPECT_EQ(nearest("Listne", names), "listen");
  EXPECT_EQ(nearest("hodl", names), "hold");
  EXPECT_EQ(nearest("limits", names), "limit");
  EXPECT_EQ(nearest("ld", names), "");
  EXPECT_EQ(nearest("bogus", names), "");
  EXPECT_EQ(nearest("", names), "");
}

}  // namespace
}  // namespace Runtime
