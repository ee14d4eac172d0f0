#include "programs/trelctl/StoreCommands.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "kelstore/etcd/Address.h"
#include "kelstore/etcd/Driver.h"
#include "programs/trelctl/StoreContent.h"
#include "runtime/CommandLine.h"
#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Text.h"

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

void print(const std::vector<Etcd::Op>& ops) {
  for (const Etcd::Op& op : ops) {
    bool put = op.what == Etcd::Op::What::put;
    fmt::print("{} {}{}\n", put ? "put" : "delete", Runtime::escaped(op.key),
               put ? " " + Runtime::escaped(op.value) : "");
  }
}

std::vector<Etcd::Precondition> unchangedSince(const Etcd::Listing& seen, const std::vector<Etcd::Op>& ops) {
  std::vector<Etcd::Precondition> unchanged;
  for (const Etcd::Op& op : ops) {
    auto at =
        std::lower_bound(seen.records.begin(), seen.records.end(), op.key,
                         [](const Etcd::Record& record, const std::string& key) { return record.key < key; });
    if (at != seen.records.end() && at->key == op.key) unchanged.push_back({op.key, at->modRevision});
  }
  return unchanged;
}

// `rest`: what to do when the store fails on the way. `seen`: what a key must still be that is listed there.
void carryOut(const Store& store, std::vector<Etcd::Op> ops, const char* rest,
              const Etcd::Listing& seen = {}) {
  size_t done = 0;
  size_t all = ops.size();
  for (const auto& transaction : transactionsOf(std::move(ops), Etcd::Calls::kMaxTxnOps, kMaxTxnBytes)) {
    absl::StatusOr<int64_t> revision = store.calls->txn(transaction, unchangedSince(seen, transaction));
    if (absl::IsAborted(revision.status())) {
      throw StoreFailed(fmt::format("what was listed has changed meanwhile; {} of {} changes were made, {}",
                                    done, all, rest));
    }
    if (!revision.ok()) {
      throw StoreFailed(fmt::format("{}; {} of {} changes were made, {}", Runtime::textOf(revision.status()),
                                    done, all, rest));
    }
    done += transaction.size();
  }
}

// Whether one of the keys goes with a lease.
bool leaseIn(const Etcd::Listing& listing, const std::vector<std::string>& keys) {
  return std::any_of(listing.records.begin(), listing.records.end(), [&](const Etcd::Record& record) {
    return record.lease != 0 && std::binary_search(keys.begin(), keys.end(), record.key);
  });
}

void refuseBesideLease(const Store& store, const Place& place, const std::string& path) {
  if (!isOfMember(store.keys, store.keys.key(place.segments))) return;
  bool named = place.segments[0] != "interfaces";
  Etcd::KeyRange beside = named ? store.keys.below(std::array<std::string, 2>{"members", place.segments[1]})
                                : rangeOf(store.keys, place);
  Etcd::Listing listing = orThrow(store.calls->range(beside));
  bool leased = std::any_of(listing.records.begin(), listing.records.end(),
                            [](const Etcd::Record& record) { return record.lease != 0; });
  if (!leased) return;
  throw Unusable(fmt::format(
      "{}: {} published under a lease, and a value that is written by hand has none and stays when "
      "the member is gone; write it all the same with --force",
      path, named ? fmt::format("what member {} publishes is", place.segments[1]) : "it is"));
}

// Throws Unusable unless somebody at a terminal agrees.
void confirm(const std::string& what) {
  if (::isatty(STDIN_FILENO) == 0) throw Unusable(fmt::format("nobody can be asked: to {}, add --yes", what));
  fmt::print("{}? [y/N] ", what);
  std::fflush(stdout);
  std::string answer;
  if (!std::getline(std::cin, answer) || (answer != "y" && answer != "yes"))
    throw Unusable("nothing was deleted");
}

}  // namespace

void checkStore(const std::string& store) {
  absl::Status status = Etcd::parseStore(store).status();
  if (!status.ok()) throw std::invalid_argument(Runtime::textOf(status));
}

void put(const StoreOptions& options, const std::string& path, const std::string& json, WithoutLease how) {
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
  if (how == WithoutLease::refused) refuseBesideLease(store, place, path);
  bool packed = Kelstore::specOf(place.position.path.kind).packed();
  nlohmann::json value =
      packed ? nlohmann::json::parse(json) : Kelstore::encode(document.values.front().second);
  orThrow(store.calls->put(store.keys.key(place.segments), value.dump(), 0));
}

void del(const StoreOptions& options, const std::string& path, Run run) {
  Place place = placeOf(path);
  if (place.segments.empty()) throw Unusable(fmt::format("found no path, {}", kExpectedPath));
  Store store(options);
  if (run == Run::dry) {
    Etcd::Listing listing = orThrow(store.calls->range(rangeOf(store.keys, place)));
    for (const Etcd::Record& record : listing.records)
      fmt::print("delete {}\n", Runtime::escaped(record.key));
    return;
  }
  Etcd::Deletion deletion = orThrow(store.calls->del(rangeOf(store.keys, place)));
  if (deletion.keys == 0 && !deletion.repeated) throw StoreFailed(fmt::format("{}: nothing there", path));
}

void forget(const StoreOptions& options, uint8_t member, const ForgetOptions& how) {
  Store store(options);
  Etcd::Listing listing = orThrow(store.calls->range(store.keys.all()));
  std::vector<std::string> own = keysOfMember(store.keys, listing, member);
  if (own.empty()) throw StoreFailed(fmt::format("the store has nothing of member {}", member));
  std::vector<Etcd::Op> ops;
  for (const std::string& key : own) ops.push_back({Etcd::Op::What::del, key});
  print(ops);
  if (how.run == Run::dry) return;
  if (!how.force && leaseIn(listing, own)) {
    throw Unusable(fmt::format(
        "member {} publishes under a lease that lives, and would publish all of it again: end its "
        "trelmemberd, or delete it all the same with --force",
        member));
  }
  if (!how.confirmed) confirm(fmt::format("delete these {} keys of member {}", own.size(), member));
  // Its trelmemberd may have started while somebody was asked.
  carryOut(store, std::move(ops), "forget it again for the rest", how.force ? Etcd::Listing() : listing);
  fmt::print("{} deleted\n", own.size());
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
  if (how.run == Run::dry) return print(difference.ops);
  carryOut(store, std::move(difference.ops), "import again for the rest");
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
