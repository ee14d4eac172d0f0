#include "kelstore/Snapshot.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace Kelstore {
namespace {

// A smaller chunk is joined with its neighbour.
constexpr size_t kMinChunk = Snapshot::kMaxChunk / 4;

using Change = Snapshot::Change;
using Entry = Snapshot::Entry;

// A full cluster has 65,025 values of a kind, which are the most of what a small switch has to remember.
static_assert(sizeof(Entry) <= 64);

bool isBefore(const Entry& a, const Entry& b) { return a.first < b.first; }
using Changes = std::vector<Change>;

// The chunk's entries with these changes. Adds to `changed` the paths at which the result differs.
template <class Chunk>
Chunk merged(const Chunk& chunk, Changes::iterator change, Changes::iterator end,
             std::vector<Path>& changed) {
  Chunk result;
  result.reserve(chunk.size() + static_cast<size_t>(end - change));
  auto entry = chunk.begin();
  for (; change != end; ++change) {
    auto& [path, value] = *change;
    while (entry != chunk.end() && entry->first < path) result.push_back(*entry++);
    bool there = entry != chunk.end() && entry->first == path;
    if (there ? !value || *value != entry->second : value.has_value()) changed.push_back(path);
    if (there) ++entry;
    if (value) result.emplace_back(std::move(path), std::move(*value));
  }
  result.insert(result.end(), entry, chunk.end());
  return result;
}

}  // namespace

Snapshot::Snapshot(std::vector<Entry> entries) {
  std::sort(entries.begin(), entries.end(), isBefore);
  append(std::move(entries));
}

Snapshot::Snapshot(std::deque<Entry> entries) {
  std::sort(entries.begin(), entries.end(), isBefore);
  append(std::move(entries));
}

// Requires: the entries are sorted and come after all that there are.
template <class Entries>
void Snapshot::append(Entries entries) {
  size_ += entries.size();
  if (entries.empty()) return;
  if (!chunks_.empty() && std::min(entries.size(), chunks_.back()->size()) < kMinChunk) {
    const Chunk& last = *chunks_.back();
    entries.insert(entries.begin(), last.begin(), last.end());
    chunks_.pop_back();
  }
  size_t pieces = (entries.size() + kMaxChunk - 1) / kMaxChunk;
  chunks_.reserve(chunks_.size() + pieces);
  size_t left = entries.size();
  for (auto at = entries.begin(); pieces > 0; --pieces) {
    size_t size = left / pieces;
    auto end = at + static_cast<std::ptrdiff_t>(size);
    chunks_.push_back(
        std::make_shared<const Chunk>(std::make_move_iterator(at), std::make_move_iterator(end)));
    left -= size;
    at = end;
    if constexpr (std::is_same_v<Entries, std::deque<Entry>>) at = entries.erase(entries.begin(), end);
  }
}

template <class Key, class Before>
Snapshot::const_iterator Snapshot::lowerBound(const Key& key, Before before) const {
  auto chunk =
      std::partition_point(chunks_.begin(), chunks_.end(),
                           [&](const std::shared_ptr<const Chunk>& one) { return before(one->back(), key); });
  if (chunk == chunks_.end()) return end();
  auto entry = std::lower_bound((*chunk)->begin(), (*chunk)->end(), key, before);
  return {chunk, static_cast<size_t>(entry - (*chunk)->begin())};
}

Snapshot::const_iterator Snapshot::from(Kind kind) const {
  return lowerBound(kind, [](const Entry& entry, Kind wanted) { return entry.first.kind < wanted; });
}

const Value* Snapshot::find(const Path& path) const {
  auto found = lowerBound(path, [](const Entry& entry, const Path& wanted) { return entry.first < wanted; });
  return found == end() || found->first != path ? nullptr : &found->second;
}

bool Snapshot::any(Kind kind, std::string_view first) const {
  auto found = lowerBound(std::pair(kind, first), [](const Entry& entry, const auto& wanted) {
    return std::pair(entry.first.kind, entry.first.first()) < wanted;
  });
  return found != end() && found->first.kind == kind && found->first.first() == first;
}

bool Snapshot::anyOfMember(std::string_view member) const {
  auto all = allKinds();
  return std::any_of(all.begin(), all.end(), [&](const KindSpec& spec) {
    return spec.entity != MemberEntity::none && any(spec.kind, member);
  });
}

Snapshot Snapshot::with(std::vector<Change> changes, std::vector<Path>& changed) const {
  changed.clear();
  Snapshot result;
  auto change = changes.begin();
  for (const auto& chunk : chunks_) {
    auto end = std::partition_point(change, changes.end(),
                                    [&](const Change& one) { return one.first <= chunk->back().first; });
    size_t before = changed.size();
    Chunk now = change == end ? Chunk() : merged(*chunk, change, end, changed);
    change = end;
    if (changed.size() != before) {
      result.append(std::move(now));
    } else {
      result.chunks_.push_back(chunk);
      result.size_ += chunk->size();
    }
  }
  result.append(merged(Chunk(), change, changes.end(), changed));
  return result;
}

std::vector<Path> differences(const Snapshot& before, const Snapshot& after) {
  std::vector<Path> paths;
  if (before.size() == 0) paths.reserve(after.size());
  auto a = before.begin();
  auto b = after.begin();
  while (a != before.end() || b != after.end()) {
    bool onlyA = b == after.end() || (a != before.end() && a->first < b->first);
    bool onlyB = a == before.end() || (b != after.end() && b->first < a->first);
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
