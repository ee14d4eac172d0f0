// What the tests of the program share: a real etcd, a client of it, and the program as a process.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kelstore/etcd/Client.h"
#include "tests/support/Etcd.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace Member {

using namespace std::chrono_literals;
using Kelstore::Etcd::Client;
using Kelstore::Etcd::Record;
using Support::Process;
using Support::waitUntil;

inline constexpr int kTtlSeconds = 3;
// Keys that are gone much sooner were not left to run out, however busy the machine is.
inline constexpr int kLongTtlSeconds = 60;

class TrelmemberdTest : public testing::Test {
 protected:
  void SetUp() override {
    etcd_ = std::make_unique<Support::EtcdCluster>();
    client_ = std::make_unique<Client>(etcd_->endpoints(), Kelstore::Etcd::Access());
  }
  static std::string loopback(int neighbour = 2, const std::string& interface = "Backplane1/2") {
    return fmt::format(R"({{"member": {}, "interface": "{}", "device": "lo", "address": "127.0.0.1"}})",
                       neighbour, interface);
  }
  std::string config(int member, const std::string& neighbours, int ttlSeconds = kTtlSeconds) {
    return config(member, neighbours, etcd_->endpointList(), ttlSeconds);
  }
  std::string config(int member, const std::string& neighbours, const std::string& servers, int ttlSeconds) {
    return directory_.write(
        fmt::format("{}.json", member),
        fmt::format(R"({{"member": {}, "store": "etcd:{}/trel", "ttl": {}, "hold": {},
                                             "figuresInterval": 1, "deadbands": {{"longest": 1}},
                                             "neighbours": [{}], "access": {}}})",
                    member, servers, ttlSeconds, holdSeconds_, neighbours, access_.dump()));
  }
  std::unique_ptr<Process> start(const std::string& config, const Support::Env& env = {}) {
    Support::Argv command{TRELMEMBERD, "--config", config};
    if (handover_) command.push_back("--handover");
    return std::make_unique<Process>(command, env);
  }
  // Waits until the program's log has the text.
  static testing::AssertionResult awaitLine(const Process& process, const std::string& text,
                                            Support::Millis deadline = 10s) {
    bool said = waitUntil([&] { return process.err().find(text) != std::string::npos; }, deadline);
    return said ? testing::AssertionSuccess() : testing::AssertionFailure() << process.err();
  }
  // All keys without the prefix. Throws when the store cannot be read, which is not to pass for an empty one.
  std::map<std::string, Record> keys() {
    std::map<std::string, Record> all;
    auto listing = client_->range({"trel/", "trel0"});
    if (!listing.ok()) throw std::runtime_error("keys: " + listing.status().ToString());
    for (Record& one : listing->records) {
      std::string name = one.key.substr(5);
      all.emplace(name, std::move(one));
    }
    return all;
  }
  std::vector<std::string> names() {
    std::vector<std::string> all;
    for (const auto& [name, value] : keys()) all.push_back(name);
    return all;
  }
  nlohmann::json value(const std::string& name) {
    auto all = keys();
    auto found = all.find(name);
    return found == all.end() ? nlohmann::json() : nlohmann::json::parse(found->second.value);
  }
  bool awaitKey(const std::string& name, Support::Millis deadline = 10s) {
    return waitUntil([&] { return keys().contains(name); }, deadline);
  }
  bool leaseIsGone(int64_t lease) { return absl::IsNotFound(client_->timeToLive(lease).status()); }
  // Waits until the figures, which are once a second, were written so many times.
  bool awaitWrites(int count) {
    int64_t last = 0;
    return waitUntil(
        [&] {
          int64_t now = keys()["members/1/figures"].modRevision;
          if (now > std::exchange(last, now)) --count;
          return count < 0;
        },
        30s);
  }
  // Those of the keys; 0 among them when one has none.
  std::set<int64_t> leases() {
    std::set<int64_t> all;
    for (const auto& [name, value] : keys()) all.insert(value.lease);
    return all;
  }

  Support::TempDir directory_;
  std::unique_ptr<Support::EtcdCluster> etcd_;
  std::unique_ptr<Client> client_;
  bool handover_ = false;  // how processes are started
  int holdSeconds_ = 300;
  nlohmann::json access_ = nlohmann::json::object();  // that processes are configured with
};

}  // namespace Member
