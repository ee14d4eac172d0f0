#include "Snapshot.h"

#include <algorithm>
#include <tuple>

namespace Kelstore {
namespace {

bool before(const Snapshot::Entry& entry, const Path& path) { return entry.first < path; }

}  // namespace

Snapshot::Snapshot(std::vector<Entry> entries) : entries_(std::move(entries)) {
  std::sort(entries_.begin(), entries_.end(),
            [](const Entry& a, const Entry& b) { return a.first < b.first; });
}

const Value* Snapshot::find(const Path& path) const {
  auto found = std::lower_bound(entries_.begin(), entries_.end(), path, before);
  return found == entries_.end() || found->first != path ? nullptr : &found->second;
}

bool Snapshot::any(Kind kind, std::string_view first) const {
  auto found = std::lower_bound(entries_.begin(), entries_.end(), std::tie(kind, first),
                                [](const Entry& entry, const auto& wanted) {
                                  std::string_view entryFirst = entry.first.first;
                                  return std::tie(entry.first.kind, entryFirst) < wanted;
                                });
  return found != entries_.end() && found->first.kind == kind && found->first.first == first;
}

std::vector<Path> differences(const Snapshot& before, const Snapshot& after) {
  std::vector<Path> paths;
  auto a = before.entries().begin();
  auto b = after.entries().begin();
  while (a != before.entries().end() || b != after.entries().end()) {
    bool onlyA = b == after.entries().end() || (a != before.entries().end() && a->first < b->first);
    bool onlyB = a == before.entries().end() || (b != after.entries().end() && b->first < a->first);
    if (onlyA) {
      paths.push_back((a++)->first);
    } else if (onlyB) {
      paths.push_back((b++)->first);
    } else {
      if (a->second != b->second) paths.push_back(a->first);
      ++a;
      ++b;
    }
  }
  return paths;
}

}  // namespace Kelstore
