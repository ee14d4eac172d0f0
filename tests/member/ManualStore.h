// A store of leased keys as the test has it: keys go with their leases, revisions count, preconditions count;
// calls fail, or are not answered, when the test says so.
#pragma once

#include <fmt/format.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "member/LeaseStore.h"
#include "tests/runtime/ManualIo.h"

namespace Member {

class ManualStore final : public LeaseStore {
 public:
  absl::StatusOr<Lease> grant(std::chrono::seconds ttl) override {
    if (absl::Status failure = called("grant"); !failure.ok()) return failure;
    leases.insert(++lastLease);
    ttlSeconds = ttl.count();
    return lastLease;
  }
  absl::Status renew(Lease lease) override {
    if (absl::Status failure = called("renew"); !failure.ok()) return failure;
    return leases.contains(lease) ? absl::OkStatus() : absl::NotFoundError("no such lease");
  }
  absl::Status revoke(Lease lease, Why why) override {
    if (absl::Status failure = called("revoke"); !failure.ok()) return failure;
    if (why == Why::leaves) marked.push_back(lease);
    expire(lease);
    return absl::OkStatus();
  }
  absl::StatusOr<Holdings> list(uint8_t member, const std::vector<std::string>& interfaces) override {
    if (absl::Status failure = called("list"); !failure.ok()) return failure;
    Holdings found;
    for (const auto& [path, held] : keys) {
      bool own = path.kind == Kelstore::Kind::interface ? std::find(interfaces.begin(), interfaces.end(),
                                                                    path.first()) != interfaces.end()
                                                        : path.first() == std::to_string(member);
      if (own) found.emplace(path, held);
    }
    return found;
  }
  absl::StatusOr<int64_t> write(const std::vector<Change>& changes,
                                const std::vector<Precondition>& preconditions, Lease lease) override {
    if (absl::Status failure = called("write"); !failure.ok()) return failure;
    if (beforeWrite) std::exchange(beforeWrite, {})();
    if (!leases.contains(lease)) return absl::NotFoundError("no such lease");
    for (const Precondition& precondition : preconditions) {
      auto held = keys.find(precondition.path);
      if ((held == keys.end() ? 0 : held->second.revision) != precondition.revision) {
        log += "refused; ";
        return absl::AbortedError("precondition");
      }
    }
    ++revision;
    sizes.push_back(changes.size());
    for (const Change& change : changes) {
      log += fmt::format("{}{}; ", change.text ? "" : "-", change.path.text());
      if (change.text) {
        keys[change.path] = {*change.text, lease, revision};
      } else {
        keys.erase(change.path);
      }
    }
    if (answerInstead) return *answerInstead;
    return revision;
  }
  std::string endpoint() const override { return "h:1"; }

  // The lease and all that goes with it.
  void expire(Lease lease) {
    leases.erase(lease);
    std::erase_if(keys, [lease](const auto& entry) { return entry.second.lease == lease; });
    ++revision;
  }
  // A key of somebody else, under a lease of theirs; 0: under none.
  void put(const Kelstore::Path& path, const std::string& text, Lease lease) {
    if (lease != kNoLease) leases.insert(lease);
    keys[path] = {text, lease, ++revision};
  }
  // What was written since the last call: "path; -deleted path; ".
  std::string written() { return std::exchange(log, {}); }
  // "path=text@lease", sorted.
  std::vector<std::string> content() const {
    std::vector<std::string> all;
    for (const auto& [path, held] : keys) {
      all.push_back(fmt::format("{}={}@{}", path.text(), held.text, held.lease));
    }
    std::sort(all.begin(), all.end());
    return all;
  }

  Holdings keys;
  std::set<Lease> leases;
  Lease lastLease = 100;
  int64_t revision = 1;
  int64_t ttlSeconds = 0;
  std::vector<size_t> sizes;         // of the transactions
  std::map<std::string, int> calls;  // how often
  std::vector<Lease> marked;         // that were revoked as the member left
  std::set<std::string> failing;     // calls; "all": every call
  absl::StatusCode failureCode = absl::StatusCode::kUnknown;
  std::optional<absl::Status> failWith;  // in place of the code, and what failed
  std::set<std::string> hanging;         // the same
  std::function<void()> beforeWrite;     // once
  // To writes that are carried out.
  std::optional<absl::StatusOr<int64_t>> answerInstead;

 private:
  absl::Status called(const std::string& name) {
    ++calls[name];
    if (hanging.contains(name)) throw Runtime::ManualIo::Hangs();
    if (failing.contains(name) || failing.contains("all"))
      return failWith ? *failWith : absl::Status(failureCode, name + " failed");
    return absl::OkStatus();
  }

  std::string log;
};

}  // namespace Member
