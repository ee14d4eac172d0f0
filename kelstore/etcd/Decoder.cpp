#include "kelstore/etcd/Decoder.h"

#include <fmt/format.h>

#include <functional>
#include <utility>

#include "kelstore/Packed.h"
#include "platform/lumalog/Lumalog.h"
#include "runtime/Errors.h"
#include "runtime/Text.h"

namespace Kelstore::Etcd {
namespace {

using Lumalog::kErrorLevel;
using Lumalog::kWarningLevel;
constexpr size_t kMaxKeyText = 200;

// The text without the path at its beginning, which the key says already.
std::string withoutPath(const Path& path, const std::string& text) {
  std::string intro = path.text();
  return text.starts_with(intro) ? text.substr(text.find_first_not_of("/: ", intro.size())) : text;
}

}  // namespace

Decoder::Decoded Decoder::decode(Batch batch, const Snapshot& before) {
  Work work{{}, {}, before, batch.whole};
  if (batch.whole) {
    given_.clear();
    ownValues_.clear();
  }
  for (Change& change : batch.changes) decode(std::move(change), work);
  work.decoded.changes.assign(std::make_move_iterator(work.values.begin()),
                              std::make_move_iterator(work.values.end()));
  return std::move(work.decoded);
}

void Decoder::decode(Change change, Work& work) {
  absl::StatusOr<Path> path = keys_.path(change.key);
  if (path.ok() && specOf(path->kind).entity != MemberEntity::none) {
    int64_t& lease = work.decoded.members[std::string(path->first())];
    if (change.value && change.lease != 0) lease = change.lease;
  }
  if (!change.value) {
    noteRight(change.key);
    warned_.erase(change.key);
    if (!path.ok()) return;
    if (specOf(path->kind).packed()) return withdrawForm(*path, work);
    ownValueIs(*path, std::nullopt, work);
  } else if (!path.ok()) {
    noteWrong(change.key, Runtime::textOf(path.status()));
  } else if (change.oversizeBytes != 0) {
    noteWrong(change.key, fmt::format("found a value of {} bytes, expected at most {}", change.oversizeBytes,
                                      limits_.valueBytes));
    Document nothing;
    nothing.unusable = "";
    take(*path, std::move(nothing), change.lease, work);
  } else {
    take(*path, documentOf(change.key, *path, *change.value), change.lease, work);
  }
}

void Decoder::take(const Path& path, Document&& document, int64_t lease, Work& work) {
  if (document.unusable) document.faults.push_back({path.segments(), ""});
  for (const Document::Fault& fault : document.faults) work.decoded.unusable.add(fault.segments);
  if (specOf(path.kind).packed()) {
    unpack(path, std::move(document), lease, work);
  } else if (!document.values.empty()) {
    ownValueIs(path, std::move(document.values.front().second), work);
  }
}

Document Decoder::documentOf(const std::string& key, const Path& path, const std::string& text) {
  Document document = parseValue(path, text, limits_);
  if (document.unusable) {
    // The text begins with the place: ":1:7: ...".
    noteWrong(key, document.unusable->substr(document.unusable->find_first_not_of(": ")));
  } else if (!document.faults.empty()) {
    noteWrong(key, withoutPath(path, document.faults.front().text));
  } else if (!document.surplus.empty()) {
    noteWrong(key, withoutPath(path, document.surplus.front().text));
  } else {
    noteRight(key);
    noteWarning(key, document.warnings.empty() ? "" : withoutPath(path, document.warnings.front()));
  }
  return document;
}

// Packed forms.

void Decoder::unpack(const Path& form, Document&& document, int64_t lease, Work& work) {
  std::vector<Path> before = givenBefore(form, work);
  std::set<Path> given;
  for (auto& [path, value] : document.values) {
    given.insert(path);
    if (path.kind == Kind::system) work.decoded.goingOn[path] = lease != 0;
    givenIs(path, std::move(value), work);
  }
  FaultyPlaces faulty(document);
  for (const Path& path : before) {
    if (given.contains(path)) continue;
    if (faulty.affect(path)) {
      given.insert(path);
      ownValues_.try_emplace(path);
    } else {
      withdrawGiven(path, work);
    }
  }
  given_[form].assign(given.begin(), given.end());
}

// When a whole batch begins, nothing is known of what was given before, and only what stays, since a part of
// the form cannot be used, matters.
std::vector<Path> Decoder::givenBefore(const Path& form, const Work& work) const {
  if (auto known = given_.find(form); known != given_.end()) return known->second;
  std::vector<Path> paths;
  if (!work.whole || work.decoded.unusable.empty()) return paths;
  for (const auto& [path, value] : work.before) {
    if (packedFormOf(path) == form && !work.values.contains(path)) paths.push_back(path);
  }
  return paths;
}

void Decoder::withdrawForm(const Path& form, Work& work) {
  auto known = given_.find(form);
  if (known == given_.end()) return;
  std::vector<Path> given = std::move(known->second);
  given_.erase(known);
  for (const Path& path : given) withdrawGiven(path, work);
}

void Decoder::ownValueIs(const Path& path, std::optional<Value> value, Work& work) {
  if (auto given = ownValues_.find(path); given != ownValues_.end()) {
    given->second = std::move(value);
    return;
  }
  if (path.kind == Kind::system) work.decoded.goingOn[path] = false;
  work.values[path] = std::move(value);
}

void Decoder::givenIs(const Path& path, Value value, Work& work) {
  auto [own, isNew] = ownValues_.try_emplace(path);
  if (isNew) {
    if (auto decoded = work.values.find(path); decoded != work.values.end()) {
      own->second = decoded->second;
    } else if (const Value* had = work.whole ? nullptr : work.before.find(path)) {
      own->second = *had;
    }
  }
  work.values[path] = std::move(value);
}

void Decoder::withdrawGiven(const Path& path, Work& work) {
  auto own = ownValues_.extract(path);
  if (path.kind == Kind::system) work.decoded.goingOn[path] = false;
  work.values[path] = own.empty() ? std::nullopt : std::move(own.mapped());
}

// What is set aside.

void Decoder::noteWrong(const std::string& key, std::string what) {
  auto known = setAside_.find(key);
  if (known == setAside_.end() && setAside_.size() >= limits_.remembered) {
    if (!setAsideToo_.insert(std::hash<std::string>()(key)).second) return;
  } else {
    if (known != setAside_.end() && known->second == what) return;
    setAside_[key] = what;
  }
  tell(kErrorLevel, key, what);
}

void Decoder::noteRight(const std::string& key) {
  if (setAside_.erase(key) == 0) setAsideToo_.erase(std::hash<std::string>()(key));
}

void Decoder::noteWarning(const std::string& key, std::string warning) {
  auto known = warned_.find(key);
  if (warning.empty()) {
    if (known != warned_.end()) warned_.erase(known);
    return;
  }
  if (known != warned_.end() ? known->second == warning : warned_.size() >= limits_.remembered) return;
  tell(kWarningLevel, key, warning);
  warned_[key] = std::move(warning);
}

void Decoder::tell(int level, const std::string& key, std::string_view what) {
  if (lines_.size() < kMaxLines) {
    std::string shown = Runtime::shortened(key, kMaxKeyText);
    lines_.push_back({level, fmt::format("key {}: {}", shown, what), shown});
  } else {
    ++untold_;
  }
}

std::vector<Line> Decoder::takeLines() {
  std::vector<Line> lines = std::exchange(lines_, {});
  if (untold_ != 0) lines.push_back({kErrorLevel, fmt::format("{} more like these", untold_)});
  untold_ = 0;
  return lines;
}

}  // namespace Kelstore::Etcd
