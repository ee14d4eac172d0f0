// What makes a flaw harder to use is in the programs and libraries as they were built: each option's effect,
// as readelf and objdump show it.
#include <gmock/gmock.h>

#include "tests/support/Process.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

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
TEST_P(Hardening, JumpsGoWhereTheyMay) {
  EXPECT_THAT(shown({"readelf", "--wide", "--notes"}), HasSubstr("x86 feature: IBT, SHSTK"));
}

// A frame of more than a page is touched page by page.
TEST_P(Hardening, StackGrowsPageByPage) {
  EXPECT_THAT(shown({"objdump", "--disassemble", "--no-show-raw-insn"}),
              ContainsRegex("or[ql] +\\$0x0,\\(%rsp\\)"));
}
#endif

}  // namespace
