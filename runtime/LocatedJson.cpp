#include "runtime/LocatedJson.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "runtime/JsonText.h"

namespace Runtime {
namespace {

using nlohmann::json;

// Where the parser is. A number's end is only known from the byte behind it: so the line is that of the last
// byte that was taken, even if this is a newline.
struct Reading {
  size_t line = 1;
  bool newline = false;  // the last byte was one

  void take(char c) {
    if (newline) ++line;
    newline = c == '\n';
  }
};

// Bytes of a text for the parser, which copies iterators.
class Bytes {
 public:
  using iterator_category = std::forward_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  Bytes() = default;
  Bytes(const char* at, Reading& reading) : at_(at), reading_(&reading) {}
  reference operator*() const { return *at_; }
  Bytes& operator++() {
    reading_->take(*at_++);
    return *this;
  }
  Bytes operator++(int) {
    Bytes before = *this;
    ++*this;
    return before;
  }
  bool operator==(const Bytes& other) const { return at_ == other.at_; }

 private:
  const char* at_ = nullptr;
  Reading* reading_ = nullptr;
};

// No configuration is as deep. What copies or prints values goes down one by one, and places grow with the
// depth.
constexpr size_t kMaxDepth = 16;

class TooDeep final : public std::exception {};

// Follows the parser, and notes where each value is: a member where its name is.
class Places {
 public:
  Places(const Reading& reading, LocatedJson& located) : reading_(reading), located_(located) {}

  bool event(json::parse_event_t event, const json& value) {
    using Event = json::parse_event_t;
    if (event == Event::key) {
      key(value.get_ref<const std::string&>());
    } else if (event == Event::object_end || event == Event::array_end) {
      open_.pop_back();
    } else {
      if (event != Event::value && open_.size() == kMaxDepth) throw TooDeep();
      bool isMember = !open_.empty() && !open_.back().isArray;
      std::string place = nextPlace();
      if (!isMember) located_.lines.insert_or_assign(place, reading_.line);
      if (event != Event::value) open_.push_back({event == Event::array_start, std::move(place), 0, {}});
    }
    return true;
  }

 private:
  struct Open {
    bool isArray;
    std::string place;
    size_t elements;
    std::set<std::string> names;
  };

  void key(const std::string& name) {
    Open& object = open_.back();
    member_ = jsonPlace(object.place, name);
    located_.lines.insert_or_assign(member_, reading_.line);
    if (!object.names.insert(name).second) {
      located_.faults.push_back({member_, "found it twice in one object, expected it once"});
    }
  }

  std::string nextPlace() {
    if (open_.empty()) return "";
    Open& parent = open_.back();
    return parent.isArray ? fmt::format("{}[{}]", parent.place, parent.elements++) : member_;
  }

  const Reading& reading_;
  LocatedJson& located_;
  std::vector<Open> open_;
  std::string member_;  // the place of the last key
};

}  // namespace

size_t LocatedJson::lineOf(std::string_view where) const {
  for (;;) {
    if (auto found = lines.find(where); found != lines.end()) return found->second;
    if (where.empty()) return 1;
    size_t end = where.find_last_of("/[");
    where = where.substr(0, end == std::string_view::npos ? 0 : end);
  }
}

LocatedJson parseLocated(std::string_view text) {
  LocatedJson located;
  located.json = std::make_shared<json>(json::object());
  Reading reading;
  Places places(reading, located);
  try {
    *located.json = json::parse(
        Bytes(text.data(), reading), Bytes(text.data() + text.size(), reading),
        [&places](int, json::parse_event_t event, json& value) { return places.event(event, value); });
  } catch (const TooDeep&) {
    located.unusable = fmt::format("{}: found values within more than {} others, expected {} at most",
                                   reading.line, kMaxDepth, kMaxDepth);
  } catch (const json::out_of_range& error) {
    // A number that no computer has.
    located.unusable = fmt::format("{}: {}", reading.line, syntaxMessage(error.what()));
  } catch (const json::parse_error& error) {
    // The parser's position includes the character that it rejects.
    size_t offset = error.byte > 0 ? error.byte - 1 : 0;
    bool blank = std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c); });
    located.unusable =
        fmt::format("{}: {}", lineAndColumn(text, offset),
                    blank ? "found nothing, expected a JSON object" : syntaxMessage(error.what()));
  }
  return located;
}

}  // namespace Runtime
