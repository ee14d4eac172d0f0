#include "kelstore/Path.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "runtime/Text.h"

namespace Kelstore {
namespace {

enum class Takes : uint8_t { literal, member, u32, s32, name };

struct Segment {
  Takes takes = Takes::literal;
  std::string_view text;  // of a literal
};

// The segments of a kind's path.
struct Pattern {
  Kind kind;
  bool container;
  std::vector<Segment> segments;
};

Takes takesOf(std::string_view segment) {
  if (!segment.starts_with('<')) return Takes::literal;
  if (segment == "<member>" || segment == "<neighbour>") return Takes::member;
  if (segment == "<index>") return Takes::u32;
  if (segment == "<number>") return Takes::s32;
  return Takes::name;
}

Pattern patternOf(const KindSpec& spec) {
  Pattern pattern{spec.kind, spec.container(), {}};
  for (size_t at = 0; at <= spec.path.size();) {
    size_t slash = std::min(spec.path.find('/', at), spec.path.size());
    std::string_view segment = spec.path.substr(at, slash - at);
    pattern.segments.push_back({takesOf(segment), segment});
    at = slash + 1;
  }
  return pattern;
}

// In the order of kinds.
const std::vector<Pattern>& patterns() {
  static const auto* table = [] {
    auto* all = new std::vector<Pattern>;
    for (const KindSpec& spec : allKinds()) all->push_back(patternOf(spec));
    return all;
  }();
  return *table;
}

// Only the canonical spelling counts, since "1" and "01" would name the same row.
template <class Number>
bool spells(std::string_view text) {
  Number number{};
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && std::to_string(number) == text;
}

// What the segment takes; empty if it takes the key.
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
    if (segment.takes == Takes::literal && segment.text != segments[i]) return false;
  }
  return true;
}

Path pathOf(const Pattern& pattern, std::span<const std::string> segments) {
  std::array<std::string_view, 2> names;
  auto* next = names.begin();
  for (size_t i = 0; i < segments.size(); ++i) {
    if (pattern.segments[i].takes != Takes::literal) *next++ = segments[i];
  }
  return {pattern.kind, names[0], names[1]};
}

}  // namespace

Path::Path(Kind ofKind, std::string_view first, std::string_view second) : kind(ofKind) {
  std::string names(first);
  if (!second.empty()) {
    names += '\0';
    names += second;
  }
  names_ = std::move(names);
}

std::string_view Path::second() const {
  size_t zero = names().find('\0');
  return zero == std::string_view::npos ? std::string_view() : names().substr(zero + 1);
}

std::vector<std::string> Path::segments() const {
  std::vector<std::string> all;
  std::string_view next = first();
  for (const Segment& segment : patterns()[static_cast<size_t>(kind)].segments) {
    if (segment.takes == Takes::literal) {
      all.emplace_back(segment.text);
    } else {
      all.emplace_back(next);
      next = second();
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

Walk walk(std::span<const std::string> segments) {
  using What = Position::What;
  Walk walk{positionOf({}), 0};
  while (walk.depth < segments.size() &&
         (walk.position.what == What::interior || walk.position.what == What::container)) {
    walk.position = positionOf(segments.first(++walk.depth));
  }
  return walk;
}

std::string badKeyText(std::span<const std::string> segments, const Walk& walk) {
  return fmt::format("{}: found {}, expected {}", pathText(segments.first(walk.depth)),
                     Runtime::inQuotes(segments[walk.depth - 1]), walk.position.expected);
}

}  // namespace Kelstore
