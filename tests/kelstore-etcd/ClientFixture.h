// What the tests of the client share: a real server and a client of it.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kelstore/etcd/Client.h"
#include "tests/support/Etcd.h"

namespace Kelstore::Etcd {

// "key=value" of each, or what went wrong.
inline std::vector<std::string> texts(const absl::StatusOr<Listing>& listing) {
  if (!listing.ok()) return {std::string(listing.status().message())};
  std::vector<std::string> all;
  for (const Record& record : listing->records) all.push_back(record.key + "=" + record.value);
  return all;
}

// One server for all tests that leave it as it is; each test has a prefix of its own.
class EtcdClientTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { server = std::make_unique<Support::EtcdCluster>(); }
  static void TearDownTestSuite() { server.reset(); }

  EtcdClientTest()
      : prefix(testing::UnitTest::GetInstance()->current_test_info()->name()),
        keys(prefix),
        client({server->endpoint()}, {}) {}

  std::string key(const std::string& name) const { return prefix + "/" + name; }

  inline static std::unique_ptr<Support::EtcdCluster> server;
  std::string prefix;
  KeySpace keys;
  Client client;
};

}  // namespace Kelstore::Etcd
