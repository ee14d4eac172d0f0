#include "programs/trelctl/SnmpdViews.h"

#include <absl/strings/match.h>
#include <absl/strings/str_split.h>

#include <algorithm>
#include <map>
#include <set>

#include "runtime/Errors.h"

namespace TrelCtl {
namespace {

constexpr size_t kReadViewOfAccess = 6;  // access GROUP CONTEXT MODEL LEVEL MATCH READ ...

using Words = std::vector<std::string>;

// "1.3.6." of ".1.3.6" and ".iso.3.6".
std::string numbers(std::string subtree) {
  if (subtree.starts_with('.')) subtree.erase(0, 1);
  if (subtree.starts_with("iso")) subtree.replace(0, 3, "1");
  return subtree + ".";
}

bool isAbove(const std::string& subtree) { return numbers(kTablesSubtree).starts_with(numbers(subtree)); }
bool isBelow(const std::string& subtree) { return numbers(subtree).starts_with(numbers(kTablesSubtree)); }

class ConfReader final {
 public:
  void read(const std::string& directive, const std::string& value) {
    Words words = absl::StrSplit(value, absl::ByAnyChar(" \t\r"), absl::SkipEmpty());
    words.insert(words.begin(), directive);
    if (directive == "view" && words.size() >= 4) {
      bool& includes = includes_[words[1]];
      bool included = absl::EqualsIgnoreCase(words[2], "included");
      // The last one counts, as a subtree may be excluded again. One below excludes some tables only.
      if (isAbove(words[3]) || (included && isBelow(words[3]))) includes = included;
    } else if (directive == "access" && words.size() > kReadViewOfAccess) {
      uses(words[kReadViewOfAccess]);
    } else if (directive.starts_with("rocommunity") || directive.starts_with("rwcommunity") ||
               directive == "rouser" || directive == "rwuser") {
      anybody_ = true;
      auto limit = std::find(words.begin(), words.end(), "-V");
      if (limit != words.end() && limit + 1 != words.end()) uses(*(limit + 1));
    }
  }

  SnmpdViews views() const {
    SnmpdViews views{anybody_, {}, ""};
    for (const std::string& name : used_) {
      auto found = includes_.find(name);
      if (found == includes_.end() || !found->second) views.without.push_back(name);
    }
    return views;
  }

 private:
  void uses(const std::string& view) {
    anybody_ = true;
    if (view != "none") used_.insert(view);
  }

  bool anybody_ = false;
  std::set<std::string> used_;
  std::map<std::string, bool> includes_;
};

}  // namespace

SnmpdViews viewsIn(const Trelsnmpd::SnmpdConf& conf) {
  if (!conf.unread.ok()) return {.anybody = false, .without = {}, .unread = Runtime::textOf(conf.unread)};
  ConfReader reader;
  for (const Trelsnmpd::SnmpdConfLine& line : conf.lines) reader.read(line.directive, line.value);
  return reader.views();
}

}  // namespace TrelCtl
