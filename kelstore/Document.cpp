#include "kelstore/Document.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <unordered_set>

#include "kelstore/Packed.h"
#include "runtime/JsonFields.h"
#include "runtime/JsonText.h"
#include "runtime/Memory.h"
#include "runtime/Text.h"

namespace Kelstore {
namespace {

// The state is four levels deep; a text that is deeper than this is no state.
constexpr size_t kMaxDepth = 64;
constexpr size_t kValuesBetweenLooks = 1024;

// Follows the parser's events through the positions of the state: walks into objects that have further
// positions, collects and decodes leaves, and skips everything else.
class Reader {
 public:
  using json = nlohmann::json;

  // segments: the position of the text. Limits and document outlive the reader.
  Reader(std::string_view text, std::vector<std::string> segments, const Limits& limits, Document& document)
      : text_(text),
        limits_(limits),
        document_(document),
        segments_(std::move(segments)),
        next_(positionOf(segments_)) {}

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
    if (inLeaf()) {
      open_.back().member = name;
    } else {
      enter(name);
    }
    return true;
  }

  // To be called when the text was read to its end.
  void ends() {
    if (unpacked_.empty()) return;
    std::set<Path> paths;
    for (const auto& [path, value] : unpacked_) paths.insert(path);
    std::erase_if(document_.values, [&](const Snapshot::Entry& entry) {
      if (!paths.contains(entry.first)) return false;
      warn(fmt::format("{}: found in {} too, which counts", entry.first.text(),
                       packedFormOf(entry.first)->text()));
      return true;
    });
    std::move(unpacked_.begin(), unpacked_.end(), std::back_inserter(document_.values));
  }

  bool parse_error(size_t position, const std::string& /*token*/, const json::exception& error) {
    bool blank = std::all_of(text_.begin(), text_.end(), [](unsigned char c) { return std::isspace(c); });
    std::string nothing =
        fmt::format("found nothing, expected a JSON {}", segments_.empty() ? "object" : "value");
    // The parser's position includes the character that it rejects.
    size_t offset = position > 0 ? position - 1 : 0;
    unusable(offset, blank ? nothing : Runtime::syntaxMessage(error.what()));
    return false;
  }

 private:
  using What = Position::What;

  // An object that is walked into.
  struct Object {
    std::unordered_set<std::string> names;  // of the members that were accepted
    size_t surplus = 0;                     // values that were left out
    size_t most = 0;                        // the limit that they exceed
  };

  // An object within a leaf, whose members are collected: the leaf itself and, of a packed form, those in it.
  struct Inner {
    json* object = nullptr;
    std::string member{};  // the last one
  };

  bool inLeaf() const { return !open_.empty(); }

  void enter(const std::string& name) {
    segments_.push_back(name);
    next_ = positionOf(segments_);
    if (next_.what == What::badKey) {
      fault(fmt::format("found {}, expected {}", Runtime::inQuotes(name), next_.expected));
    } else if (next_.what == What::unknown) {
      warn(pathText(segments_) + ": unknown member, ignored");
    } else if (isSurplus(name)) {
      ++objects_.back().surplus;
    } else if (!objects_.back().names.insert(name).second) {
      fault("found twice, expected once");
    } else {
      return;
    }
    next_.what = What::unknown;
  }

  bool isFull() const { return document_.values.size() + unpacked_.size() >= limits_.values; }

  bool isSurplus(const std::string& name) {
    if (next_.what != What::leaf) return false;
    Object& object = objects_.back();
    size_t most = mostBeside(next_.path.kind, limits_);
    bool tooManyHere = object.names.size() >= most && !object.names.contains(name);
    bool tooMany = isFull();
    if (tooManyHere || tooMany) object.most = tooManyHere ? most : limits_.values;
    return tooManyHere || tooMany;
  }

  bool scalar(json value) {
    if (skipping_ > 0) return true;
    if (!inLeaf()) return wholeValue(std::move(value));
    leafMemberIs(std::move(value));
    return true;
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
    } else if (inLeaf()) {
      openInLeaf(std::move(empty));
    } else if (isObject && next_.what == What::leaf) {
      leaf_ = std::move(empty);
      open_.push_back({&leaf_});
    } else if (isObject && (next_.what == What::interior || next_.what == What::container)) {
      if (next_.what == What::container) add(Present{});
      objects_.emplace_back();
    } else {
      ++skipping_;
      skipped_ = std::move(empty);
    }
    return true;
  }

  bool close() {
    --depth_;
    if (skipping_ > 0) {
      if (--skipping_ > 0 || inLeaf()) return true;
      return wholeValue(std::move(skipped_));
    }
    if (inLeaf()) {
      open_.pop_back();
      return inLeaf() || wholeValue(std::move(leaf_));
    }
    if (const Object& object = objects_.back(); object.surplus != 0) {
      document_.surplus.push_back({fmt::format("{}: {} left out, as there are more than {}",
                                               pathText(segments_), object.surplus, object.most),
                                   object.surplus});
    }
    objects_.pop_back();
    leave();
    return !hopeless();
  }

  // No member of a value is an object or an array: its kind is enough to say what is wrong. Packed forms have
  // objects.
  void openInLeaf(json empty) {
    bool collect = empty.is_object() && specOf(next_.path.kind).packed();
    json* object = leafMemberIs(std::move(empty));
    if (collect && object != nullptr) {
      open_.push_back({object});
    } else {
      ++skipping_;
    }
  }

  // The member; null if it is there already, which is a fault.
  json* leafMemberIs(json value) {
    Inner& inner = open_.back();
    auto [member, added] = inner.object->emplace(inner.member, std::move(value));
    if (added) return &*member;
    std::vector<std::string> where = segments_;
    for (const Inner& one : open_) where.push_back(one.member);
    document_.faults.push_back({segments_, pathText(where) + ": found twice, expected once"});
    return nullptr;
  }

  // Called at the end of a value that was not walked into.
  bool wholeValue(json value) {
    if (segments_.empty()) {
      unusable(0, Runtime::foundExpected(value, "an object"));
      return false;
    }
    if (next_.what == What::leaf) {
      decodeLeaf(std::move(value));
    } else if (next_.what != What::unknown) {
      fault(Runtime::foundExpected(value, "an object"));
    }
    leave();
    return !hopeless();
  }

  void decodeLeaf(json&& value) {
    if (specOf(next_.path.kind).packed()) return addUnpacked(unpacked(next_.path, std::move(value), limits_));
    Runtime::JsonNotes notes;
    std::optional<Value> decoded = specOf(next_.path.kind).decode(value, notes);
    for (const Runtime::JsonNote& note : notes.warnings) warn(textOf(note));
    for (const Runtime::JsonNote& note : notes.faults) fault(note);
    if (decoded) add(*std::move(decoded));
  }

  // Checks the memory only now and then, since a check takes time.
  void add(Value value) {
    if ((document_.values.size() + 1) % kValuesBetweenLooks == 0) Runtime::needMemoryFor(0);
    document_.values.emplace_back(next_.path, std::move(value));
  }

  void addUnpacked(Document&& part) {
    size_t surplus = 0;
    for (Snapshot::Entry& entry : part.values) {
      if (isFull()) {
        ++surplus;
      } else {
        unpacked_.push_back(std::move(entry));
      }
    }
    for (Document::Fault& fault : part.faults) document_.faults.push_back(std::move(fault));
    for (Document::Surplus& one : part.surplus) document_.surplus.push_back(std::move(one));
    for (std::string& warning : part.warnings) warn(std::move(warning));
    if (surplus == 0) return;
    document_.surplus.push_back({fmt::format("{}: {} left out, as there are more than {}",
                                             pathText(segments_), surplus, limits_.values),
                                 surplus});
  }

  std::string textOf(const Runtime::JsonNote& note) const {
    std::vector<std::string> where = segments_;
    if (!note.where.empty()) where.push_back(note.where);
    return fmt::format("{}: {}", pathText(where), note.text);
  }

  void leave() {
    if (!segments_.empty()) segments_.pop_back();
  }

  void fault(const Runtime::JsonNote& note) { document_.faults.push_back({segments_, textOf(note)}); }
  void fault(std::string text) { fault(Runtime::JsonNote{"", std::move(text)}); }

  void warn(std::string text) {
    if (document_.warnings.size() < limits_.remembered) document_.warnings.push_back(std::move(text));
  }

  // Whether there are too many faults to go on.
  bool hopeless() {
    if (document_.faults.size() <= limits_.remembered) return false;
    document_.unusable = fmt::format(": found more than {} values that cannot be used, the first is {}",
                                     limits_.remembered, document_.faults.front().text);
    return true;
  }

  void unusable(size_t offset, std::string_view text) {
    document_.unusable = fmt::format(":{}: {}", Runtime::lineAndColumn(text_, offset), text);
  }

  std::string_view text_;
  const Limits& limits_;
  Document& document_;
  std::vector<std::string> segments_;  // where the walk is
  Position next_;                      // what is there
  std::vector<Object> objects_;        // from the root to where the walk is
  size_t depth_ = 0;
  size_t skipping_ = 0;  // open objects and arrays of the value that is skipped
  json skipped_;         // its kind
  json leaf_;
  std::vector<Inner> open_;               // within the leaf, the outermost first
  std::deque<Snapshot::Entry> unpacked_;  // values that packed forms give
};

Document parseAt(std::vector<std::string> segments, std::string_view text, const Limits& limits) {
  Document document;
  Reader reader(text, std::move(segments), limits, document);
  if (nlohmann::json::sax_parse(text.begin(), text.end(), &reader)) reader.ends();
  if (document.unusable) {
    document.values.clear();
    document.faults.clear();
    document.surplus.clear();
    document.warnings.clear();
  }
  if (FaultyPlaces faulty(document); !faulty.empty()) {
    std::erase_if(document.values, [&faulty](const auto& entry) { return faulty.affect(entry.first); });
  }
  return document;
}

}  // namespace

Document parseDocument(std::string_view text, const Limits& limits) { return parseAt({}, text, limits); }

Document parseValue(const Path& path, std::string_view text, const Limits& limits) {
  return parseAt(path.segments(), text, limits);
}

FaultyPlaces::FaultyPlaces(const Document& document) {
  for (const Document::Fault& fault : document.faults) add(fault.segments);
}

bool FaultyPlaces::affect(const Path& path) const {
  if (places_.empty()) return false;
  std::vector<std::string> segments = path.segments();
  while (!segments.empty()) {
    if (places_.contains(segments)) return true;
    segments.pop_back();
  }
  std::optional<Path> form = packedFormOf(path);
  return form && places_.contains(form->segments());
}

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
  FaultyPlaces faulty(document);
  std::deque<Snapshot::Entry> entries = std::move(document.values);
  if (!faulty.empty()) {
    for (const Snapshot::Entry& entry : before) {
      if (faulty.affect(entry.first)) entries.push_back(entry);
    }
  }
  return Snapshot(std::move(entries));
}

}  // namespace Kelstore
