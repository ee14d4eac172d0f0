#include "tests/support/Etcd.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <stdexcept>

#include "tests/support/Network.h"

namespace Support {
namespace {

const Env kEnv = {"ETCDCTL_API=3"};
constexpr Millis kPatience = 30s;

std::string at(uint16_t port) { return fmt::format("127.0.0.1:{}", port); }

// What the HTTP server answers to a GET of the path, with its header; empty when it does not answer.
std::string answerOf(uint16_t port, const std::string& path) {
  std::string answer;
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string request = fmt::format("GET {} HTTP/1.0\r\n\r\n", path);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
    std::array<char, 4096> bytes{};
    for (ssize_t count = 0; (count = ::recv(fd, bytes.data(), bytes.size(), 0)) > 0;)
      answer.append(bytes.data(), static_cast<size_t>(count));
  }
  ::close(fd);
  return answer;
}

}  // namespace

EtcdCluster::EtcdCluster(EtcdOptions options) : options_(std::move(options)) {
  for (size_t i = 0; i < options_.nodes; ++i) {
    nodes_.push_back({fmt::format("node{}", i), freeTcpPort(), freeTcpPort(), nullptr, nullptr});
    if (options_.isolable) nodes_.back().relay = std::make_unique<Relay>(nodes_.back().peerPort);
  }
  restartEmpty();
}

std::string EtcdCluster::endpoint(size_t node) const { return at(nodes_[node].clientPort); }

std::vector<std::string> EtcdCluster::endpoints() const {
  std::vector<std::string> all;
  for (const Node& node : nodes_) all.push_back(at(node.clientPort));
  return all;
}

double EtcdCluster::metric(const std::string& begin, size_t node) const {
  std::istringstream lines(answerOf(nodes_[node].clientPort, "/metrics"));
  double sum = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(begin)) sum += std::stod(line.substr(line.rfind(' ')));
  }
  return sum;
}

std::string EtcdCluster::endpointList() const { return fmt::format("{}", fmt::join(endpoints(), ",")); }

std::string EtcdCluster::dataDir(size_t node) const {
  return directory_.file(fmt::format("{}.{}", nodes_[node].name, generation_));
}

std::string EtcdCluster::initialCluster() const {
  std::vector<std::string> members;
  for (const Node& node : nodes_)
    members.push_back(fmt::format("{}=http://{}", node.name, at(node.advertisedPeerPort())));
  return fmt::format("{}", fmt::join(members, ","));
}

void EtcdCluster::launch(size_t node) {
  Node& it = nodes_[node];
  std::string client = fmt::format("{}://{}", options_.caFile.empty() ? "http" : "https", at(it.clientPort));
  std::string peer = fmt::format("http://{}", at(it.peerPort));
  std::string advertised = fmt::format("http://{}", at(it.advertisedPeerPort()));
  Argv argv = {"etcd",
               "--name",
               it.name,
               "--data-dir",
               dataDir(node),
               "--listen-client-urls",
               client,
               "--advertise-client-urls",
               client,
               "--listen-peer-urls",
               peer,
               "--initial-advertise-peer-urls",
               advertised,
               "--initial-cluster",
               initialCluster(),
               "--initial-cluster-token",
               std::to_string(token_),
               "--logger",
               "zap",
               "--log-outputs",
               "stderr",
               "--log-level",
               "warn"};
  if (!options_.caFile.empty()) {
    argv.insert(argv.end(), {"--client-cert-auth", "--trusted-ca-file", options_.caFile, "--cert-file",
                             options_.certFile, "--key-file", options_.keyFile});
  }
  argv.insert(argv.end(), options_.arguments.begin(), options_.arguments.end());
  it.process = std::make_unique<Process>(argv);
}

void EtcdCluster::start(size_t node) {
  launch(node);
  awaitHealthy(node);
}

void EtcdCluster::awaitHealthy(size_t node) {
  Argv health = ctlCommand(endpoint(node));
  health.insert(health.end(), {"endpoint", "health"});
  Process& process = *nodes_[node].process;
  // Who is asked for a name by the server has an answer.
  auto answer = [&] {
    Result result = run(health, kEnv);
    return result.status == 0 || result.err.find("user name is empty") != std::string::npos;
  };
  bool answers = waitUntil([&] { return !process.running() || answer(); }, kPatience);
  if (!answers || !process.running()) {
    throw std::runtime_error(fmt::format("{} does not answer:\n{}", nodes_[node].name, process.err()));
  }
}

void EtcdCluster::end(size_t node, int signal) {
  std::unique_ptr<Process>& process = nodes_[node].process;
  if (!process) return;
  if (!process->stop(signal, kPatience)) throw std::runtime_error(nodes_[node].name + " does not end");
  process.reset();
}

std::string EtcdCluster::statusField(size_t node, const std::string& name) const {
  Argv status = ctlCommand(endpoint(node));
  status.insert(status.end(), {"endpoint", "status", "--write-out", "fields"});
  std::string text = run(status, kEnv).out;
  std::string intro = fmt::format("\"{}\" : ", name);
  size_t start = text.find(intro);
  if (start == std::string::npos) return {};
  start += intro.size();
  return text.substr(start, text.find('\n', start) - start);
}

size_t EtcdCluster::leader() const {
  size_t found = size();
  auto leads = [&](size_t node) {
    if (!nodes_[node].process) return false;
    std::string leader = statusField(node, "Leader");
    return !leader.empty() && leader == statusField(node, "MemberID");
  };
  bool any = waitUntil(
      [&] {
        for (size_t node = 0; node < size(); ++node) {
          if (leads(node)) found = node;
        }
        return found < size();
      },
      kPatience);
  if (!any) throw std::runtime_error("no node leads");
  return found;
}

void EtcdCluster::leaderIs(size_t node) {
  // The leader is asked, by id in hexadecimal.
  size_t now = leader();
  if (now == node) return;
  std::string id = fmt::format("{:x}", std::stoull(statusField(node, "MemberID")));
  Argv move = ctlCommand(endpoint(now));
  move.insert(move.end(), {"move-leader", id});
  Result moved = run(move, kEnv);
  if (moved.status != 0) throw std::runtime_error("etcdctl move-leader: " + moved.err);
}

void EtcdCluster::isolate(size_t node) {
  for (size_t other = 0; other < size(); ++other) {
    if (other == node) {
      nodes_[other].relay->cut();
    } else {
      nodes_[other].relay->cutFrom(nodes_[node].process->pid());
    }
  }
}

void EtcdCluster::rejoin() {
  for (Node& node : nodes_) node.relay->heal();
}

void EtcdCluster::clear(Id id) {
  for (size_t node = 0; node < size(); ++node) end(node);
  ++generation_;
  if (id == Id::another) ++token_;
}

void EtcdCluster::restartEmpty() {
  clear(Id::another);
  for (size_t node = 0; node < size(); ++node) launch(node);
  for (size_t node = 0; node < size(); ++node) awaitHealthy(node);
}

void EtcdCluster::restartFrom(const std::string& snapshot, Id id) {
  clear(id);
  for (size_t node = 0; node < size(); ++node) {
    const Node& it = nodes_[node];
    Result restored =
        run({"etcdctl", "snapshot", "restore", snapshot, "--name", it.name, "--data-dir", dataDir(node),
             "--initial-cluster", initialCluster(), "--initial-cluster-token", std::to_string(token_),
             "--initial-advertise-peer-urls", fmt::format("http://{}", at(it.advertisedPeerPort()))},
            kEnv);
    if (restored.status != 0) throw std::runtime_error("etcdctl snapshot restore: " + restored.err);
    launch(node);
  }
  for (size_t node = 0; node < size(); ++node) awaitHealthy(node);
}

void EtcdCluster::saveSnapshot(const std::string& file) const {
  Argv argv = ctlCommand(endpoint(leader()));
  argv.insert(argv.end(), {"snapshot", "save", file});
  Result saved = run(argv, kEnv);
  if (saved.status != 0) throw std::runtime_error("etcdctl snapshot save: " + saved.err);
}

Argv EtcdCluster::ctlCommand(const std::string& endpoints) const {
  Argv argv = {"etcdctl", "--endpoints", endpoints};
  if (!options_.caFile.empty()) {
    argv.insert(argv.end(),
                {"--cacert", options_.caFile, "--cert", options_.certFile, "--key", options_.keyFile});
  }
  return argv;
}

Result EtcdCluster::tryCtl(const Argv& arguments, const std::string& user) const {
  std::vector<std::string> up;
  for (const Node& node : nodes_) {
    if (node.process) up.push_back(at(node.clientPort));
  }
  Argv argv = ctlCommand(fmt::format("{}", fmt::join(up, ",")));
  if (!user.empty()) argv.insert(argv.end(), {"--user", user});
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return run(argv, kEnv);
}

std::string EtcdCluster::ctl(const Argv& arguments, const std::string& user) const {
  Result result = tryCtl(arguments, user);
  if (result.status != 0) {
    throw std::runtime_error(fmt::format("etcdctl {}: {}", fmt::join(arguments, " "), result.err));
  }
  return result.out;
}

}  // namespace Support
