#include "kelstore/etcd/Decoder.h"

#include <fmt/format.h>

#include <functional>
#include <utility>

#include "kelstore/Document.h"
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

Decoder::Decoded Decoder::decode(std::vector<Change> changes) {
  std::map<Path, std::optional<Value>> values;
  Decoded decoded;
  for (Change& change : changes) decode(std::move(change), decoded, values);
  decoded.changes.assign(std::make_move_iterator(values.begin()), std::make_move_iterator(values.end()));
  return decoded;
}

void Decoder::decode(Change change, Decoded& decoded, std::map<Path, std::optional<Value>>& values) {
  absl::StatusOr<Path> path = keys_.path(change.key);
  if (path.ok() && specOf(path->kind).entity != MemberEntity::none) {
    int64_t& lease = decoded.members[std::string(path->first())];
    if (change.value && change.lease != 0) lease = change.lease;
  }
  if (!change.value) {
    noteRight(change.key);
    warned_.erase(change.key);
    if (path.ok()) values[*std::move(path)] = std::nullopt;
  } else if (!path.ok()) {
    noteWrong(change.key, Runtime::textOf(path.status()));
  } else if (change.oversizeBytes != 0) {
    noteWrong(change.key, fmt::format("found a value of {} bytes, expected at most {}", change.oversizeBytes,
                                      limits_.valueBytes));
    decoded.unusable.insert(*std::move(path));
  } else if (auto value = valueOf(change.key, *path, *change.value)) {
    values[*std::move(path)] = std::move(value);
  } else {
    decoded.unusable.insert(*std::move(path));
  }
}

std::optional<Value> Decoder::valueOf(const std::string& key, const Path& path, const std::string& text) {
  Document document = parseValue(path, text);
  if (document.unusable) {
    // The text begins with the place: ":1:7: ...".
    noteWrong(key, document.unusable->substr(document.unusable->find_first_not_of(": ")));
    return std::nullopt;
  }
  if (!document.faults.empty()) {
    noteWrong(key, withoutPath(path, document.faults.front().text));
    return std::nullopt;
  }
  noteRight(key);
  noteWarning(key, document.warnings.empty() ? "" : withoutPath(path, document.warnings.front()));
  return std::move(document.values.front().second);
}

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
