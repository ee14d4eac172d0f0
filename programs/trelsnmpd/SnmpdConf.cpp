#include "programs/trelsnmpd/SnmpdConf.h"

#include <absl/strings/ascii.h>
#include <absl/strings/str_split.h>
#include <absl/strings/string_view.h>
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "runtime/Errors.h"
#include "runtime/File.h"

namespace Trelsnmpd {
namespace {

namespace fs = std::filesystem;

constexpr uint64_t kMaxConfBytes = 1 << 20;
// Files that include each other have no end.
constexpr int kMaxFiles = 100;

constexpr const char* kOfSnmpd = "snmpd";
constexpr const char* kOfAll = "snmp";

class ConfReader final {
 public:
  void read(const std::string& path, std::string section, bool included) {
    if (++files_ > kMaxFiles) return;
    absl::StatusOr<std::string> text = Runtime::readFile(path, kMaxConfBytes);
    if (!text.ok()) {
      // A file that is included and not there is none for snmpd, too.
      if (!included || !absl::IsNotFound(text.status())) conf_.unread = text.status();
      return;
    }
    int number = 0;
    for (absl::string_view line : absl::StrSplit(*text, '\n')) {
      ++number;
      line = absl::StripAsciiWhitespace(line);
      if (line.empty() || line[0] == '#') continue;
      std::string sectionOfLine = section;
      if (line[0] == '[' && !takeSection(line, sectionOfLine)) continue;
      if (line.empty()) {
        section = sectionOfLine;
        continue;
      }
      size_t end = std::min(line.find_first_of(" \t\v\f\r"), line.size());
      take({fmt::format("{}:{}", path, number), absl::AsciiStrToLower(line.substr(0, end)),
            std::string(absl::StripLeadingAsciiWhitespace(line.substr(end)))},
           path, sectionOfLine);
    }
  }

  void readDirectory(const std::string& directory, const std::string& section) {
    std::vector<std::string> files;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(directory, ignored)) {
      if (entry.path().extension() == ".conf") files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    for (const std::string& file : files) read(file, section, /*included=*/true);
  }

  SnmpdConf conf() && { return std::move(conf_); }

 private:
  // Takes "[NAME]" off the line; false for a section that snmpd does not know, and for no section.
  static bool takeSection(absl::string_view& line, std::string& section) {
    size_t end = line.find(']');
    if (end == absl::string_view::npos) return false;
    section = std::string(line.substr(1, end - 1));
    line = absl::StripLeadingAsciiWhitespace(line.substr(end + 1));
    return section == kOfSnmpd || section == kOfAll;
  }

  void take(SnmpdConfLine line, const std::string& path, const std::string& section) {
    std::string target = (fs::path(path).parent_path() / line.value).string();
    if (line.directive == "includefile") {
      read(target, section, /*included=*/true);
    } else if (line.directive == "includedir") {
      readDirectory(target, section);
    } else if (section == kOfSnmpd) {
      conf_.lines.push_back(std::move(line));
    }
  }

  SnmpdConf conf_;
  int files_ = 0;
};

}  // namespace

SnmpdConf readSnmpdConf(const std::string& conf, const std::string& directory) {
  ConfReader whole;
  whole.read(conf, kOfSnmpd, /*included=*/false);
  SnmpdConf found = std::move(whole).conf();
  if (found.unread.ok() || absl::IsNotFound(found.unread) || !found.lines.empty()) return found;
  ConfReader parts;
  parts.readDirectory(directory, kOfSnmpd);
  SnmpdConf part = std::move(parts).conf();
  part.unread.Update(found.unread);
  return part;
}

}  // namespace Trelsnmpd
