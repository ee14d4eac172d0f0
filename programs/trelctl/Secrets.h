// Takes secrets out of what others are to read: communities, passwords, keys. What is not known to be
// harmless is taken for a secret.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>
#include <string_view>

namespace TrelCtl {

class Secrets final {
 public:
  static constexpr const char* kRemoved = "(removed)";

  // A configuration of a daemon, with the values of known keys; of keys and credentials only names of files.
  std::string jsonWithout(const std::string& text);
  // A file in the syntax of snmpd.conf, with the arguments of directives that have no secret.
  std::string confWithout(const std::string& text);
  // Other text, such as a log, without the words that were taken out before.
  std::string textWithout(const std::string& text) const;

 private:
  void take(nlohmann::json& json, const std::string& key);
  std::string lineWithout(const std::string& line);

  std::set<std::string> words_;
};

}  // namespace TrelCtl
