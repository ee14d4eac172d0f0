#include "programs/trelctl/StoreCommands.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "kelstore/etcd/Address.h"
#include "kelstore/etcd/Driver.h"
#include "programs/trelctl/StoreContent.h"
#include "runtime/CommandLine.h"
#include "runtime/Errors.h"
#include "runtime/File.h"

namespace TrelCtl {
namespace {

namespace Etcd = Kelstore::Etcd;
using Kelstore::Document;
using Kelstore::Position;

constexpr const char* kExpectedPath = "expected a path of the state, such as members/1/system";
// etcd takes requests of up to 1.5 MiB.
constexpr size_t kMaxTxnBytes = 1 << 20;

void say(const std::string& line) { Runtime::complain("trelctl", line); }

template <class Answer>
Answer orThrow(absl::StatusOr<Answer> answer) {
  if (!answer.ok()) throw StoreFailed(Runtime::textOf(answer.status()));
  return *std::move(answer);
}

struct Store {
  explicit Store(const StoreOptions& options)
      : address(*Etcd::parseStore(options.store)),
        keys(address.prefix),
        calls(Etcd::driver().calls(address, options.access)) {}

  Etcd::Address address;
  Etcd::KeySpace keys;
  std::unique_ptr<Etcd::Calls> calls;
};

struct Place {
  std::vector<std::string> segments;
  Position position;
};

// Throws Unusable unless the state model has the path.
Place placeOf(const std::string& text) {
  Place place{{}, Kelstore::positionOf({})};
  if (text.empty()) return place;
  absl::StatusOr<std::vector<std::string>> segments = Etcd::segmentsOf(text);
  if (!segments.ok()) throw Unusable(Runtime::textOf(segments.status()));
  place.segments = *std::move(segments);
  std::span<const std::string> all = place.segments;
  Kelstore::Walk end = Kelstore::walk(all);
  if (end.position.what == Position::What::badKey) throw Unusable(Kelstore::badKeyText(all, end));
  if (end.position.what == Position::What::unknown || end.depth < all.size()) {
    throw Unusable(fmt::format("{}: {}; a \"/\" within a name is spelt %2F", text, kExpectedPath));
  }
  place.position = std::move(end.position);
  return place;
}

Etcd::KeyRange rangeOf(const Etcd::KeySpace& keys, const Place& place) {
  if (place.position.what == Position::What::leaf) return {keys.key(place.segments), ""};
  return keys.below(place.segments);
}

// What is at the place, also what packed forms give there.
StoreContent contentAt(const Store& store, const Place& place) {
  Etcd::Listing listing = orThrow(store.calls->range(rangeOf(store.keys, place)));
  bool ofMember = place.segments.size() > 2 && place.segments[0] == "members";
  bool form =
      place.position.what == Position::What::leaf && Kelstore::specOf(place.position.path.kind).packed();
  if (!ofMember || form) return contentOf(store.keys, listing);
  for (Kelstore::Kind kind : {Kelstore::Kind::figures, Kelstore::Kind::filesystems}) {
    std::string key = store.keys.key(Kelstore::Path(kind, place.segments[1], ""));
    Etcd::Listing more = orThrow(store.calls->range({key, ""}));
    std::move(more.records.begin(), more.records.end(), std::back_inserter(listing.records));
  }
  StoreContent content = contentOf(store.keys, listing);
  std::erase_if(content.values, [&](const auto& value) {
    std::vector<std::string> segments = value.first.segments();
    return segments.size() < place.segments.size() ||
           !std::equal(place.segments.begin(), place.segments.end(), segments.begin());
  });
  return content;
}

// Prints what is wrong in the store.
void report(const StoreContent& content) {
  for (const std::string& warning : content.warnings) say(warning);
  for (const auto& [key, why] : content.foreign) say(why);
  for (const auto& [key, why] : content.setAside) say(why);
}

StoreFailed setAside(const StoreContent& content) {
  return StoreFailed(fmt::format("{} of {} values cannot be read and are left out", content.setAside.size(),
                                 content.setAside.size() + content.values.size()));
}

std::string textOf(const Values& values) { return Kelstore::documentOf(values).dump(2) + "\n"; }

void write(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    throw StoreFailed(fmt::format("standard output: {}", std::strerror(errno)));
  }
}

// Replaces a regular file at once, so that it is never half written.
void write(const std::string& file, const std::string& text) {
  bool replaced = !std::filesystem::exists(file) || std::filesystem::is_regular_file(file);
  std::string target = replaced ? fmt::format("{}.{}", file, getpid()) : file;
  std::ofstream stream(target, std::ios::binary);
  stream << text;
  stream.close();
  std::error_code error(stream ? 0 : errno, std::generic_category());
  if (!error && replaced) std::filesystem::rename(target, file, error);
  if (!error) return;
  std::error_code ignored;
  if (replaced) std::filesystem::remove(target, ignored);
  throw StoreFailed(fmt::format("{}: {}", file, error.message()));
}

std::string contentOf(const std::string& file) {
  // A pipe is fine, too.
  Runtime::Descriptor opened(file == "-" ? ::dup(STDIN_FILENO) : ::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!opened.opened()) throw Unusable(Runtime::textOf(Runtime::errorOf(file, errno)));
  absl::StatusOr<std::string> text = Runtime::readAll(opened.get(), Kelstore::Limits().documentBytes);
  if (!text.ok()) throw Unusable(Runtime::textOf(Runtime::errorOf(file, text.status())));
  return *std::move(text);
}

// The document's values but containers, which a store has no keys for. Throws Unusable when a value is wrong.
Values valuesOf(const std::string& file) {
  Document document = Kelstore::parseDocument(contentOf(file));
  if (document.unusable) throw Unusable(file + *document.unusable);
  if (!document.faults.empty()) {
    std::vector<std::string> lines;
    for (const Document::Fault& fault : document.faults)
      lines.push_back(fmt::format("{}: {}", file, fault.text));
    throw Unusable(std::move(lines));
  }
  for (const std::string& warning : document.warnings) say(fmt::format("{}: {}", file, warning));
  Values values;
  std::vector<Kelstore::Path> containers;
  std::set<std::vector<std::string>> filled;
  for (Kelstore::Snapshot::Entry& entry : document.values) {
    if (entry.second.is<Kelstore::Present>()) {
      containers.push_back(std::move(entry.first));
      continue;
    }
    std::vector<std::string> parent = entry.first.segments();
    parent.pop_back();
    filled.insert(std::move(parent));
    values.insert(std::move(entry));
  }
  for (const Kelstore::Path& container : containers) {
    if (filled.contains(container.segments())) continue;
    say(fmt::format("{}: {}: found an empty object, which a store does not keep; ignored", file,
                    container.text()));
  }
  return values;
}

void refuseMembers(const Etcd::KeySpace& keys, const std::string& file, const Values& values) {
  auto isOne = [&](const auto& value) { return isOfMember(keys, keys.key(value.first)); };
  auto first = std::find_if(values.begin(), values.end(), isOne);
  if (first == values.end()) return;
  throw Unusable(fmt::format(
      "{}: found {} values that members publish themselves, such as {}: written by hand they have no lease, "
      "and "
      "stay when the member is gone; leave them out with --without-members, or write them with --force",
      file, std::count_if(first, values.end(), isOne), first->first.text()));
}

}  // namespace

void checkStore(const std::string& store) {
  absl::Status status = Etcd::parseStore(store).status();
  if (!status.ok()) throw std::invalid_argument(Runtime::textOf(status));
}

void put(const StoreOptions& options, const std::string& path, const std::string& json) {
  Place place = placeOf(path);
  if (place.position.what != Position::What::leaf) {
    throw Unusable(fmt::format("{}: expected the path of a value, such as members/1/system", path));
  }
  Document document = Kelstore::parseValue(place.position.path, json);
  if (document.unusable) throw Unusable(path + *document.unusable);
  if (!document.faults.empty()) {
    std::vector<std::string> lines;
    for (const Document::Fault& fault : document.faults) lines.push_back(fault.text);
    throw Unusable(std::move(lines));
  }
  for (const std::string& warning : document.warnings) say(warning);
  Store store(options);
  bool packed = Kelstore::specOf(place.position.path.kind).packed();
  nlohmann::json value =
      packed ? nlohmann::json::parse(json) : Kelstore::encode(document.values.front().second);
  orThrow(store.calls->put(store.keys.key(place.segments), value.dump(), 0));
}

void del(const StoreOptions& options, const std::string& path) {
  Place place = placeOf(path);
  if (place.segments.empty()) throw Unusable(fmt::format("found no path, {}", kExpectedPath));
  Store store(options);
  Etcd::Deletion deletion = orThrow(store.calls->del(rangeOf(store.keys, place)));
  if (deletion.keys == 0 && !deletion.repeated) throw StoreFailed(fmt::format("{}: nothing there", path));
}

void get(const StoreOptions& options, const std::string& path) {
  Place place = placeOf(path);
  Store store(options);
  StoreContent content = contentAt(store, place);
  report(content);
  if (content.values.empty() && content.setAside.empty() && !path.empty()) {
    throw StoreFailed(fmt::format("{}: nothing there", path));
  }
  write(textOf(content.values));
  if (!content.setAside.empty()) throw setAside(content);
}

void importFrom(const StoreOptions& options, const std::string& file, const ImportOptions& how) {
  using OfMembers = ImportOptions::OfMembers;
  StoreContent wanted;
  wanted.values = valuesOf(file);
  Etcd::KeySpace keys(Etcd::parseStore(options.store)->prefix);
  if (how.ofMembers == OfMembers::refused) refuseMembers(keys, file, wanted.values);
  Store store(options);
  StoreContent now = contentOf(keys, orThrow(store.calls->range(keys.all())));
  if (how.ofMembers != OfMembers::written) {
    leaveOutMembers(keys, wanted);
    leaveOutMembers(keys, now);
  }
  Difference difference = differenceOf(keys, now, wanted.values, how.replace);
  size_t done = 0;
  size_t all = difference.ops.size();
  for (const auto& transaction :
       transactionsOf(std::move(difference.ops), Etcd::Calls::kMaxTxnOps, kMaxTxnBytes)) {
    absl::StatusOr<int64_t> revision = store.calls->txn(transaction, {});
    if (!revision.ok()) {
      throw StoreFailed(fmt::format("{}; {} of {} changes were made, import again for the rest",
                                    Runtime::textOf(revision.status()), done, all));
    }
    done += transaction.size();
  }
  fmt::print("{} written, {} deleted, {} unchanged\n", difference.written, difference.deleted,
             difference.unchanged);
}

void exportTo(const StoreOptions& options, const std::string& file) {
  Store store(options);
  StoreContent content = contentOf(store.keys, orThrow(store.calls->range(store.keys.all())));
  report(content);
  if (file.empty() || file == "-") {
    write(textOf(content.values));
  } else {
    write(file, textOf(content.values));
  }
  if (!content.setAside.empty()) throw setAside(content);
}

}  // namespace TrelCtl
