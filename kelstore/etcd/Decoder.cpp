#include "kelstore/etcd/Decoder.h"

#include <fmt/format.h>

#include <utility>

#include "kelstore/Document.h"
#include "platform/lumalog/Lumalog.h"
#include "runtime/Text.h"

namespace Kelstore::Etcd {
namespace {

using Lumalog::kErrorLevel;
using Lumalog::kWarningLevel;
constexpr size_t kMaxKeyText = 200;

// The text without the path that it begins with, which the key says as well.
std::string withoutPath(const Path& path, const std::string& text) {
  std::string intro = path.text();
  return text.starts_with(intro) ? text.substr(text.find_first_not_of("/: ", intro.size())) : text;
}

}  // namespace

Decoder::Decoded Decoder::decode(std::vector<Change> changes) {
  std::map<Path, std::optional<Value>> result;
  Decoded decoded;
  for (Change& change : changes) {
    absl::StatusOr<Path> path = keys_.path(change.key);
    if (path.ok()) {
      if (specOf(path->kind).entity != MemberEntity::none) {
        int64_t& lease = decoded.members[std::string(path->first())];
        if (change.lease != 0) lease = change.lease;
      }
      if (!change.value) {
        setAside_.erase(change.key);
        warned_.erase(change.key);
        result[*std::move(path)] = std::nullopt;
      } else if (auto value = valueOf(change.key, *path, *change.value)) {
        result[*std::move(path)] = std::move(value);
      }
    } else if (!change.value) {
      setAside_.erase(change.key);
    } else if (absl::IsInvalidArgument(path.status())) {
      isWrong(change.key, std::string(path.status().message()));
    } else if (!std::exchange(toldOfForeignKey_, true)) {
      tell(kWarningLevel, change.key, "not of the state model; such keys are ignored");
    }
  }
  decoded.changes.assign(std::make_move_iterator(result.begin()), std::make_move_iterator(result.end()));
  return decoded;
}

std::optional<Value> Decoder::valueOf(const std::string& key, const Path& path, const std::string& text) {
  Document document = parseValue(path, text);
  if (document.unusable) {
    // It begins with the place: ":1:7: ...".
    isWrong(key, document.unusable->substr(document.unusable->find_first_not_of(": ")));
    return std::nullopt;
  }
  if (!document.faults.empty()) {
    isWrong(key, withoutPath(path, document.faults.front().text));
    return std::nullopt;
  }
  Value value = std::move(document.values.front().second);
  setAside_.erase(key);
  if (document.warnings.empty()) {
    warned_.erase(key);
    return value;
  }
  std::string warning = withoutPath(path, document.warnings.front());
  std::string& before = warned_[key];
  if (warning != before) tell(kWarningLevel, key, warning);
  before = std::move(warning);
  return value;
}

void Decoder::isWrong(const std::string& key, std::string what) {
  std::string& before = setAside_[key];
  if (before == what) return;
  tell(kErrorLevel, key, what);
  before = std::move(what);
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
