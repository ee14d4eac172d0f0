// What both sides of the control protocol agree on.
#include "host/control/ControlProtocol.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <map>

namespace Control {
namespace {

TEST(LineBufferTest, LinesComeWholeAndWithoutTheirEnd) {
  LineBuffer lines(100);
  EXPECT_EQ(lines.takeLine(), std::nullopt);
  lines.append("a\r\n\nb");
  EXPECT_EQ(lines.takeLine(), "a");
  EXPECT_EQ(lines.takeLine(), "");
  EXPECT_EQ(lines.takeLine(), std::nullopt);
  lines.append("c\n");
  EXPECT_EQ(lines.takeLine(), "bc");
  EXPECT_EQ(lines.size(), 0u);
}

TEST(LineBufferTest, OverflowsWithTheFirstByteTooManyOfAnUnfinishedLine) {
  LineBuffer lines(3);
  lines.append("abc");
  EXPECT_FALSE(lines.overflown());
  lines.append("d");
  EXPECT_TRUE(lines.overflown());
}

TEST(LineBufferTest, ManyShortLines_AreNoOverflow) {
  LineBuffer lines(3);
  lines.append("ab\ncd\nef\n");
  EXPECT_FALSE(lines.overflown());
}

// Sets variables of the environment (null: unsets) and puts them back.
class Environment {
 public:
  explicit Environment(const std::map<const char*, const char*>& settings) {
    for (const auto& [name, value] : settings) {
      const char* now = std::getenv(name);
      before_.emplace(name, now == nullptr ? std::nullopt : std::optional<std::string>(now));
      set(name, value);
    }
  }
  ~Environment() {
    for (const auto& [name, value] : before_) set(name.c_str(), value ? value->c_str() : nullptr);
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  static void set(const char* name, const char* value) {
    value == nullptr ? unsetenv(name) : setenv(name, value, /*overwrite=*/1);
  }
  std::map<std::string, std::optional<std::string>> before_;
};

TEST(DefaultSocketPathTest, UnderSystemd_IsInTheFirstOfItsDirectories) {
  Environment systemd({{"RUNTIME_DIRECTORY", "/run/one:/run/two"}, {"XDG_RUNTIME_DIR", "/run/user/7"}});
  EXPECT_EQ(defaultSocketPath(), "/run/one/trelsnmpd.sock");
}

TEST(DefaultSocketPathTest, Otherwise_IsRootsOrTheSessionsOrTheUsersOwn) {
  bool root = geteuid() == 0;
  Environment session({{"RUNTIME_DIRECTORY", nullptr}, {"XDG_RUNTIME_DIR", "/run/user/7"}});
  EXPECT_EQ(defaultSocketPath(), root ? "/run/trelsnmpd/trelsnmpd.sock" : "/run/user/7/trelsnmpd.sock");
  Environment none({{"XDG_RUNTIME_DIR", nullptr}});
  EXPECT_EQ(defaultSocketPath(), root ? "/run/trelsnmpd/trelsnmpd.sock"
                                      : "/tmp/trelsnmpd-" + std::to_string(geteuid()) + "/trelsnmpd.sock");
}

}  // namespace
}  // namespace Control
