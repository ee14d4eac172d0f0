// What makes a flaw harder to use is in the programs and libraries as they were built: each option's effect,
// as readelf and objdump show it, where it has one in every program.
#include <gmock/gmock.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/Process.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Hardening : public testing::TestWithParam<const char*> {
 protected:
  static std::string shown(Support::Argv command) {
    command.emplace_back(std::string(TREL_BUILD "/") + GetParam());
    auto result = Support::run(command, {}, Support::Millis(60'000));
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }
  static std::string imported() { return shown({"readelf", "--wide", "--dyn-syms"}); }
};
INSTANTIATE_TEST_SUITE_P(All, Hardening,
                         testing::Values("bin/trelsnmpd", "bin/trelmemberd", "bin/trelctl",
                                         "lib/libTrelPlatform.so.0", "lib/libTrelKelstore.so.0",
                                         "lib/libTrelSnmp.so.0", "lib/libTrelEtcd.so"),
                         [](const auto& param) {
                           std::string name = param.param;
                           name = name.substr(4, name.find('.') == std::string::npos ? std::string::npos
                                                                                     : name.find('.') - 4);
                           return name;
                         });

TEST_P(Hardening, AtAnyAddress) {
  std::string dynamic = shown({"readelf", "--wide", "--file-header", "--dynamic"});
  EXPECT_THAT(dynamic, ContainsRegex("Type: +DYN"));
  if (std::string_view(GetParam()).starts_with("bin/")) {
    EXPECT_THAT(dynamic, ContainsRegex("Flags:.* PIE"));
  }
}

TEST_P(Hardening, TablesOfAddressesAreReadOnly) {
  EXPECT_THAT(shown({"readelf", "--wide", "--segments"}), HasSubstr("GNU_RELRO"));
  EXPECT_THAT(shown({"readelf", "--wide", "--dynamic"}), ContainsRegex("Flags:.* NOW"));
}

TEST_P(Hardening, OverwrittenStackIsNoticed) { EXPECT_THAT(imported(), HasSubstr(" __stack_chk_fail@")); }

TEST_P(Hardening, ContainersCheckTheirIndexes) {
  EXPECT_THAT(imported(), HasSubstr("__glibcxx_assert_fail"));
}

TEST_P(Hardening, CallsKnowTheSizesOfBuffers) {
  EXPECT_THAT(imported(), ContainsRegex(" __[a-jl-z][a-z]+_chk@"));
}

#if defined(__x86_64__)
// A function that others may jump to begins with a mark. The note that all of a program has the marks is
// absent where the C library's start-up code has none.
TEST_P(Hardening, JumpsGoWhereTheyMay) {
  EXPECT_THAT(shown({"objdump", "--disassemble", "--no-show-raw-insn"}),
              ContainsRegex("<_ZN[0-9A-Za-z_]+>:\n *[0-9a-f]+:[[:space:]]+endbr64"));
}
#endif

// Its effect shows only in a frame of more than a page, which few files have: so what each is compiled with.
TEST(HardeningOfEveryFile, StackGrowsPageByPage) {
  std::ifstream file(TREL_BUILD "/compile_commands.json");
  auto compiled = nlohmann::json::parse(file);
  EXPECT_THAT(compiled, Not(IsEmpty()));
  for (const auto& each : compiled) {
    EXPECT_THAT(each["command"].get<std::string>(), HasSubstr(" -fstack-clash-protection ")) << each["file"];
  }
}

}  // namespace
