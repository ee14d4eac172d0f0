#include "programs/trelctl/StoreContent.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace TrelCtl {
namespace {

using Kelstore::Document;
using Kelstore::Path;
using Kelstore::Etcd::Op;
using Kelstore::Etcd::Record;

void takeValues(const Path& path, const Record& record, StoreContent& content) {
  Document document = Kelstore::parseValue(path, record.value);
  for (std::string& warning : document.warnings) content.warnings.push_back(std::move(warning));
  if (document.unusable) {
    content.setAside.emplace_back(record.key, path.text() + *document.unusable);
  } else if (!document.faults.empty()) {
    content.setAside.emplace_back(record.key, document.faults.front().text);
  }
  bool packed = Kelstore::specOf(path.kind).packed();
  for (auto& [given, value] : document.values) {
    if (packed) content.packed[record.key].push_back(given);
    auto [found, added] = content.values.try_emplace(given, value);
    if (added) continue;
    content.hidden.insert(given);
    if (packed) found->second = std::move(value);
  }
}

// The packed forms that do not give what is wanted.
std::set<std::string> formsThatGo(const StoreContent& now, const Values& wanted, bool replace) {
  std::set<std::string> wrong;
  for (const auto& [key, why] : now.setAside) wrong.insert(key);
  std::set<std::string> go;
  for (const auto& [key, paths] : now.packed) {
    bool differs = std::any_of(paths.begin(), paths.end(), [&](const Path& path) {
      auto found = wanted.find(path);
      return found == wanted.end() ? replace : found->second != now.values.at(path);
    });
    if (differs || (replace && wrong.contains(key))) go.insert(key);
  }
  return go;
}

}  // namespace

StoreContent contentOf(const Kelstore::Etcd::KeySpace& keys, const Kelstore::Etcd::Listing& listing) {
  StoreContent content;
  for (const Record& record : listing.records) {
    absl::StatusOr<Path> path = keys.path(record.key);
    if (path.ok()) {
      takeValues(*path, record, content);
    } else {
      auto& where = absl::IsNotFound(path.status()) ? content.foreign : content.setAside;
      where.emplace_back(record.key, path.status().message());
    }
  }
  return content;
}

bool isOfMember(const Kelstore::Etcd::KeySpace& keys, const std::string& key) {
  auto kinds = Kelstore::allKinds();
  return std::any_of(kinds.begin(), kinds.end(), [&](const Kelstore::KindSpec& spec) {
    if (spec.owner == Kelstore::Owner::cluster) return false;
    std::string root(spec.path.substr(0, spec.path.find('/')));
    return key.starts_with(keys.below(std::array{root}).first);
  });
}

void leaveOutMembers(const Kelstore::Etcd::KeySpace& keys, StoreContent& content) {
  std::erase_if(content.values, [&](const auto& value) { return isOfMember(keys, keys.key(value.first)); });
  content.packed.clear();
  content.hidden.clear();
  std::erase_if(content.setAside, [&](const auto& one) { return isOfMember(keys, one.first); });
}

std::vector<std::string> keysOfMember(const Kelstore::Etcd::KeySpace& keys,
                                      const Kelstore::Etcd::Listing& listing, uint8_t member) {
  std::string id = std::to_string(member);
  std::set<std::string> interfaces;
  std::set<std::string> ofOthers;
  StoreContent content = contentOf(keys, listing);
  for (const auto& [path, value] : content.values) {
    std::optional<Lanix::IntfId> intf;
    if (const auto* link = value.find<Kelstore::Link>()) intf = link->intf;
    if (const auto* report = value.find<Kelstore::Reachability>()) intf = report->intf;
    if (!intf) continue;
    std::string key = keys.key(Kelstore::Path(Kelstore::Kind::interface, intf->name(), ""));
    (path.first() == id ? interfaces : ofOthers).insert(key);
  }
  const std::string members = keys.below(std::array<std::string, 2>{"members", id}).first;
  const std::string topology = keys.below(std::array<std::string, 2>{"topology", id}).first;
  const std::string expected = keys.key(Kelstore::Path(Kelstore::Kind::expected, id, ""));
  std::vector<std::string> own;
  for (const auto& record : listing.records) {
    const std::string& key = record.key;
    bool below = key.starts_with(members) || key.starts_with(topology) || key == expected;
    if (below || (interfaces.contains(key) && !ofOthers.contains(key))) own.push_back(key);
  }
  return own;
}

Difference differenceOf(const Kelstore::Etcd::KeySpace& keys, const StoreContent& now, const Values& wanted,
                        bool replace) {
  Difference difference;
  std::set<std::string> forms = formsThatGo(now, wanted, replace);
  Values have = now.values;
  Values all = wanted;
  std::set<Path> given;
  for (const auto& [key, paths] : now.packed) {
    for (const Path& path : paths) {
      given.insert(path);
      if (!forms.contains(key)) continue;
      have.erase(path);
      if (!replace) all.emplace(path, now.values.at(path));
    }
  }
  for (const auto& [path, value] : all) {
    auto found = have.find(path);
    if (found != have.end() && found->second == value) {
      ++difference.unchanged;
    } else {
      difference.ops.push_back({Op::What::put, keys.key(path), Kelstore::encode(value).dump()});
    }
  }
  difference.written = difference.ops.size();
  std::set<std::string> written;
  for (const Op& op : difference.ops) written.insert(op.key);
  auto goes = [&](const std::string& key) { difference.ops.push_back({Op::What::del, key}); };
  if (replace) {
    for (const auto& [path, value] : now.values) {
      if (!all.contains(path) && (!given.contains(path) || now.hidden.contains(path))) goes(keys.key(path));
    }
    for (const auto& [key, why] : now.setAside) {
      if (!written.contains(key) && !forms.contains(key)) goes(key);
    }
  }
  for (const std::string& key : forms) goes(key);
  difference.deleted = difference.ops.size() - difference.written;
  return difference;
}

std::vector<std::vector<Op>> transactionsOf(std::vector<Op>&& ops, size_t maxOps, size_t maxBytes) {
  std::vector<std::vector<Op>> transactions;
  size_t bytes = 0;
  for (Op& op : ops) {
    size_t size = op.key.size() + op.value.size();
    bool full = transactions.empty() || transactions.back().size() == maxOps || bytes + size > maxBytes;
    if (full) {
      transactions.emplace_back();
      bytes = 0;
    }
    bytes += size;
    transactions.back().push_back(std::move(op));
  }
  return transactions;
}

}  // namespace TrelCtl
