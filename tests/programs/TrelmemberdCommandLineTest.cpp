// The program's command line and its configuration, which need no store.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "programs/trelmemberd/TrelmemberdOptions.h"
#include "tests/programs/ManualPage.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace Member {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class CommandLineTest : public testing::Test {
 protected:
  Support::Result run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TRELMEMBERD);
    return Support::run(arguments);
  }
  Support::TempDir directory_;
};

TEST_F(CommandLineTest, Check_GoodConfigurationIsSilent) {
  auto brief = run({"--check", TREL_EXAMPLES "/trelmemberd.json"});
  EXPECT_EQ(brief.err + brief.out, "");
  EXPECT_EQ(brief.status, 0);
  auto result = run({"--config", TREL_EXAMPLES "/trelmemberd.json", "--check"});
  EXPECT_EQ(result.err + result.out, "");
  EXPECT_EQ(result.status, 0);
}

TEST_F(CommandLineTest, Check_ListsAllErrorsAndWarnings) {
  std::string path =
      directory_.write("c", R"({"member": 300, "store": "etcd:h/p", "x": 1, "access": {"cert": "/none"}})");
  auto result = run({"--check", path});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr(path + ":1: member: found 300, expected an integer from 0 to 255\n"));
  EXPECT_THAT(result.err, HasSubstr(path + ":1: store: found"));
  EXPECT_THAT(result.err, HasSubstr(path + ":1: access/cert: "));
  EXPECT_THAT(result.err, HasSubstr(path + ":1: x: found an unknown key, expected one of "));
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 4) << result.err;
}

TEST_F(CommandLineTest, Check_WarningsAloneAreNoFailure) {
  std::string path = directory_.write("c", R"({"member": 3, "store": "etcd:h:1/p", "neighbours": [
      {"member": 2, "interface": "Ethernet1", "device": "e1", "address": "10.0.0.2"}]})");
  auto result = run({"--check", path});
  EXPECT_EQ(result.err, path +
                            ":2: neighbours[0]/interface: \"Ethernet1\" is no backplane interface "
                            "(Backplane and a digit): no interface row will show it\n");
  EXPECT_EQ(result.status, 0);
}

TEST_F(CommandLineTest, Check_WarnsOfFiguresThatAreTooRareToProveThatWritesWork) {
  auto check = [this](const std::string& more) {
    return run({"--check", directory_.write("c", R"({"member": 3, "store": "etcd:h:1/p", )" + more + "}")});
  };
  auto result = check(R"("ttl": 10)");
  EXPECT_THAT(result.err,
              testing::EndsWith("figuresInterval: 9 s is no less than two thirds of ttl (10 s), so that "
                                "each look takes another write; set it to 5 at most, or ttl to 15 at "
                                "least\n"));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(check(R"("ttl": 10, "figuresInterval": 5)").err, "");
  EXPECT_EQ(check(R"("ttl": 15)").err, "");
}

TEST_F(CommandLineTest, Check_WarnsOfTwoInterfacesThatGetOneIndexOnThisMachine) {
  std::string path = directory_.write("c", R"({"member": 3, "store": "etcd:h:1/p", "neighbours": [
      {"member": 1, "interface": "Backplane1/a", "device": "lo", "address": "10.0.0.1", "ifIndex": 2147483647},
      {"member": 2, "interface": "Backplane1/b", "device": "none0", "address": "10.0.0.2", "ifIndex": 1}]})");
  EXPECT_EQ(run({"--check", path}).err, "");
  path = directory_.write("c", R"({"member": 3, "store": "etcd:h:1/p", "ifIndexBase": 0, "neighbours": [
      {"member": 1, "interface": "Backplane1/a", "device": "lo", "address": "10.0.0.1"},
      {"member": 2, "interface": "Backplane1/b", "device": "none0", "address": "10.0.0.2", "ifIndex": 1}]})");
  auto result = run({"--check", path});
  EXPECT_EQ(result.err, path +
                            ":1: neighbours: interfaces Backplane1/a and Backplane1/b: published with one "
                            "ifIndex, 1, so that they share a row; set another ifIndex for all but one\n");
  EXPECT_EQ(result.status, 0);
}

TEST_F(CommandLineTest, UnusableConfiguration_EndsWithItsErrors) {
  std::string path = directory_.write("c", R"({"member": 3})");
  auto result = run({"--config", path});
  EXPECT_EQ(result.err,
            "trelmemberd: " + path +
                ":1: store: found nothing, expected a string etcd:HOST:PORT[,HOST:PORT...]/PREFIX\n");
  EXPECT_EQ(result.status, 2);
}

TEST_F(CommandLineTest, StoreThatIsNoEtcd_IsAnError) {
  std::string path = directory_.write("c", R"({"member": 3, "store": "file:/x"})");
  EXPECT_THAT(run({"--check", path}).err, HasSubstr("store: found \"file:/x\", expected etcd:HOST:PORT"));
}

TEST_F(CommandLineTest, UnusableArguments_OneLine) {
  for (auto arguments : {std::vector<std::string>{"--config"}, {"--nonsense"}, {"--config", "/nowhere"}}) {
    auto result = run(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.err, StartsWith("trelmemberd: "));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
}

TEST_F(CommandLineTest, Mappings_AreADocumentWithTheRootInIt) {
  std::string path = directory_.write("c", R"({"member": 3, "store": "etcd:h:1/p"})");
  auto result = run({"--config", path, "--mappings"});
  EXPECT_EQ(result.status, 0) << result.err;
  auto mappings = nlohmann::json::parse(result.out)["storageMappings"];
  EXPECT_EQ(mappings["memory"]["1"]["description"], "Physical memory");
  EXPECT_EQ(mappings["mounts"]["/"]["description"], "/");
  EXPECT_THAT(run({"--check", "--mappings", path}).err, HasSubstr("excludes"));
}

TEST_F(CommandLineTest, OptionsWin_AndNeedNoFile) {
  std::string path = directory_.write("c", R"({"member": 300, "store": "etcd:h:1/p"})");
  EXPECT_EQ(run({"--check", path, "--member", "3"}).status, 0);
  EXPECT_EQ(run({"--check", "--config", "", "--member", "3", "--store", "etcd:h:1/p"}).status, 0);
  EXPECT_THAT(run({"--check", path, "--deadbands-load", "101"}).err,
              HasSubstr("--deadbands-load: found 101, expected an integer from 0 to 100\n"));
}

TEST_F(CommandLineTest, ManualPageAndHelp_SayWhatTheTableDoes) {
  Options options;
  Runtime::Settings settings = settingsOf(options);
  EXPECT_EQ(Support::missingIn(TREL_DOCS "/trelmemberd.8", settings), "");
  std::string help = run({"--help"}).out;
  for (const auto& setting : settings.all()) {
    EXPECT_THAT(help, HasSubstr(setting.option().empty() ? "" : "--" + setting.option()));
    EXPECT_THAT(help, HasSubstr(setting.bounds));
  }
}

TEST_F(CommandLineTest, Version_AndHelp) {
  EXPECT_THAT(run({"--version"}).out, StartsWith("trelmemberd "));
  EXPECT_THAT(run({"--help"}).out, HasSubstr("--check"));
  EXPECT_EQ(run({"--help"}).status, 0);
}

}  // namespace
}  // namespace Member
