// The client's calls against a real etcd server, which nothing befalls but compaction.
#include <gmock/gmock.h>
#include <grpcpp/create_channel.h>

#include <atomic>
#include <set>
#include <thread>

#include "kelstore/etcd/rpc.grpc.pb.h"
#include "tests/kelstore-etcd/ClientFixture.h"
#include "tests/support/Network.h"
#include "tests/support/Relay.h"

namespace Kelstore::Etcd {
namespace {

using namespace std::chrono_literals;
using Support::waitUntil;
using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(EtcdClientTest, PutGetDelete_EachChangeIsARevision) {
  absl::StatusOr<int64_t> put = client.put(key("a"), "1");
  ASSERT_TRUE(put.ok()) << put.status();
  EXPECT_THAT(texts(client.get(key("a"))), ElementsAre(key("a") + "=1"));
  EXPECT_EQ(client.get(key("a"))->records[0].modRevision, *put);
  EXPECT_EQ(client.get(key("a"))->revision, *put);
  EXPECT_EQ(*client.put(key("a"), "2"), *put + 1);
  EXPECT_EQ(client.get(key("a"))->records[0].modRevision, *put + 1);
  EXPECT_EQ(*client.del(key("a")), *put + 2);
  EXPECT_THAT(texts(client.get(key("a"))), ElementsAre());
  EXPECT_EQ(*client.del(key("a")), *put + 2);  // nothing there: no change
  EXPECT_EQ(client.endpoint(), server->endpoint());
}

TEST_F(EtcdClientTest, RangeHoldsWhatIsBelowThePrefixOnly) {
  for (const char* name : {"a", "b/c", "\xff"}) ASSERT_TRUE(client.put(key(name), "1").ok());
  ASSERT_TRUE(client.put(prefix + "0", "beside").ok());
  ASSERT_TRUE(client.put(prefix, "above").ok());
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre(key("a=1"), key("b/c=1"), key("\xff=1")));
  EXPECT_EQ(client.del(keys.all())->keys, 3);
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre());
  EXPECT_THAT(texts(client.get(prefix)), ElementsAre(prefix + "=above"));
}

TEST_F(EtcdClientTest, Transaction_OneRevisionOrNothing) {
  ASSERT_TRUE(client.put(key("old"), "1").ok());
  std::vector<Op> ops = {{.what = Op::What::del, .key = key("old")}};
  for (size_t i = 1; i < Client::kMaxTxnOps; ++i)
    ops.push_back({.key = key(fmt::format("{:03}", i)), .value = "x"});
  absl::StatusOr<int64_t> revision = client.txn(ops);
  ASSERT_TRUE(revision.ok()) << revision.status();
  absl::StatusOr<Listing> listing = client.range(keys.all());
  ASSERT_EQ(listing->records.size(), Client::kMaxTxnOps - 1);
  for (const Record& record : listing->records) EXPECT_EQ(record.modRevision, *revision);
  EXPECT_EQ(listing->revision, *revision);

  ops.push_back({.key = key("one too many"), .value = "x"});
  EXPECT_THAT(std::string(client.txn(ops).status().message()),
              HasSubstr("too many operations in txn request"));
  ops = {{.key = key("twice"), .value = "x"}, {.key = key("twice"), .value = "y"}};
  EXPECT_THAT(std::string(client.txn(ops).status().message()),
              HasSubstr("duplicate key given in txn request"));
  EXPECT_EQ(client.range(keys.all())->revision, *revision);
}

TEST_F(EtcdClientTest, TransactionWithPreconditions_NothingUnlessAllHold) {
  absl::StatusOr<int64_t> revision = client.put(key("a"), "1");
  ASSERT_TRUE(revision.ok());
  const std::vector<Op> ops = {{.key = key("b"), .value = "2"}};
  EXPECT_TRUE(absl::IsAborted(client.txn(ops, {{key("a"), *revision - 1}}).status()));
  EXPECT_TRUE(absl::IsAborted(client.txn(ops, {{key("a"), *revision}, {key("none"), 1}}).status()));
  EXPECT_TRUE(absl::IsAborted(client.txn(ops, {{key("a"), 0}}).status()));
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre(key("a=1")));
  EXPECT_TRUE(client.txn(ops, {{key("a"), *revision}, {key("b"), 0}}).ok());
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre(key("a=1"), key("b=2")));
}

// Between any two pages somebody else changes, adds and deletes keys on both sides of where the pages are.
TEST_F(EtcdClientTest, PagedRange_IsOfOneRevision) {
  std::vector<std::string> expected;
  std::vector<Op> ops;
  for (int i = 0; i < 100; ++i) {
    ops.push_back({.key = key(fmt::format("{:03}", i)), .value = "old"});
    expected.push_back(ops.back().key + "=old");
  }
  ASSERT_TRUE(client.txn(ops).ok());
  // What was changed after the first page is seen in none: the pages are asked for on one connection, and the
  // writer keeps writing on another from before the first page until after the last.
  std::atomic<bool> done = false;
  std::atomic<int> written = 0;
  std::thread writer([&] {
    Client other({server->endpoint()}, {});
    for (int i = 0; !done; ++i) {
      std::vector<Op> all;
      for (int k = 0; k < 100; ++k)
        all.push_back({.key = key(fmt::format("{:03}", k)), .value = std::to_string(i)});
      if (other.txn(all).ok()) ++written;
    }
  });
  Client paging({server->endpoint()}, {}, {.pageKeys = 3});
  std::set<std::string> valuesSeen;
  bool whole = true;
  bool seen = waitUntil([&] {
    absl::StatusOr<Listing> listing = paging.range(keys.all());
    whole = whole && listing.ok() && listing->records.size() == 100;
    if (!whole) return true;
    for (const Record& record : listing->records) {
      whole = whole && record.value == listing->records[0].value;
    }
    valuesSeen.insert(listing->records[0].value);
    return !whole || valuesSeen.size() >= 5;
  });
  done = true;
  writer.join();
  EXPECT_TRUE(whole);
  EXPECT_TRUE(seen) << valuesSeen.size() << " of " << written;
}

TEST_F(EtcdClientTest, PageLongerThanAMessageMayBe_IsAskedForInParts) {
  std::string large(1 << 20, 'x');
  for (int i = 0; i < 70; ++i) ASSERT_TRUE(client.put(key(fmt::format("{:02}", i)), large).ok());
  absl::StatusOr<Listing> listing = client.range(keys.all());
  ASSERT_TRUE(listing.ok()) << listing.status();
  ASSERT_EQ(listing->records.size(), 70u);
  for (const Record& record : listing->records) EXPECT_EQ(record.value.size(), large.size());
  std::vector<std::string> names;
  for (const Record& record : listing->records) names.push_back(record.key);
  listing = client.getAll(names);
  ASSERT_TRUE(listing.ok()) << listing.status();
  EXPECT_EQ(listing->records.size(), 70u);
  ASSERT_TRUE(client.del(keys.all()).ok());
}

TEST_F(EtcdClientTest, ManyKeysAreRead_InFewCalls_ThoseThatAreThere) {
  std::vector<std::string> wanted;
  std::vector<std::string> there;
  for (int i = 0; i < 300; ++i) {
    wanted.push_back(key(fmt::format("{:03}", i)));
    if (i % 3 != 0) continue;
    ASSERT_TRUE(client.put(wanted.back(), "1").ok());
    there.push_back(wanted.back() + "=1");
  }
  ASSERT_TRUE(client.put(key("other"), "2").ok());
  Support::Relay relay(Support::portOf(server->endpoint()));
  Client far({relay.endpoint()}, {});
  ASSERT_TRUE(far.get(wanted[1]).ok()) << "connects";
  relay.slow(Support::Millis(100), 0);
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(texts(far.getAll(wanted)), there);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20)) << "of single reads, 60 s";
  EXPECT_THAT(texts(client.getAll({})), testing::IsEmpty());
}

TEST_F(EtcdClientTest, LeaseIsGrantedKeptAliveAndRevoked) {
  absl::StatusOr<int64_t> lease = client.grant(60s);
  ASSERT_TRUE(lease.ok()) << lease.status();
  ASSERT_TRUE(client.put(key("a"), "1", *lease).ok());
  ASSERT_TRUE(client.txn({{.key = key("b"), .value = "2", .lease = *lease}}).ok());
  ASSERT_TRUE(client.put(key("c"), "3").ok());
  EXPECT_EQ(client.get(key("a"))->records[0].lease, *lease);
  EXPECT_EQ(client.timeToLive(*lease)->granted, 60s);
  ASSERT_TRUE(waitUntil([&] { return client.timeToLive(*lease)->left < 59s; }));
  EXPECT_EQ(*client.keepAliveOnce(*lease), 60s);
  EXPECT_GE(client.timeToLive(*lease)->left, 59s);

  EXPECT_TRUE(client.revoke(*lease).ok());
  EXPECT_THAT(texts(client.range(keys.all())), ElementsAre(key("c=3")));
  std::string gone = fmt::format("there is no lease {:x}", *lease);
  for (const absl::Status& status :
       {client.revoke(*lease), client.keepAliveOnce(*lease).status(), client.timeToLive(*lease).status()}) {
    EXPECT_TRUE(absl::IsNotFound(status)) << status;
    EXPECT_EQ(status.message(), gone);
  }
  absl::Status put = client.put(key("d"), "4", *lease).status();
  EXPECT_TRUE(absl::IsNotFound(put)) << put;
}

TEST_F(EtcdClientTest, LeaseThatNobodyKeepsAlive_GoesWithItsKeys) {
  absl::StatusOr<int64_t> lease = client.grant(1s);
  ASSERT_TRUE(client.put(key("a"), "1", *lease).ok());
  EXPECT_TRUE(waitUntil([&] { return client.range(keys.all())->records.empty(); }));
  EXPECT_TRUE(absl::IsNotFound(client.keepAliveOnce(*lease).status()));
}

// Behind a link so slow that there is time between the pages of a listing.
class EtcdCompactionTest : public EtcdClientTest {
 protected:
  EtcdCompactionTest()
      : link(Support::portOf(server->endpoint())), paging({link.endpoint()}, {}, {.pageKeys = 1}) {
    std::vector<Op> ops;
    for (int i = 0; i < 50; ++i) ops.push_back({.key = key(fmt::format("{:03}", i)), .value = "x"});
    EXPECT_TRUE(client.txn(ops).ok());
    link.slow(5ms, 1'000'000);
  }

  // Everything up to a new revision, which is returned.
  int64_t compact() {
    auto kv = etcdserverpb::KV::NewStub(
        grpc::CreateChannel(server->endpoint(), grpc::InsecureChannelCredentials()));
    etcdserverpb::CompactionRequest request;
    request.set_revision(client.put(key("000"), "y").value());
    etcdserverpb::CompactionResponse response;
    grpc::ClientContext context;
    EXPECT_TRUE(kv->Compact(&context, request, &response).ok());
    return request.revision();
  }

  Support::Relay link;
  Client paging;
};

TEST_F(EtcdCompactionTest, BetweenTwoPages_ListingBeginsAgain) {
  std::atomic<int64_t> compacted = 0;
  std::thread compactor([&] {
    EXPECT_TRUE(waitUntil([&] { return link.bytesBack() > 1000; }));
    compacted = compact();
  });
  absl::StatusOr<Listing> listing = paging.range(keys.all());
  compactor.join();
  ASSERT_TRUE(listing.ok()) << listing.status();
  EXPECT_EQ(listing->records.size(), 50u);
  EXPECT_EQ(listing->revision, compacted);
  EXPECT_EQ(listing->records[0].value, "y");
}

TEST_F(EtcdCompactionTest, AgainAndAgain_ListingGivesUp) {
  std::atomic<bool> done = false;
  std::thread compactor([&] {
    while (!done) compact();
  });
  absl::Status status = paging.range(keys.all()).status();
  done = true;
  compactor.join();
  EXPECT_TRUE(absl::IsOutOfRange(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("required revision has been compacted"));
}

}  // namespace
}  // namespace Kelstore::Etcd
