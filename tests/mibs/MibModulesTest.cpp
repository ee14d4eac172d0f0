// The MIB modules by themselves: correct SMIv2, under the configured enterprise number, readable by the usual
// tools from one directory.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace {

class MibModule : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(All, MibModule,
                         testing::Values("VELDA-MIB", "VELDA-TREL-MIB", "VELDA-TREL-HOST-RESOURCES-MIB"),
                         [](const auto& module) {
                           std::string name = module.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

// smilint exits with 0 whatever it finds.
std::string lint(const std::string& path) {
  Support::Result result = Support::run({"smilint", "-s", "-l", "6", path}, {"SMIPATH=" TREL_MIBS});
  return result.status == 0 ? result.out + result.err : "smilint failed: " + result.err;
}

TEST_P(MibModule, Lint_FindsNothing) { EXPECT_EQ(lint(std::string(TREL_MIBS "/") + GetParam()), ""); }

TEST_P(MibModule, LintOfABrokenCopy_FindsIt) {
  Support::TempDir dir;
  std::string text = Support::readFile(std::string(TREL_MIBS "/") + GetParam());
  size_t at = text.rfind("current");
  EXPECT_NE(lint(dir.write(GetParam(), text.replace(at, 7, "hopeful"))), "");
}

// object: "<module>::<name>"; that module alone is asked for.
std::string translate(const std::string& format, const std::string& object) {
  Support::TempDir configuration;
  Support::Result result = Support::run(
      {"snmptranslate", "-M", TREL_MIBS, "-m", object.substr(0, object.find(':')), format, object},
      {"SNMPCONFPATH=" + configuration.path().string(),
       "SNMP_PERSISTENT_DIR=" + configuration.path().string()});
  return result.status == 0 ? result.out : result.err;
}

TEST(TrelMibNames, Tables_StandUnderTheConfiguredEnterprise) {
  const std::string mibs = ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3";
  EXPECT_EQ(translate("-On", "VELDA-TREL-MIB::veldaTrelBaIfTable"), mibs + ".40.1.1\n");
  EXPECT_EQ(translate("-On", "VELDA-TREL-MIB::veldaTrelReachabilityTable"), mibs + ".40.1.2\n");
  EXPECT_EQ(translate("-On", "VELDA-TREL-HOST-RESOURCES-MIB::veldaTrelHrSystemTable"), mibs + ".41.1.1\n");
  EXPECT_EQ(translate("-On", "VELDA-TREL-HOST-RESOURCES-MIB::veldaTrelProcessorTable"), mibs + ".41.1.2\n");
  EXPECT_EQ(translate("-On", "VELDA-TREL-HOST-RESOURCES-MIB::veldaTrelStorageTable"), mibs + ".41.1.3\n");
}

TEST(TrelMibNames, InstanceByName_IsItsNumbers) {
  EXPECT_EQ(translate("-On", "VELDA-TREL-MIB::veldaTrelReachabilityState.3.255"),
            ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3.40.1.2.1.4.3.255\n");
  EXPECT_EQ(translate("-On", "VELDA-TREL-HOST-RESOURCES-MIB::veldaTrelProcessorLoad.3.4294967295"),
            ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3.41.1.2.1.3.3.4294967295\n");
}

TEST(TrelMibNames, EveryNodeOnTheWay_HasAName) {
  EXPECT_EQ(translate("-Of", "VELDA-TREL-MIB::veldaTrelReachabilityState"),
            ".iso.org.dod.internet.private.enterprises.velda.veldaMibs.veldaTrelMIB.veldaTrelMIBObjects."
            "veldaTrelReachabilityTable.veldaTrelReachabilityEntry.veldaTrelReachabilityState\n");
  EXPECT_EQ(translate("-Of", "VELDA-TREL-HOST-RESOURCES-MIB::veldaTrelStorageDescr"),
            ".iso.org.dod.internet.private.enterprises.velda.veldaMibs.veldaTrelHostResourcesMIB."
            "veldaTrelHrMIBObjects.veldaTrelStorageTable.veldaTrelStorageEntry.veldaTrelStorageDescr\n");
}

}  // namespace
