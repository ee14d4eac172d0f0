#include "kelstore/Document.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <unordered_set>

#include "runtime/JsonFields.h"
#include "runtime/JsonText.h"
#include "runtime/Text.h"

namespace Kelstore {
namespace {

// The state model is four levels deep; more than this is no state.
constexpr size_t kMaxDepth = 64;

// Follows the parser's events through the positions of the state model. A value is in one of three ways: an
// object of further positions is walked into; the value of a leaf is collected and decoded; anything else is
// skipped to its end.
class Reader {
 public:
  using json = nlohmann::json;

  // The text stands at these segments.
  Reader(std::string_view text, std::vector<std::string> segments, Document& document)
      : text_(text), document_(document), segments_(std::move(segments)), next_(positionOf(segments_)) {}

  // The interface that json::sax_parse() calls.
  bool null() { return scalar(nullptr); }
  bool boolean(bool value) { return scalar(value); }
  bool number_integer(json::number_integer_t value) { return scalar(value); }
  bool number_unsigned(json::number_unsigned_t value) { return scalar(value); }
  bool number_float(json::number_float_t value, const std::string& /*text*/) { return scalar(value); }
  bool string(std::string& value) { return scalar(std::move(value)); }
  bool binary(json::binary_t& /*value*/) { return scalar(nullptr); }
  bool start_object(size_t /*elements*/) { return open(json::object()); }
  bool start_array(size_t /*elements*/) { return open(json::array()); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }

  bool key(std::string& name) {
    if (skipping_ > 0) return true;
    if (inLeaf_) {
      leafMember_ = name;
    } else {
      enter(name);
    }
    return true;
  }

  bool parse_error(size_t position, const std::string& /*token*/, const json::exception& error) {
    bool blank = std::all_of(text_.begin(), text_.end(), [](unsigned char c) { return std::isspace(c); });
    std::string nothing =
        fmt::format("found nothing, expected a JSON {}", segments_.empty() ? "object" : "value");
    // The parser counts the character that it stumbled over.
    size_t offset = position > 0 ? position - 1 : 0;
    unusable(offset, blank ? nothing : Runtime::syntaxMessage(error.what()));
    return false;
  }

 private:
  using What = Position::What;

  void enter(const std::string& name) {
    segments_.push_back(name);
    next_ = positionOf(segments_);
    if (!seen_.back().insert(name).second) {
      fault("found twice, expected once");
    } else if (next_.what == What::badKey) {
      fault(fmt::format("found {}, expected {}", Runtime::inQuotes(name), next_.expected));
    } else if (next_.what == What::unknown) {
      document_.warnings.push_back(pathText(segments_) + ": unknown member, ignored");
    } else {
      return;
    }
    next_.what = What::unknown;
  }

  bool scalar(json value) {
    if (skipping_ > 0) return true;
    if (inLeaf_) {
      leafMemberIs(std::move(value));
      return true;
    }
    return wholeValue(std::move(value));
  }

  // An object or an array begins; `empty` is an empty one of its kind.
  bool open(json empty) {
    if (++depth_ > kMaxDepth) {
      document_.unusable = fmt::format(": {}found more than {} levels of nesting, expected 4",
                                       segments_.empty() ? "" : pathText(segments_) + ": ", kMaxDepth);
      return false;
    }
    bool isObject = empty.is_object();
    if (skipping_ > 0) {
      ++skipping_;
    } else if (inLeaf_) {
      // No member of a leaf is an object or an array: its kind is enough to say what is wrong.
      leafMemberIs(std::move(empty));
      ++skipping_;
    } else if (isObject && next_.what == What::leaf) {
      inLeaf_ = true;
      leaf_ = std::move(empty);
    } else if (isObject && (next_.what == What::interior || next_.what == What::container)) {
      if (next_.what == What::container) document_.values.emplace_back(next_.path, Present{});
      seen_.emplace_back();
    } else {
      ++skipping_;
      skipped_ = std::move(empty);
    }
    return true;
  }

  bool close() {
    --depth_;
    if (skipping_ > 0) {
      if (--skipping_ > 0 || inLeaf_) return true;
      return wholeValue(std::move(skipped_));
    }
    if (inLeaf_) {
      inLeaf_ = false;
      return wholeValue(std::move(leaf_));
    }
    seen_.pop_back();
    leave();
    return true;
  }

  void leafMemberIs(json value) {
    if (!leaf_.emplace(leafMember_, std::move(value)).second) {
      document_.faults.push_back({segments_, textOf({leafMember_, "found twice, expected once"})});
    }
  }

  // A value that was not walked into is complete.
  bool wholeValue(json value) {
    if (segments_.empty()) {
      unusable(0, Runtime::foundExpected(value, "an object"));
      return false;
    }
    if (next_.what == What::leaf) {
      decodeLeaf(value);
    } else if (next_.what != What::unknown) {
      fault(Runtime::foundExpected(value, "an object"));
    }
    leave();
    return true;
  }

  void decodeLeaf(const json& value) {
    Runtime::JsonNotes notes;
    std::optional<Value> decoded = specOf(next_.path.kind).decode(value, notes);
    for (const Runtime::JsonNote& note : notes.warnings) document_.warnings.push_back(textOf(note));
    for (const Runtime::JsonNote& note : notes.faults) document_.faults.push_back({segments_, textOf(note)});
    if (decoded) document_.values.emplace_back(next_.path, std::move(*decoded));
  }

  std::string textOf(const Runtime::JsonNote& note) const {
    std::vector<std::string> where = segments_;
    if (!note.where.empty()) where.push_back(note.where);
    return fmt::format("{}: {}", pathText(where), note.text);
  }

  void leave() {
    if (!segments_.empty()) segments_.pop_back();
  }

  void fault(std::string_view text) {
    document_.faults.push_back({segments_, fmt::format("{}: {}", pathText(segments_), text)});
  }

  void unusable(size_t offset, std::string_view text) {
    document_.unusable = fmt::format(":{}: {}", Runtime::lineAndColumn(text_, offset), text);
  }

  std::string_view text_;
  Document& document_;
  std::vector<std::string> segments_;                  // where the walk is
  Position next_;                                      // what is there
  std::vector<std::unordered_set<std::string>> seen_;  // keys of the objects that are walked into
  size_t depth_ = 0;
  size_t skipping_ = 0;  // open objects and arrays of the value that is skipped
  json skipped_;         // its kind
  bool inLeaf_ = false;
  json leaf_;
  std::string leafMember_;
};

// Whether one of the prefixes is a prefix of the path.
bool affected(const std::set<std::vector<std::string>>& prefixes, const Path& path) {
  if (prefixes.empty()) return false;
  std::vector<std::string> segments = path.segments();
  while (!segments.empty()) {
    if (prefixes.contains(segments)) return true;
    segments.pop_back();
  }
  return false;
}

Document parseAt(std::vector<std::string> segments, std::string_view text) {
  Document document;
  Reader reader(text, std::move(segments), document);
  nlohmann::json::sax_parse(text.begin(), text.end(), &reader);
  if (document.unusable) {
    document.values.clear();
    document.faults.clear();
    document.warnings.clear();
  }
  return document;
}

}  // namespace

Document parseDocument(std::string_view text) { return parseAt({}, text); }

Document parseValue(const Path& path, std::string_view text) { return parseAt(path.segments(), text); }

nlohmann::json documentOf(const Values& values) {
  auto document = nlohmann::json::object();
  for (const auto& [path, value] : values) {
    nlohmann::json* place = &document;
    for (const std::string& segment : path.segments()) place = &(*place)[segment];
    *place = encode(value);
  }
  return document;
}

Snapshot withLastGood(Document&& document, const Snapshot& before) {
  std::set<std::vector<std::string>> prefixes;
  for (const Document::Fault& fault : document.faults) prefixes.insert(fault.segments);
  std::vector<Snapshot::Entry> entries = std::move(document.values);
  std::erase_if(entries, [&](const Snapshot::Entry& entry) { return affected(prefixes, entry.first); });
  if (!prefixes.empty()) {
    for (const Snapshot::Entry& entry : before) {
      if (affected(prefixes, entry.first)) entries.push_back(entry);
    }
  }
  return Snapshot(std::move(entries));
}

}  // namespace Kelstore
