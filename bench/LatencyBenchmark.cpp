// How long a manager waits for a GET of a scalar, whatever else the daemon has to do: one request after the
// other, while the daemon is idle, takes up a cluster of full size, sees all of its reachability change, and
// is walked by another manager.
#include <fmt/format.h>

#include <atomic>
#include <thread>

#include "bench/Cluster.h"
#include "bench/Durations.h"
#include "tests/e2e/Daemon.h"
#include "tests/support/Network.h"
#include "tests/wire/Exchange.h"
#include "tests/wire/Tables.h"

namespace {

using namespace std::chrono_literals;
using Wire::Oid;

constexpr uint32_t kMembers = 255;
constexpr auto kPhase = 5s;

const Oid kUpTime{1, 3, 6, 1, 2, 1, 1, 3, 0};
// veldaTrelReachabilityState.
Oid stateOf(const Bench::Row& row) {
  for (const auto& shape : Wire::tableShapes()) {
    if (shape.name == std::string("veldaTrelReachabilityTable")) {
      return Wire::joined(shape.root, {1, 4, row.member, row.second});
    }
  }
  throw std::logic_error("no such table");
}

class Manager {
 public:
  explicit Manager(const E2e::Daemon& daemon) : exchange_(Support::portOf(daemon.address())) {}

  std::vector<Wire::Varbind> ask(Wire::PduType type, const Oid& name, int64_t repetitions = 0) {
    Wire::Message message;
    message.community = "public";
    message.pdu.type = type;
    message.pdu.requestId = ++lastId_;
    message.pdu.second = repetitions;
    message.pdu.varbinds = {{name, {}}};
    auto answer = exchange_.ask(message);
    if (!answer) throw std::runtime_error("the daemon does not answer");
    return Wire::decode(*answer).pdu.varbinds;
  }

 private:
  Wire::Exchange exchange_;
  int64_t lastId_ = 0;
};

// Asks until the condition, which a second manager looks after on a thread of its own, holds.
template <class Condition>
void measure(const E2e::Daemon& daemon, const std::string& what, Condition condition) {
  std::atomic<bool> done = false;
  std::thread watcher([&] {
    Manager manager(daemon);
    while (!condition(manager)) continue;
    done = true;
  });
  Manager manager(daemon);
  Bench::Durations durations;
  while (!done) {
    auto begin = Bench::Clock::now();
    manager.ask(Wire::PduType::get, kUpTime);
    durations.add(Bench::Clock::now() - begin);
  }
  watcher.join();
  durations.print(what);
}

// Looks only now and then, so that it does not disturb.
auto untilLastRowIs(const Wire::Value& state) {
  return [state](Manager& manager) {
    std::this_thread::sleep_for(20ms);
    auto row = Bench::rowsOf(Bench::Table::reachability, kMembers).back();
    return manager.ask(Wire::PduType::get, stateOf(row)).front().value == state;
  };
}

void run() {
  constexpr int64_t kReachable = 3;
  constexpr int64_t kUnreachable = 5;
  E2e::Daemon daemon;
  daemon.stateIs(Bench::documentOf(2)).start();
  measure(daemon, "idle", [](Manager&) {
    std::this_thread::sleep_for(kPhase);
    return true;
  });
  daemon.dir().replace(E2e::Daemon::kStateName, Bench::documentOf(kMembers));
  measure(daemon, "taking up 64,770 reports and as many file systems",
          untilLastRowIs(Wire::integerValue(kReachable)));
  daemon.dir().replace(E2e::Daemon::kStateName, Bench::documentOf(kMembers, "unreachable"));
  measure(daemon, "64,770 reports change", untilLastRowIs(Wire::integerValue(kUnreachable)));
  auto end = Bench::Clock::now() + kPhase;
  measure(daemon, "another manager walks", [end, at = Oid()](Manager& manager) mutable {
    if (at.empty()) at = {1, 3, 6, 1, 4, 1};
    auto answer = manager.ask(Wire::PduType::getBulk, at, 50);
    at = answer.back().value.tag == Wire::Tag::endOfMibView ? Oid() : answer.back().name;
    return Bench::Clock::now() >= end;
  });
}

}  // namespace

int main() try {
  run();
  return 0;
} catch (const std::exception& error) {
  fmt::print(stderr, "latency-benchmark: {}\n", error.what());
  return 1;
}
