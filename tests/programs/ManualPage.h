// A manual page, compared with the table of a program's settings.
#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "runtime/Settings.h"
#include "tests/support/TempDir.h"

namespace Support {

// The page's entries without its formatting, each in one line.
inline std::vector<std::string> entriesOf(const std::string& page) {
  std::string text = std::regex_replace(page, std::regex(R"(\\f[A-Z]|")"), "");
  text = std::regex_replace(text, std::regex(R"(\\([- ]))"), "$1");
  text = std::regex_replace(text, std::regex(R"(\n\.(TP|SH)[^\n]*\n)"), "\x01");
  text = std::regex_replace(text, std::regex(R"(\.(B|I|BR|RB|BI|IR|IB|RI|RS|RE|PP|IP)\b ?)"), "");
  text = std::regex_replace(text, std::regex(R"(\s+)"), " ");
  std::vector<std::string> entries;
  for (size_t at = 0; at <= text.size();) {
    size_t end = std::min(text.find('\x01', at), text.size());
    entries.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return entries;
}

// What the page does not say of the settings, or says otherwise.
inline std::string missingIn(const std::string& path, const Runtime::Settings& settings) {
  std::vector<std::string> entries = entriesOf(readFile(path));
  std::string missing;
  for (const Runtime::Settings::Setting& setting : settings.all()) {
    std::string key = setting.about.key;
    std::string leaf = key.substr(key.find('/') == key.npos ? 0 : key.find('/') + 1);
    std::regex named("(\\[ ?)?(--" + setting.option() + "|" + leaf + ")[ ,].*");
    bool described = false;
    for (const std::string& entry : entries) {
      std::string said = entry;
      bool needed = setting.about.needed == Runtime::Settings::Needed::yes;
      bool good = std::regex_match(entry, named) && entry.find(setting.bounds) != entry.npos;
      if (good && !needed && !setting.byDefault.empty()) {
        std::string value = std::regex_replace(setting.byDefault, std::regex(R"([.])"), "\\.");
        good = std::regex_search(entry, std::regex("[Dd]efault:? " + value + "[ ).,]"));
      }
      described = described || good;
    }
    if (!described) missing += key + " (" + setting.bounds + ", default " + setting.byDefault + ")\n";
  }
  return missing;
}

}  // namespace Support
