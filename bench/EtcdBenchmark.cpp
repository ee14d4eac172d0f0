// What it takes from a change in etcd to an answer over SNMP: a real etcd, a real trelsnmpd, and beside the
// daemon, in the same run, a bare watch that does nothing but take note of when an event comes.
//
//   etcd-benchmark [PUTS [KEYS]]
#include <fmt/format.h>
#include <grpcpp/client_context.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "bench/Durations.h"
#include "bench/SnmpSession.h"
#include "kelstore/etcd/Channels.h"
#include "kelstore/etcd/Client.h"
#include "kelstore/etcd/rpc.grpc.pb.h"
#include "tests/e2e/Daemon.h"
#include "tests/support/Etcd.h"

namespace {

using namespace std::chrono_literals;
using Bench::Clock;
using Bench::Durations;
using Bench::ms;
using Kelstore::Etcd::Client;
using Kelstore::Etcd::Op;

constexpr size_t kOpsPerTxn = 100;
// As many as members write at a time. Where an answer has to be fragmented, etcd 3.4 takes the square of its
// events to do so, and would be what is measured.
constexpr size_t kOpsPerSmallTxn = 5;
constexpr int kMembers = 255;

void require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error(what);
}

// A watch that takes note of when each event came, and of nothing else.
class BareWatch {
 public:
  explicit BareWatch(const std::string& endpoint, int64_t from = 0) {
    auto channel = Kelstore::Etcd::makeChannel(endpoint, {});
    require(channel.ok(), "no channel");
    stub_ = etcdserverpb::Watch::NewStub(*channel);
    stream_ = stub_->Watch(&context_);
    etcdserverpb::WatchRequest request;
    request.mutable_create_request()->set_key("trel/");
    request.mutable_create_request()->set_range_end("trel0");
    request.mutable_create_request()->set_start_revision(from);
    stream_->Write(request);
    etcdserverpb::WatchResponse created;
    require(stream_->Read(&created) && created.created(), "no watch");
    thread_ = std::thread([this] { read(); });
  }
  ~BareWatch() {
    context_.TryCancel();
    thread_.join();
  }
  BareWatch(const BareWatch&) = delete;
  BareWatch& operator=(const BareWatch&) = delete;

  size_t events() const { return events_; }
  // When the event of that revision came; waits for it.
  Clock::time_point at(int64_t revision) {
    while (true) {
      std::lock_guard lock(mutex_);
      auto found = times_.find(revision);
      if (found != times_.end()) return found->second;
    }
  }

 private:
  void read() {
    etcdserverpb::WatchResponse response;
    while (stream_->Read(&response)) {
      auto now = Clock::now();
      std::lock_guard lock(mutex_);
      for (const auto& event : response.events()) times_.emplace(event.kv().mod_revision(), now);
      events_ += static_cast<size_t>(response.events_size());
    }
  }

  grpc::ClientContext context_;
  std::unique_ptr<etcdserverpb::Watch::Stub> stub_;
  std::unique_ptr<grpc::ClientReaderWriter<etcdserverpb::WatchRequest, etcdserverpb::WatchResponse>> stream_;
  std::thread thread_;
  std::mutex mutex_;
  std::map<int64_t, Clock::time_point> times_;
  std::atomic<size_t> events_ = 0;
};

std::string reachabilityKey(int member, int neighbour) {
  return fmt::format("trel/members/{}/reachability/{}", member, neighbour);
}
std::string reachability(size_t state) {
  return fmt::format(R"({{"state": {}, "lastChange": 1700000000000000000}})", state);
}

double perSecond(size_t changes, Clock::duration time) {
  return static_cast<double>(changes) / ms(time) * 1000;
}

// As many keys as are wanted: reachability of all members, then storage.
std::vector<Op> manyKeys(size_t count) {
  std::vector<Op> ops;
  for (int member = 1; member <= kMembers; ++member) {
    for (int neighbour = 1; neighbour <= kMembers && ops.size() < count; ++neighbour) {
      if (member == neighbour) continue;
      ops.push_back({Op::What::put, reachabilityKey(member, neighbour), reachability(2)});
    }
  }
  for (int area = 0; ops.size() < count; ++area) {
    for (int member = 1; member <= kMembers && ops.size() < count; ++member) {
      ops.push_back({Op::What::put, fmt::format("trel/members/{}/storage/mnt{}", member, area),
                     R"({"allocationUnits": 4096, "size": 1000000, "free": 1000})"});
    }
  }
  return ops;
}

void write(const Support::EtcdCluster& etcd, const std::vector<Op>& ops, size_t opsPerTxn = kOpsPerTxn) {
  Client client(etcd.endpoints(), {});
  for (size_t at = 0; at < ops.size(); at += opsPerTxn) {
    auto end = std::min(ops.size(), at + opsPerTxn);
    auto result = client.txn(
        {ops.begin() + static_cast<std::ptrdiff_t>(at), ops.begin() + static_cast<std::ptrdiff_t>(end)});
    require(result.ok(), std::string(result.status().message()));
  }
}

E2e::Daemon& follow(E2e::Daemon& daemon, const Support::EtcdCluster& etcd) {
  return daemon.with({"--state", "etcd:" + etcd.endpoint() + "/trel"});
}

uint64_t eventsOf(const E2e::Daemon& daemon) {
  return daemon.status().at("storeCounters").at(0).at("events").get<uint64_t>();
}

// Puts one after the other, each until it is seen.
void putToGet(size_t puts) {
  Support::EtcdCluster etcd;
  Client client(etcd.endpoints(), {});
  require(client.put(reachabilityKey(1, 2), reachability(0)).ok(), "no put");
  E2e::Daemon daemon;
  follow(daemon, etcd).start();
  BareWatch watch(etcd.endpoint());
  Bench::SnmpSession manager(daemon.address());
  Bench::Oid state = Bench::oidOf(fmt::format("1.3.6.1.4.1.{}.3.40.1.2.1.4.1.2", TREL_ENTERPRISE_NUMBER));
  Durations seen, heard, written;
  for (size_t i = 1; i <= puts; ++i) {
    long before = manager.integer(state);
    auto begin = Clock::now();
    auto revision = client.put(reachabilityKey(1, 2), reachability(i % 5));
    require(revision.ok(), "no put");
    written.add(Clock::now() - begin);
    while (manager.integer(state) == before) continue;
    seen.add(Clock::now() - begin);
    heard.add(watch.at(*revision) - begin);
  }
  written.print("put until etcd says it is done");
  heard.print("put until a bare watch has it");
  seen.print("put until SNMP GET shows it");
}

// Transactions as fast as etcd takes them.
void followed(size_t changes) {
  Support::EtcdCluster etcd;
  E2e::Daemon daemon;
  follow(daemon, etcd).start();
  BareWatch watch(etcd.endpoint());
  std::vector<Op> ops = manyKeys(changes);
  auto begin = Clock::now();
  write(etcd, ops);
  auto written = Clock::now() - begin;
  while (watch.events() < changes) std::this_thread::yield();
  auto heard = Clock::now() - begin;
  while (eventsOf(daemon) < changes) continue;
  daemon.waitUntilReady();
  auto mirrored = Clock::now() - begin;
  fmt::print(
      "changes per second, {} in transactions of {}: written {:.0f}, bare watch {:.0f}, in the tables "
      "{:.0f}\n",
      changes, kOpsPerTxn, perSecond(changes, written), perSecond(changes, heard),
      perSecond(changes, mirrored));
}

// All that was written while the daemon stood still; what writing takes does not count.
void followedFromBehind(size_t changes) {
  Support::EtcdCluster etcd;
  E2e::Daemon daemon;
  follow(daemon, etcd).start();
  daemon.process().signal(SIGSTOP);
  write(etcd, manyKeys(changes), kOpsPerSmallTxn);
  auto begin = Clock::now();
  {
    BareWatch watch(etcd.endpoint(), 1);
    while (watch.events() < changes) std::this_thread::yield();
  }
  auto heard = Clock::now() - begin;
  begin = Clock::now();
  daemon.process().signal(SIGCONT);
  while (daemon.status().at("sources").at(0).at("paths").get<uint64_t>() < changes) continue;
  daemon.waitUntilReady();
  auto mirrored = Clock::now() - begin;
  fmt::print(
      "changes per second, {} in transactions of {} from behind: bare watch {:.0f}, in the tables {:.0f}; "
      "relists {}\n",
      changes, kOpsPerSmallTxn, perSecond(changes, heard), perSecond(changes, mirrored),
      daemon.status().at("storeCounters").at(0).at("relists").dump());
}

// SNMP latency until the condition holds, or for a while.
template <class Condition>
Durations latency(const E2e::Daemon& daemon, Condition until, Clock::duration atMost = 600s) {
  Durations times;
  Bench::SnmpSession manager(daemon.address());
  for (auto end = Clock::now() + atMost; Clock::now() < end && !until();) {
    auto begin = Clock::now();
    manager.ask(SNMP_MSG_GET, Bench::upTime());
    times.add(Clock::now() - begin);
    std::this_thread::sleep_for(1ms);
  }
  return times;
}

bool never() { return false; }

void largeStart(size_t keys) {
  Support::EtcdCluster etcd;
  write(etcd, manyKeys(keys));
  {
    Client client(etcd.endpoints(), {});
    auto begin = Clock::now();
    auto listing = client.range(Kelstore::Etcd::KeySpace("trel").all());
    require(listing.ok() && listing->records.size() == keys, "not all keys");
    fmt::print("{} keys: read by a bare client in {:.0f} ms\n", keys, ms(Clock::now() - begin));
  }
  {
    E2e::Daemon daemon;
    auto begin = Clock::now();
    follow(daemon, etcd).start();
    require(daemon.status().at("sources").at(0).at("paths") == keys, "not all paths");
    fmt::print("{} keys: from the start of the daemon until all are served {:.0f} ms\n", keys,
               ms(Clock::now() - begin));
  }
  etcd.end(0);
  E2e::Daemon daemon;
  follow(daemon, etcd).start();
  latency(daemon, never, 5s).print("SNMP GET, etcd refuses connections");
  etcd.launch(0);
  std::atomic<bool> loaded = false;
  std::thread waiting([&] {
    while (daemon.status().at("stores").at(0).at("state") != "watching") std::this_thread::sleep_for(20ms);
    daemon.waitUntilReady();
    loaded = true;
  });
  // What is measured begins with the listing.
  while (daemon.status().at("sources").at(0).at("state") == "stale" && !loaded &&
         daemon.status().at("stores").at(0).at("endpoint").is_null()) {
    continue;
  }
  Durations loading = latency(daemon, [&] { return loaded.load(); });
  waiting.join();
  loading.print(fmt::format("SNMP GET, {} keys are being loaded", keys));
  latency(daemon, never, 5s).print("SNMP GET, usual");
  etcd.process(0)->signal(SIGSTOP);
  latency(daemon, never, 20s).print("SNMP GET, etcd hangs, for 20 s");
  etcd.process(0)->signal(SIGCONT);
}

}  // namespace

int main(int argc, char** argv) {
  size_t puts = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1000;
  size_t keys = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 100'000;
  try {
    putToGet(puts);
    followed(keys);
    followedFromBehind(keys);
    largeStart(keys);
  } catch (const std::exception& error) {
    fmt::print(stderr, "etcd-benchmark: {}\n", error.what());
    return 1;
  }
  return 0;
}
