// The environment of the test's own process.
#pragma once

#include <cstdlib>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace Support {

// Sets variables (null: unsets) and puts them back.
class Environment {
 public:
  Environment(std::initializer_list<std::pair<const char*, const char*>> settings) {
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

}  // namespace Support
