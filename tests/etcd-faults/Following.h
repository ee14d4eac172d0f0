// A daemon that follows a store, what it says of that, and what it serves.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "tests/e2e/Daemon.h"
#include "tests/wire/Subject.h"

namespace Faults {

class Following {
 public:
  // Starts it, following the state below kPrefix at these endpoints; throws when it is not ready in time.
  Following(const std::string& endpoints, const Support::Argv& options);

  E2e::Daemon& daemon() { return daemon_; }
  // Where it listens, on 127.0.0.1.
  uint16_t port() const;

  // What it says of the store.
  nlohmann::json status() const { return daemon_.status(); }
  nlohmann::json store() const { return status().at("stores").at(0); }
  std::string state() const { return store().at("state"); }
  // What it says of a store in place of the one it followed; empty: there is none.
  std::string otherStore() const;
  // Of the server that it listens to; empty: none.
  std::string endpoint() const;
  std::map<std::string, int64_t> counters() const { return countersIn(status()); }
  static std::map<std::string, int64_t> countersIn(const nlohmann::json& status);

  // What it has to serve for a state document, and what it serves.
  Wire::Tree expected(const nlohmann::json& document) const { return Wire::treeOf(document, clock_); }
  Wire::Tree served() { return Wire::treeServed(exchange_, Wire::kReader); }

  // Waits until the tables are those of the document, applied up to the revision.
  testing::AssertionResult becomes(const nlohmann::json& document, int64_t revision, Support::Millis within);

 private:
  E2e::Daemon daemon_;
  Wire::AgentClock clock_;
  Wire::Exchange exchange_;
};

std::set<Wire::Oid> namesOf(const Wire::Tree& tree);

}  // namespace Faults
