#include "kelstore/Path.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

#include "runtime/Text.h"

namespace Kelstore {
namespace {

constexpr size_t kMaxNameBytes = 4096;

enum class Takes : uint8_t { literal, member, u32, s32, name };

struct Segment {
  Takes takes = Takes::literal;
  std::string_view literal = {};
};

struct Pattern {
  Kind kind;
  bool container;
  std::vector<Segment> segments;
};

const std::vector<Pattern>& patterns() {
  constexpr Segment kMember{Takes::member};
  constexpr Segment kName{Takes::name};
  auto is = [](std::string_view text) { return Segment{Takes::literal, text}; };
  static const std::vector<Pattern> table = {
      {Kind::sysname, false, {is("sysname")}},
      {Kind::mountMapping, false, {is("storageMappings"), is("mounts"), kName}},
      {Kind::memoryMapping, false, {is("storageMappings"), is("memory"), {Takes::s32}}},
      {Kind::interface, false, {is("interfaces"), kName}},
      {Kind::link, false, {is("topology"), kMember, kMember}},
      {Kind::system, false, {is("members"), kMember, is("system")}},
      {Kind::memory, false, {is("members"), kMember, is("memory")}},
      {Kind::processors, true, {is("members"), kMember, is("processors")}},
      {Kind::processor, false, {is("members"), kMember, is("processors"), {Takes::u32}}},
      {Kind::storageAreas, true, {is("members"), kMember, is("storage")}},
      {Kind::storage, false, {is("members"), kMember, is("storage"), kName}},
      {Kind::neighbours, true, {is("members"), kMember, is("reachability")}},
      {Kind::reachability, false, {is("members"), kMember, is("reachability"), kMember}},
  };
  return table;
}

// Only the canonical spelling counts, since "1" and "01" would name the same row.
template <class Number>
bool spells(std::string_view text) {
  Number number{};
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && std::to_string(number) == text;
}

// What the segment takes, when the key is none of it; empty when it is.
std::string expectedInstead(Takes takes, std::string_view key) {
  switch (takes) {
    case Takes::literal:
      return {};
    case Takes::member:
      return spells<uint8_t>(key) ? "" : "a member id, 0 to 255";
    case Takes::u32:
      return spells<uint32_t>(key) ? "" : "a number from 0 to 4294967295";
    case Takes::s32:
      return spells<int32_t>(key) ? "" : "a number from -2147483648 to 2147483647";
    case Takes::name:
      break;
  }
  bool good = !key.empty() && key.size() <= kMaxNameBytes && Runtime::isPlain(key);
  return good ? "" : "a name of 1 to 4096 bytes without control characters";
}

bool matches(const Pattern& pattern, std::span<const std::string> segments) {
  if (segments.size() > pattern.segments.size()) return false;
  for (size_t i = 0; i < segments.size(); ++i) {
    const Segment& segment = pattern.segments[i];
    if (segment.takes == Takes::literal && segment.literal != segments[i]) return false;
  }
  return true;
}

Path pathOf(const Pattern& pattern, std::span<const std::string> segments) {
  Path path{pattern.kind, {}, {}};
  std::string* next = &path.first;
  for (size_t i = 0; i < segments.size(); ++i) {
    if (pattern.segments[i].takes == Takes::literal) continue;
    *next = segments[i];
    next = &path.second;
  }
  return path;
}

}  // namespace

std::vector<std::string> Path::segments() const {
  const Pattern& pattern = patterns()[static_cast<size_t>(kind)];
  std::vector<std::string> all;
  const std::string* next = &first;
  for (const Segment& segment : pattern.segments) {
    if (segment.takes == Takes::literal) {
      all.emplace_back(segment.literal);
    } else {
      all.push_back(*next);
      next = &second;
    }
  }
  return all;
}

std::string Path::text() const { return pathText(segments()); }

std::string pathText(std::span<const std::string> segments) {
  std::string text;
  for (const std::string& segment : segments) {
    if (!text.empty()) text += '/';
    bool bare = !segment.empty() && segment.find('/') == std::string::npos && Runtime::isPlain(segment);
    text += bare ? Runtime::shortened(segment) : Runtime::inQuotes(segment);
  }
  return text;
}

Position positionOf(std::span<const std::string> segments) {
  Position position;
  if (segments.empty()) {
    position.what = Position::What::interior;
    return position;
  }
  for (const Pattern& pattern : patterns()) {
    if (!matches(pattern, segments)) continue;
    position.expected = expectedInstead(pattern.segments[segments.size() - 1].takes, segments.back());
    if (!position.expected.empty()) {
      position.what = Position::What::badKey;
      return position;
    }
    // Of the patterns that match, a container comes before those of its elements.
    position.what = Position::What::interior;
    if (pattern.segments.size() == segments.size()) {
      position.what = pattern.container ? Position::What::container : Position::What::leaf;
      position.path = pathOf(pattern, segments);
    }
    return position;
  }
  return position;
}

}  // namespace Kelstore
