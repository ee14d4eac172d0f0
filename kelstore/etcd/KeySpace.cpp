#include "kelstore/etcd/KeySpace.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "runtime/Text.h"

namespace Kelstore::Etcd {
namespace {

constexpr const char* kMembers = "members";
constexpr const char* kLeaving = "leaving";
constexpr size_t kMostLeaving = 256;

bool isBare(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~").find(c) != std::string_view::npos;
}

// The text with "%XX" decoded.
std::string decoded(std::string_view text) {
  std::string segment;
  for (size_t at = 0; at < text.size(); ++at) {
    unsigned char byte = 0;
    const char* digits = text.data() + at + 1;
    bool encoded = text[at] == '%' && text.size() - at > 2 &&
                   std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2;
    segment += encoded ? static_cast<char>(byte) : text[at];
    if (encoded) at += 2;
  }
  return segment;
}

}  // namespace

std::string encodedSegment(std::string_view segment) {
  std::string text;
  for (char c : segment) {
    if (isBare(c)) {
      text += c;
    } else {
      text += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
  }
  return text;
}

absl::StatusOr<std::vector<std::string>> segmentsOf(std::string_view text) {
  std::vector<std::string> segments;
  for (size_t at = 0; at <= text.size();) {
    size_t slash = std::min(text.find('/', at), text.size());
    std::string_view spelt = text.substr(at, slash - at);
    at = slash + 1;
    segments.push_back(decoded(spelt));
    std::string canonical = encodedSegment(segments.back());
    if (canonical == spelt) continue;
    return absl::InvalidArgumentError(fmt::format("{}: found {}, expected {}", pathText(segments),
                                                  Runtime::inQuotes(spelt), Runtime::inQuotes(canonical)));
  }
  return segments;
}

std::string KeySpace::key(std::span<const std::string> segments) const {
  std::string key = prefix_;
  for (const std::string& segment : segments) key += "/" + encodedSegment(segment);
  return key;
}

KeyRange KeySpace::below(std::span<const std::string> segments) const {
  std::string stem = key(segments);
  // '0' is the byte after '/'.
  return {stem + '/', stem + '0'};
}

absl::StatusOr<Path> KeySpace::path(std::string_view key) const {
  if (!key.starts_with(prefix_ + "/")) {
    return absl::NotFoundError(
        fmt::format("found {}, expected a key below {}", Runtime::inQuotes(key), Runtime::inQuotes(prefix_)));
  }
  absl::StatusOr<std::vector<std::string>> segments = segmentsOf(key.substr(prefix_.size() + 1));
  if (!segments.ok()) return segments.status();
  std::span<const std::string> all = *segments;
  Walk end = walk(all);
  const Position& position = end.position;
  if (position.what == Position::What::badKey) return absl::InvalidArgumentError(badKeyText(all, end));
  if (position.what == Position::What::unknown || end.depth < all.size()) {
    return absl::NotFoundError(fmt::format("{}: unknown, ignored", pathText(all)));
  }
  if (position.what != Position::What::leaf) {
    return absl::NotFoundError(
        fmt::format("{}: found a key, expected keys below it only; ignored", pathText(all)));
  }
  // A name that is not UTF-8 can be neither logged nor served.
  for (const std::string& segment : all) {
    if (Runtime::isUtf8(segment)) continue;
    return absl::InvalidArgumentError(fmt::format("{}: found {}, expected UTF-8", pathText(all),
                                                  Runtime::inQuotes(encodedSegment(segment))));
  }
  return position.path;
}

std::string KeySpace::leavingKey(uint8_t member) const {
  return key(std::vector<std::string>{kMembers, std::to_string(member), kLeaving});
}

bool KeySpace::isLeavingKey(std::string_view key) const {
  if (!key.ends_with(kLeaving) || !key.starts_with(prefix_ + "/")) return false;
  absl::StatusOr<std::vector<std::string>> segments = segmentsOf(key.substr(prefix_.size() + 1));
  return segments.ok() && segments->size() == 3 && segments->front() == kMembers &&
         segments->back() == kLeaving;
}

KeyTable::GroupOf KeySpace::groups(const Limits& limits) const {
  return [keys = *this, limits](const std::string& key) -> KeyTable::Group {
    if (key.size() > limits.keyBytes) return {kLongKeys, 0};
    if (keys.isLeavingKey(key)) return {kLeaving, kMostLeaving};
    absl::StatusOr<Path> path = keys.path(key);
    if (absl::IsNotFound(path.status())) return {kForeignKeys, 0};
    if (!path.ok()) return {kMisspeltKeys, limits.remembered};
    std::vector<std::string> beside = path->segments();
    if (beside.size() > 1) beside.pop_back();
    return {pathText(beside), mostBeside(path->kind, limits)};
  };
}

}  // namespace Kelstore::Etcd
