// The MIB modules by themselves: correct SMIv2, under the configured enterprise number, readable by the usual
// tools from one directory.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/Process.h"
#include "support/TempDir.h"

namespace {

class MibModule : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(All, MibModule, testing::Values("VELDA-MIB", "VELDA-TREL-MIB"),
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

std::string translate(const std::string& format, const std::string& object) {
  Support::TempDir configuration;
  Support::Result result =
      Support::run({"snmptranslate", "-M", TREL_MIBS, "-m", "VELDA-TREL-MIB", format, object},
                   {"SNMPCONFPATH=" + configuration.path().string(),
                    "SNMP_PERSISTENT_DIR=" + configuration.path().string()});
  return result.status == 0 ? result.out : result.err;
}

TEST(TrelMibNames, Tables_StandUnderTheConfiguredEnterprise) {
  const std::string mib = ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3.40.1";
  EXPECT_EQ(translate("-On", "VELDA-TREL-MIB::veldaTrelBaIfTable"), mib + ".1\n");
  EXPECT_EQ(translate("-On", "VELDA-TREL-MIB::veldaTrelReachabilityTable"), mib + ".2\n");
}

TEST(TrelMibNames, InstanceByName_IsItsNumbers) {
  EXPECT_EQ(translate("-On", "VELDA-TREL-MIB::veldaTrelReachabilityState.3.255"),
            ".1.3.6.1.4.1." TREL_ENTERPRISE_NUMBER ".3.40.1.2.1.4.3.255\n");
}

TEST(TrelMibNames, EveryNodeOnTheWay_HasAName) {
  EXPECT_EQ(translate("-Of", "VELDA-TREL-MIB::veldaTrelReachabilityState"),
            ".iso.org.dod.internet.private.enterprises.velda.veldaMibs.veldaTrelMIB.veldaTrelMIBObjects."
            "veldaTrelReachabilityTable.veldaTrelReachabilityEntry.veldaTrelReachabilityState\n");
}

}  // namespace
