#include "kelstore/Packed.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "kelstore/Fields.h"

namespace Kelstore {
namespace {

using Json = nlohmann::json;

// The system's figures within `figures`.
struct Head {
  std::optional<double> bootTime;
  double clock = 0;
  uint32_t users = 0;
  uint32_t processes = 0;
  uint32_t memorySize = 0;
};

// A machine whose clock began with 1970 and was not set yet started before.
constexpr Runtime::JsonNumber kBootSeconds{-900'000'000'000'000, 2005949145599};

// What the head and the memory take as JSON, at most.
constexpr size_t kHeadBytes = 400;
// The same of a load without its index, and of a file system without its mount point.
constexpr size_t kLoadBytes = 10;
constexpr size_t kFilesystemBytes = 100;

constexpr const char* kMemory = "memory";
constexpr const char* kLoads = "loads";
constexpr const char* kClock = "clock";
constexpr const char* kBootTime = "bootTime";

double inMilliseconds(double seconds) { return std::round(seconds * 1000) / 1000; }

}  // namespace

template <>
constexpr auto kFields<Head> = std::tuple(
    field(kBootTime, &Head::bootTime, kBootSeconds,
          "seconds since 1970 UTC when the machine started: `uptime` is the time from then to "
          "`clock`, or 0"),
    field(kClock, &Head::clock, kUtcSeconds,
          "seconds since 1970 UTC when the publisher wrote: `currentTimeUtc`"),
    field("users", &Head::users, "sessions of users"), field("processes", &Head::processes, "processes"),
    field("memorySize", &Head::memorySize, "KiB"));

namespace {

// Unpacks one object.
class Unpacker {
 public:
  Unpacker(const Path& path, const Limits& limits, Document& document)
      : place_(path.segments()), member_(path.first()), limits_(limits), document_(document) {}

  void figures(Json&& object) {
    if (!isObject(object)) return;
    std::optional<Json> memory = take(object, kMemory);
    std::optional<Json> loads = take(object, kLoads);
    system(object);
    if (memory) whole({Kind::memory, member_, ""}, *memory, kMemory);
    if (loads) elements(Kind::processor, *loads, {kLoads});
  }

  void filesystems(const Json& object) {
    if (isObject(object)) elements(Kind::storage, object, {});
  }

 private:
  using Segments = std::vector<std::string>;

  bool isObject(const Json& value) {
    if (!value.is_object()) fault(place_, {}, Runtime::foundExpected(value, "an object"));
    return value.is_object();
  }

  static std::optional<Json> take(Json& object, const char* name) {
    auto found = object.find(name);
    if (found == object.end()) return std::nullopt;
    Json value = std::move(*found);
    object.erase(found);
    return value;
  }

  void system(const Json& object) {
    Path path{Kind::system, member_, ""};
    Runtime::JsonNotes notes;
    std::optional<Head> head = decodeStruct<Head>(object, notes);
    if (head && head->bootTime && *head->bootTime > head->clock) {
      notes.faults.push_back(
          {kBootTime, fmt::format("found {}, expected at most the clock, {}", *head->bootTime, head->clock)});
      head.reset();
    }
    note(path, notes, {});
    if (!head) return;
    double uptime = head->bootTime ? inMilliseconds(head->clock - *head->bootTime) : 0;
    add(path, System{uptime, head->clock, head->users, head->processes, head->memorySize});
  }

  void whole(const Path& path, const Json& value, const std::string& name) {
    Runtime::JsonNotes notes;
    std::optional<Value> decoded = specOf(path.kind).decode(value, notes);
    note(path, notes, {name});
    if (decoded) add(path, *std::move(decoded));
  }

  // The elements of a container, by their last segment.
  void elements(Kind kind, const Json& object, const Segments& within) {
    Segments container = Path(kind, member_, "0").segments();
    container.pop_back();
    if (!object.is_object()) return fault(container, within, Runtime::foundExpected(object, "an object"));
    size_t most = mostBeside(kind, limits_);
    size_t surplus = object.size() - std::min(object.size(), most);
    for (const auto& [name, value] : object.items()) {
      if (most-- == 0) break;
      Segments place = container;
      place.push_back(name);
      Segments named = within;
      named.push_back(name);
      Position position = positionOf(place);
      if (position.what == Position::What::badKey) {
        fault(place, named, fmt::format("found {}, expected {}", Runtime::inQuotes(name), position.expected));
      } else {
        element(position.path, value, named);
      }
    }
    if (surplus == 0) return;
    document_.surplus.push_back({fmt::format("{}: {} left out, as there are more than {}", text(within),
                                             surplus, mostBeside(kind, limits_)),
                                 surplus});
  }

  void element(const Path& path, const Json& value, const Segments& named) {
    // A load stands for the object that has it alone.
    Runtime::JsonNotes notes;
    Json object = path.kind == Kind::processor ? Json{{"load", value}} : value;
    std::optional<Value> decoded = specOf(path.kind).decode(object, notes);
    if (path.kind == Kind::processor) {
      for (Runtime::JsonNote& fault : notes.faults) fault.where.clear();
    }
    note(path, notes, named);
    if (decoded) add(path, *std::move(decoded));
  }

  void add(const Path& path, Value value) { document_.values.emplace_back(path, std::move(value)); }

  void note(const Path& path, const Runtime::JsonNotes& notes, const Segments& within) {
    auto named = [&within](const Runtime::JsonNote& note) {
      Segments place = within;
      if (!note.where.empty()) place.push_back(note.where);
      return place;
    };
    for (const Runtime::JsonNote& one : notes.warnings) {
      document_.warnings.push_back(fmt::format("{}: {}", text(named(one)), one.text));
    }
    for (const Runtime::JsonNote& one : notes.faults) fault(path.segments(), named(one), one.text);
  }

  void fault(Segments affected, const Segments& named, const std::string& what) {
    document_.faults.push_back({std::move(affected), fmt::format("{}: {}", text(named), what)});
  }

  std::string text(const Segments& within) const {
    Segments all = place_;
    all.insert(all.end(), within.begin(), within.end());
    return pathText(all);
  }

  const Segments place_;  // of the packed form
  const std::string member_;
  const Limits& limits_;
  Document& document_;
};

// Collects the packed forms of one member.
struct Packing {
  std::optional<System> system;
  Json figures = Json::object();
  Json loads = Json::object();
  Json filesystems = Json::object();
  size_t figuresBytes = kHeadBytes;
  size_t filesystemsBytes = 2;

  // False if the value does not go into a packed form.
  bool take(const Path& path, const Value& value, size_t mostBytes) {
    std::string name(path.second());
    size_t bytes = Json(name).dump().size();
    switch (path.kind) {
      case Kind::memory:
        figures[kMemory] = encode(value);
        return true;
      case Kind::processor:
        return into(loads, name, value.get<Processor>().load, figuresBytes, bytes + kLoadBytes, mostBytes);
      case Kind::storage:
        return into(filesystems, name, encode(value), filesystemsBytes, bytes + kFilesystemBytes, mostBytes);
      default:
        return false;
    }
  }

 private:
  static bool into(Json& object, const std::string& name, Json value, size_t& bytes, size_t more,
                   size_t mostBytes) {
    if (bytes + more > mostBytes) return false;
    bytes += more;
    object[name] = std::move(value);
    return true;
  }
};

}  // namespace

std::optional<Path> packedFormOf(const Path& path) {
  switch (path.kind) {
    case Kind::system:
    case Kind::memory:
    case Kind::processor:
      return Path(Kind::figures, path.first(), "");
    case Kind::storage:
      return Path(Kind::filesystems, path.first(), "");
    default:
      return std::nullopt;
  }
}

Document unpacked(const Path& path, Json json, const Limits& limits) {
  Document document;
  Unpacker unpacker(path, limits, document);
  if (path.kind == Kind::figures) {
    unpacker.figures(std::move(json));
  } else {
    unpacker.filesystems(json);
  }
  return document;
}

std::map<Path, std::string> packed(const std::vector<Snapshot::Entry>& entries, size_t mostBytes) {
  std::map<std::string, Packing> members;
  for (const auto& [path, value] : entries) {
    if (path.kind == Kind::system) members[std::string(path.first())].system = value.get<System>();
  }
  std::map<Path, std::string> texts;
  for (const auto& [path, value] : entries) {
    if (specOf(path.kind).container()) continue;
    auto found = members.find(std::string(path.first()));
    bool has = packedFormOf(path) && found != members.end();
    bool taken = has && (path.kind == Kind::system || found->second.take(path, value, mostBytes));
    if (!taken) texts[path] = encode(value).dump();
  }
  for (auto& [member, packing] : members) {
    const System& system = *packing.system;
    double clock = inMilliseconds(system.currentTimeUtc);
    Head head{std::nullopt, clock, system.systemNumUsers, system.systemProcesses, system.memorySize};
    if (system.systemUptime > 0) head.bootTime = inMilliseconds(clock - system.systemUptime);
    packing.figures.update(encodedObject(head));
    if (!packing.loads.empty()) packing.figures[kLoads] = std::move(packing.loads);
    texts[{Kind::figures, member, ""}] = packing.figures.dump();
    if (!packing.filesystems.empty()) texts[{Kind::filesystems, member, ""}] = packing.filesystems.dump();
  }
  return texts;
}

std::string withClock(const std::string& figures, double utcSeconds, double passedSeconds) {
  Json object = Json::parse(figures);
  if (auto bootTime = object.find(kBootTime); bootTime != object.end()) {
    double setBy = utcSeconds - object.at(kClock).get<double>() - passedSeconds;
    *bootTime = inMilliseconds(bootTime->get<double>() + setBy);
  }
  object[kClock] = inMilliseconds(utcSeconds);
  return object.dump();
}

std::vector<FieldSpec> figuresFields() {
  std::vector<FieldSpec> fields = fieldSpecs<Head>();
  fields.push_back({kMemory, "an object as of `members/<member>/memory`", true, "what is in use"});
  fields.push_back({kLoads, "an object of integers from -32768 to 32767, by processor index", true,
                    "percent; -1 when it is not known"});
  return fields;
}

std::vector<FieldSpec> filesystemsFields() {
  return {{"<mount point>", "an object as of `members/<member>/storage/<mount point>`", false,
           "each of its file systems"}};
}

}  // namespace Kelstore
