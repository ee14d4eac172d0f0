// What a cluster of full size costs its store: real followers and publishers, each with connections of its
// own, against a real etcd cluster of three servers, in a process for all followers and one for all
// publishers; and one trelsnmpd and one trelmemberd, whose processor time is that of a member.
//
//   fullsize-benchmark [MEMBERS [SECONDS [FOLLOWERS]]]
//
// Rates are per second, over SECONDS, of all servers together. Then the leader is killed. A machine that is
// too small for as many followers as members takes fewer: what they cost the store grows with their number.
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <stdexcept>
#include <thread>

#include "bench/fullsize/Board.h"
#include "bench/fullsize/Followers.h"
#include "bench/fullsize/Members.h"
#include "bench/fullsize/Metrics.h"
#include "tests/e2e/Daemon.h"
#include "tests/support/Etcd.h"
#include "tests/support/WaitUntil.h"

namespace {

using namespace FullSize;
using namespace std::chrono_literals;

constexpr auto kStartDeadline = 300s;
constexpr auto kRecoveryDeadline = 60s;
// Longer than the time between two readings of all keys by a follower.
constexpr size_t kUsualSeconds = 70;

std::string ownPath() { return std::filesystem::read_symlink("/proc/self/exe"); }

// All that counts, at one moment.
struct Sample {
  std::vector<Metrics> servers;
  std::vector<double> serverSeconds;
  double followers = 0, members = 0, oneFollower = 0, oneMember = 0;
};

class Run {
 public:
  Run(size_t members, size_t seconds, size_t followers)
      : members_(members), seconds_(seconds), others_(followers - 1), etcd_({.nodes = 3}) {
    board_ = mapBoard(dir_.file("board"), true);
    std::string store = "etcd:" + etcd_.endpointList() + "/trel";
    dir_.write("member.json", fmt::format(R"({{"member": {}, "store": "{}"}})", members, store));
    publishers_ = std::make_unique<Support::Process>(role("publish", members_ - 1));
    member_ = std::make_unique<Support::Process>(Support::Argv{TRELMEMBERD, dir_.file("member.json")});
    followers_ = std::make_unique<Support::Process>(role("follow", others_));
    follower_.with({"--state", store}).launch();
  }

  void measure() {
    bool ready = Support::waitUntil([this] { return all(); }, kStartDeadline);
    if (!ready) {
      throw std::runtime_error(
          fmt::format("{} of {} followers have all rows after {} s: is this machine too small for so many?",
                      board_->complete.load(), others_, kStartDeadline / 1s));
    }
    std::this_thread::sleep_for(10s);
    fmt::print("{} members, {} followers, {} s\n", members_, others_ + 1, seconds_);
    uint64_t lostBefore = board_->lostMembers;
    uint64_t changesBefore = board_->changes;
    board_->measuring = true;
    Sample before = sample();
    std::vector<double> sent = sentEachSecond();
    Sample after = sample();
    board_->measuring = false;
    report(before, after, sent, board_->changes - changesBefore);
    printTimes();
    fmt::print("{:<50} {:12}\n", "rows of a live member lost by a follower",
               board_->lostMembers - lostBefore);
  }

  void killLeader() {
    uint64_t lostBefore = board_->lostMembers;
    size_t leader = etcd_.leader();
    uint64_t killedNs = nowNs();
    etcd_.end(leader);
    auto since = [&] { return static_cast<double>(nowNs() - killedNs) / 1e9; };
    auto after = [&](const auto& times) {
      return std::all_of(times.begin() + 1, times.begin() + static_cast<std::ptrdiff_t>(members_),
                         [&](const auto& ns) { return ns > killedNs; });
    };
    // Those that followed the leader are to be seen as lost first.
    std::this_thread::sleep_for(300ms);
    double followedS = 0, renewedS = 0, writtenS = 0;
    Support::waitUntil(
        [&] {
          if (followedS == 0 && board_->watching == others_) followedS = since();
          if (renewedS == 0 && after(board_->renewedNs)) renewedS = since();
          if (writtenS == 0 && after(board_->writtenNs)) writtenS = since();
          return followedS != 0 && renewedS != 0 && writtenS != 0;
        },
        kRecoveryDeadline);
    std::vector<double> sent = sentEachSecond();
    fmt::print(
        "the leader is killed; s until all followers follow {:.1f}, all leases were renewed {:.1f}, "
        "all publishers have written {:.1f} (0.0: not within {} s)\n",
        followedS, renewedS, writtenS, kRecoveryDeadline / 1s);
    printPeak("MB/s sent to clients after that", sent);
    fmt::print("{:<50} {:12}\n", "rows of a live member lost by a follower",
               board_->lostMembers - lostBefore);
  }

 private:
  Support::Argv role(const std::string& name, size_t count) const {
    return {ownPath(),         name, etcd_.endpointList(), std::to_string(count), std::to_string(members_),
            dir_.file("board")};
  }

  bool all() const { return board_->complete == others_ && board_->watching == others_; }

  Sample sample() {
    Sample sample;
    for (size_t node = 0; node < etcd_.size(); ++node) {
      sample.servers.push_back(metricsOf(etcd_.endpoint(node)));
      sample.serverSeconds.push_back(etcd_.process(node) ? processorSeconds(etcd_.process(node)->pid()) : 0);
    }
    sample.followers = processorSeconds(followers_->pid());
    sample.members = processorSeconds(publishers_->pid());
    sample.oneFollower = processorSeconds(follower_.process().pid());
    sample.oneMember = processorSeconds(member_->pid());
    return sample;
  }

  double sentBytes() const {
    double bytes = 0;
    for (const std::string& endpoint : etcd_.endpoints())
      bytes += sum(metricsOf(endpoint), "etcd_network_client_grpc_sent_bytes_total");
    return bytes;
  }

  // MB that the servers sent, in each second.
  std::vector<double> sentEachSecond() const {
    std::vector<double> sent;
    double before = sentBytes();
    auto next = std::chrono::steady_clock::now();
    for (size_t second = 0; second < seconds_; ++second) {
      std::this_thread::sleep_until(next += 1s);
      double now = sentBytes();
      sent.push_back((now - before) / 1e6);
      before = now;
    }
    return sent;
  }

  static void printPeak(const std::string& what, const std::vector<double>& sent) {
    double mean = std::accumulate(sent.begin(), sent.end(), 0.0) / static_cast<double>(sent.size());
    fmt::print("{:<50} {:12.2f} mean, {:.2f} in the highest second\n", what, mean,
               *std::max_element(sent.begin(), sent.end()));
  }

  void report(const Sample& before, const Sample& after, const std::vector<double>& sent, uint64_t changes) {
    auto seconds = static_cast<double>(seconds_);
    auto rates = [&](const std::string& name, const std::vector<std::string>& labels) {
      std::vector<double> each;
      for (size_t node = 0; node < etcd_.size(); ++node) {
        each.push_back((sum(after.servers[node], name, labels) - sum(before.servers[node], name, labels)) /
                       seconds);
      }
      return each;
    };
    auto print = [&](const std::string& what, const std::string& name,
                     const std::vector<std::string>& labels = {}) {
      std::vector<double> each = rates(name, labels);
      double all = std::accumulate(each.begin(), each.end(), 0.0);
      double most = *std::max_element(each.begin(), each.end());
      fmt::print("{:<50} {:12.1f} /s, most at one server {:3.0f} %\n", what, all,
                 all == 0 ? 0 : 100 * most / all);
    };
    auto handled = [&](const std::string& method) {
      print(method, "grpc_server_handled_total", {"grpc_method=\"" + method + "\""});
    };
    for (const char* method : {"Txn", "Range", "Put", "LeaseGrant", "LeaseTimeToLive"}) handled(method);
    print("LeaseKeepAlive", "grpc_server_msg_received_total", {"grpc_method=\"LeaseKeepAlive\""});
    print("Watch, answers", "grpc_server_msg_sent_total", {"grpc_method=\"Watch\""});
    print("events sent to watches", "etcd_debugging_mvcc_events_total");
    print("bytes sent to clients", "etcd_network_client_grpc_sent_bytes_total");
    print("bytes received from clients", "etcd_network_client_grpc_received_bytes_total");
    fmt::print("{:<50} {:12.1f} /s\n", "changes of paths in all followers",
               static_cast<double>(changes) / seconds);
    printPeak("MB/s sent to clients", sent);
    for (size_t node = 0; node < etcd_.size(); ++node) {
      fmt::print("{:<50} {:12.1f} % of a processor\n", fmt::format("etcd {}", node),
                 100 * (after.serverSeconds[node] - before.serverSeconds[node]) / seconds);
    }
    auto processor = [&](const std::string& what, double from, double to, double parts) {
      fmt::print("{:<50} {:12.2f} % of a processor\n", what, 100 * (to - from) / seconds / parts);
    };
    processor("a follower, of all without tables", before.followers, after.followers,
              static_cast<double>(others_));
    processor("trelsnmpd", before.oneFollower, after.oneFollower, 1);
    processor("a publisher, of all", before.members, after.members, static_cast<double>(members_ - 1));
    processor("trelmemberd", before.oneMember, after.oneMember, 1);
  }

  void printTimes() {
    size_t count = std::min<size_t>(board_->times, Board::kMaxTimes);
    std::vector<uint32_t> times(board_->timesUs.begin(), board_->timesUs.begin() + static_cast<long>(count));
    if (times.empty()) return;
    std::sort(times.begin(), times.end());
    auto at = [&](size_t percent) { return times[(count - 1) * percent / 100] / 1000.0; };
    fmt::print("{:<50} {:12.1f} ms p50, {:.1f} ms p99, of {}\n", "from a link's change to a follower's rows",
               at(50), at(99), count);
  }

  size_t members_;
  size_t seconds_;
  size_t others_;  // followers beside the daemon
  Support::TempDir dir_;
  Support::EtcdCluster etcd_;
  std::shared_ptr<Board> board_;
  std::unique_ptr<Support::Process> publishers_;
  std::unique_ptr<Support::Process> member_;
  std::unique_ptr<Support::Process> followers_;
  E2e::Daemon follower_;
};

// A process of its own: ROLE ENDPOINTS COUNT MEMBERS BOARD. Never returns.
void play(char** arguments) {
  std::string store = fmt::format("etcd:{}/trel", arguments[2]);
  size_t count = std::strtoul(arguments[3], nullptr, 10);
  size_t members = std::strtoul(arguments[4], nullptr, 10);
  std::shared_ptr<Board> board = mapBoard(arguments[5], false);
  if (arguments[1] == std::string("publish")) publish(store, count, members, board);
  follow(*Kelstore::Etcd::parseStore(store), count, members, board);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 6) play(argv);
    auto argument = [&](int at, size_t otherwise) {
      return argc > at ? std::strtoul(argv[at], nullptr, 10) : otherwise;
    };
    size_t members = argument(1, 255);
    size_t seconds = argument(2, kUsualSeconds);
    size_t followers = argument(3, members);
    if (members < 3 || members >= kMembers || seconds == 0 || followers < 2) {
      throw std::runtime_error("expected 3 to 255 members, 1 second or more, 2 followers or more");
    }
    Run run(members, seconds, followers);
    run.measure();
    run.killLeader();
  } catch (const std::exception& error) {
    fmt::print(stderr, "fullsize-benchmark: {}\n", error.what());
    return 1;
  }
  return 0;
}
