// What it costs an agent to serve a table, by the way in which it does: trelsnmpd with and without its direct
// answers, and the agents of PeersAgent.cpp with the same rows, columns and views; for scalars also Debian's
// snmpd.
//
// All agents run at once on one core, this program on another. In each round each agent in turn gets the same
// messages; its processor time per varbind is what the kernel accounts to the process, divided by that of the
// sorted iterator in the same round. What is printed are medians over the rounds. With --instructions the
// agents run under callgrind, one after the other, and instructions are counted in place of time.
#include <fmt/format.h>
#include <sched.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <ctime>
#include <memory>
#include <regex>

#include "bench/Cluster.h"
#include "tests/e2e/Daemon.h"
#include "tests/support/Network.h"
#include "tests/wire/Exchange.h"
#include "tests/wire/Tables.h"

namespace {

using Bench::Row;
using Bench::Table;
using Wire::Oid;
using Wire::PduType;

constexpr size_t kMessages = 400;        // different ones of a mode, spread over the table
constexpr size_t kMostPerAnswer = 50;    // rows
constexpr uint32_t kNoSuchIndex = 1000;  // when it is added to one that is there
constexpr int kAgentCore = 0;
constexpr int kOwnCore = 1;
constexpr uint32_t kMostForTableData = 64;  // members: its list is searched from the front

// -- What is asked

struct Mode {
  const char* name;
  PduType type;
  bool allColumns;
  int64_t repetitions;  // of a GETBULK
  bool missing;
};
constexpr Mode kModes[] = {
    {"GET of one column", PduType::get, false, 0, false},
    {"GET of a row's columns", PduType::get, true, 0, false},
    {"GETNEXT, one column", PduType::getNext, false, 0, false},
    {"GETNEXT, all columns", PduType::getNext, true, 0, false},
    {"GETBULK 10", PduType::getBulk, false, 10, false},
    {"GETBULK 50", PduType::getBulk, false, 50, false},
    {"GETBULK 20, all columns", PduType::getBulk, true, 20, false},
    {"GET of a missing row", PduType::get, false, 0, true},
};

const Wire::TableShape& shapeOf(Table table) {
  std::string name = table == Table::reachability ? "veldaTrelReachabilityTable" : "veldaTrelStorageTable";
  const auto& shapes = Wire::tableShapes();
  return *std::find_if(shapes.begin(), shapes.end(), [&](const auto& shape) { return shape.name == name; });
}

Wire::Message messageOf(PduType type, const std::vector<Oid>& names, int64_t repetitions = 0) {
  Wire::Message message;
  message.community = "public";
  message.pdu.type = type;
  message.pdu.second = repetitions;
  for (const Oid& name : names) message.pdu.varbinds.push_back({name, {}});
  return message;
}

// The messages of a mode, whose positions are spread evenly over the rows. The answers end within the first
// column, unless the table is too small for that.
std::vector<Wire::Message> messagesOf(const Mode& mode, Table table, uint32_t members) {
  const Wire::TableShape& shape = shapeOf(table);
  uint32_t lastColumn = mode.allColumns ? shape.lastColumn : shape.firstColumn;
  std::vector<Row> rows = Bench::rowsOf(table, members);
  size_t positions = rows.size() > kMostPerAnswer ? rows.size() - kMostPerAnswer : rows.size();
  std::vector<Wire::Message> messages;
  for (size_t i = 0; i < kMessages; ++i) {
    const Row& row = rows[i * positions / kMessages];
    uint32_t second = row.second + (mode.missing ? kNoSuchIndex : 0);
    std::vector<Oid> names;
    for (uint32_t column = shape.firstColumn; column <= lastColumn; ++column) {
      names.push_back(Wire::joined(shape.root, {1, column, row.member, second}));
    }
    messages.push_back(messageOf(mode.type, names, mode.repetitions));
  }
  return messages;
}

const Oid kUpTime{1, 3, 6, 1, 2, 1, 1, 3, 0};

// -- Whom

class Agent {
 public:
  virtual ~Agent() = default;
  const std::string& name() const { return name_; }

  Wire::Pdu ask(const Wire::Message& message) {
    auto answer = exchange_.ask(message);
    if (!answer) throw std::runtime_error(name_ + " does not answer");
    return Wire::decode(*answer).pdu;
  }

  // All of the messages once.
  void work(const std::vector<Wire::Bytes>& messages) {
    for (const Wire::Bytes& message : messages) {
      exchange_.send(message);
      if (!exchange_.receive(std::chrono::seconds(10))) throw std::runtime_error(name_ + " does not answer");
    }
  }

  double processorNs() {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(process().pid(), &clock) != 0 || clock_gettime(clock, &time) != 0) {
      throw std::runtime_error(name_ + " has gone");
    }
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
  }

  // Requires: it runs under callgrind. Ends it.
  double instructions() {
    process().stop(SIGTERM, std::chrono::seconds(60));
    std::smatch found;
    std::string report = process().err();
    if (!std::regex_search(report, found, std::regex("Collected : ([0-9]+)"))) {
      throw std::runtime_error(name_ + ": no instructions counted: " + report);
    }
    return std::stod(found[1]);
  }

 protected:
  Agent(std::string name, uint16_t port) : name_(std::move(name)), exchange_(port) {}
  virtual Support::Process& process() = 0;

 private:
  std::string name_;
  Wire::Exchange exchange_;
};

class Peer final : public Agent {
 public:
  Peer(const std::string& way, uint32_t members, const Support::Argv& runBy)
      : Peer(way, members, runBy, Support::freeUdpPort()) {}

 private:
  Peer(const std::string& way, uint32_t members, Support::Argv runBy, uint16_t port) : Agent(way, port) {
    runBy.insert(runBy.end(), {PEERS_AGENT, way, std::to_string(members), std::to_string(port)});
    process_ = std::make_unique<Support::Process>(runBy);
    bool ready = Support::waitUntil([this] { return !process_->out().empty() || !process_->running(); },
                                    std::chrono::seconds(60));
    if (!ready || !process_->running()) throw std::runtime_error(way + ": " + process_->err());
  }
  Support::Process& process() override { return *process_; }

  std::unique_ptr<Support::Process> process_;
};

class Ours final : public Agent {
 public:
  Ours(bool direct, uint32_t members, const Support::Argv& runBy)
      : Ours(direct, members, runBy, std::make_unique<E2e::Daemon>()) {}

 private:
  Ours(bool direct, uint32_t members, const Support::Argv& runBy, std::unique_ptr<E2e::Daemon> daemon)
      : Agent(direct ? "direct" : "chain", Support::portOf(daemon->address())), daemon_(std::move(daemon)) {
    daemon_->dir().replace("TrelCore.json",
                           direct ? R"({"TrelSnmpDirect": true})" : R"({"TrelSnmpDirect": false})");
    daemon_->runBy(runBy).with({"--toggles", daemon_->dir().file("TrelCore.json"), "--conf",
                                daemon_->dir().write("snmpd.conf", Bench::kAccess)});
    daemon_->stateIs(Bench::documentOf(members)).start();
  }
  Support::Process& process() override { return daemon_->process(); }

  std::unique_ptr<E2e::Daemon> daemon_;
};

// Debian's agent, for its scalars.
class Stock final : public Agent {
 public:
  explicit Stock(const Support::Argv& runBy) : Stock(runBy, Support::freeUdpPort()) {}

 private:
  Stock(Support::Argv runBy, uint16_t port) : Agent("snmpd", port) {
    std::string conf =
        dir_.write("snmpd.conf", fmt::format("{}\ndontLogTCPWrappersConnects yes\n", Bench::kAccess));
    runBy.insert(runBy.end(), {"/usr/sbin/snmpd", "-f", "-Lo", "-C", "-c", conf, "-p", dir_.file("pid"),
                               fmt::format("udp:127.0.0.1:{}", port)});
    process_ = std::make_unique<Support::Process>(
        runBy, Support::Env{"SNMP_PERSISTENT_DIR=" + dir_.file("persistent"), "MIBS="});
    ask(messageOf(PduType::get, {kUpTime}));
  }
  Support::Process& process() override { return *process_; }

  Support::TempDir dir_;
  std::unique_ptr<Support::Process> process_;
};

// -- How it is measured

using Agents = std::vector<std::unique_ptr<Agent>>;

// Throws when the answers are not the same, but for what the agents' own clocks say, and what lies behind the
// table.
size_t varbindsIn(const std::vector<Wire::Message>& messages, const Agents& agents) {
  const Oid& below = Wire::tableOf(messages.front().pdu.varbinds.front().name)->root;
  Oid behind = below;
  ++behind.back();
  size_t varbinds = 0;
  for (const Wire::Message& message : messages) {
    auto known = [&](Wire::Pdu pdu) {
      for (Wire::Varbind& varbind : pdu.varbinds) {
        if (varbind.name < below || behind <= varbind.name) varbind = {};
        if (varbind.value.tag == Wire::Tag::timeTicks) varbind.value.content.clear();
      }
      return pdu;
    };
    Wire::Pdu expected = known(agents.front()->ask(message));
    varbinds += expected.varbinds.size();
    for (const auto& agent : agents) {
      Wire::Pdu got = known(agent->ask(message));
      if (got == expected) continue;
      throw std::runtime_error(fmt::format("to {}\n{} answers\n{}\n{} answers\n{}", Wire::text(message),
                                           agents.front()->name(), Wire::text(expected), agent->name(),
                                           Wire::text(got)));
    }
  }
  return varbinds;
}

std::vector<Wire::Bytes> encoded(const std::vector<Wire::Message>& messages) {
  std::vector<Wire::Bytes> bytes;
  for (const Wire::Message& message : messages) bytes.push_back(Wire::encode(message));
  return bytes;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

struct Medians {
  double first;                // nanoseconds per varbind of the first agent
  std::vector<double> ratios;  // of all agents, in their order, to the first
};

Medians timed(const std::vector<Wire::Message>& messages, size_t varbinds, const Agents& agents, int rounds) {
  auto bytes = encoded(messages);
  std::vector<double> firsts;
  std::vector<std::vector<double>> ratios(agents.size());
  for (int round = 0; round < rounds; ++round) {
    for (size_t i = 0; i < agents.size(); ++i) {
      double before = agents[i]->processorNs();
      agents[i]->work(bytes);
      double ns = (agents[i]->processorNs() - before) / static_cast<double>(varbinds);
      if (i == 0) firsts.push_back(ns);
      ratios[i].push_back(ns / firsts.back());
    }
  }
  Medians medians{median(firsts), {}};
  for (auto& ratio : ratios) medians.ratios.push_back(median(std::move(ratio)));
  return medians;
}

void print(const std::string& what, const Medians& medians) {
  std::string line = fmt::format("| {:<24} | {:>8.0f} |", what, medians.first);
  for (double ratio : medians.ratios) line += fmt::format(" {:>9.3f} |", ratio);
  fmt::print("{}\n", line);
  std::fflush(stdout);
}

void printHead(const std::string& title, const std::string& unit, const std::vector<std::string>& names) {
  std::string head = fmt::format("\n{}\n\n| {:<24} | {:>8} |", title, "per varbind", unit);
  std::string rule = "|---|---|";
  for (const std::string& name : names) {
    head += fmt::format(" {:>9} |", name);
    rule += "---|";
  }
  fmt::print("{}\n{}\n", head, rule);
}

// The iterator first: what all others are compared with.
std::vector<std::string> waysFor(uint32_t members) {
  std::vector<std::string> ways{"iterator", "container", "native", "chain", "direct"};
  if (members <= kMostForTableData) ways.insert(ways.begin() + 2, "data");
  return ways;
}

bool isOurs(const std::string& way) { return way == "chain" || way == "direct"; }

std::unique_ptr<Agent> started(const std::string& way, uint32_t members, const Support::Argv& runBy) {
  if (way == "snmpd") return std::make_unique<Stock>(runBy);
  if (isOurs(way)) return std::make_unique<Ours>(way == "direct", members, runBy);
  return std::make_unique<Peer>(way, members, runBy);
}

const Support::Argv kPinned{"taskset", "-c", std::to_string(kAgentCore)};

constexpr std::pair<Table, const char*> kTables[] = {{Table::reachability, "reachability"},
                                                     {Table::storage, "storage"}};

void measureTimes(uint32_t members, int rounds, const std::string& wanted) {
  Agents agents;
  auto ways = waysFor(members);
  for (const std::string& way : ways) agents.push_back(started(way, members, kPinned));
  for (auto [table, name] : kTables) {
    printHead(fmt::format("{}, {} rows", name, members * (members - 1)), "ns", ways);
    for (const Mode& mode : kModes) {
      if (std::string(mode.name).find(wanted) == std::string::npos) continue;
      auto messages = messagesOf(mode, table, members);
      print(mode.name, timed(messages, varbindsIn(messages, agents), agents, rounds));
    }
  }
  // The peers serve no scalars.
  Agents scalars;
  scalars.push_back(started("snmpd", members, kPinned));
  for (auto& agent : agents) {
    if (isOurs(agent->name())) scalars.push_back(std::move(agent));
  }
  printHead("sysUpTime.0", "ns", {"snmpd", "chain", "direct"});
  std::vector messages(kMessages, messageOf(PduType::get, {kUpTime}));
  print("GET of a scalar", timed(messages, kMessages, scalars, rounds));
}

// Of one life under callgrind in which the messages are asked so many times.
double instructionsOf(const std::string& way, uint32_t members, const std::vector<Wire::Bytes>& messages,
                      int times) {
  auto agent =
      started(way, members,
              {"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--trace-children=no"});
  for (int i = 0; i < times; ++i) agent->work(messages);
  return agent->instructions();
}

void countInstructions(uint32_t members, const std::string& wanted) {
  auto ways = waysFor(members);
  for (auto [table, name] : kTables) {
    printHead(fmt::format("{}, {} rows", name, members * (members - 1)), "instr.", ways);
    for (const Mode& mode : kModes) {
      if (std::string(mode.name).find(wanted) == std::string::npos) continue;
      auto messages = messagesOf(mode, table, members);
      std::vector<double> counts;
      for (const std::string& way : ways) {
        Agents one;
        one.push_back(started(way, members, {}));
        auto varbinds = static_cast<double>(varbindsIn(messages, one));
        auto bytes = encoded(messages);
        counts.push_back((instructionsOf(way, members, bytes, 3) - instructionsOf(way, members, bytes, 1)) /
                         (2 * varbinds));
      }
      double first = counts.front();
      for (double& count : counts) count /= first;
      print(mode.name, {first, counts});
    }
  }
}

void pinSelf() {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(kOwnCore, &cores);
  sched_setaffinity(0, sizeof cores, &cores);
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Compares what it costs to serve a table in different ways.");
  std::vector<uint32_t> members{4, 32, 255};
  int rounds = 5;
  bool instructions = false;
  std::string mode;
  app.add_option("--members", members, "Sizes of the cluster: 4 has 12 rows, 32 has 992, 255 has 64,770")
      ->check(CLI::Range(2, 255));
  app.add_option("--rounds", rounds, "Rounds, of which the median is printed")->check(CLI::Range(1, 1000));
  app.add_option("--mode", mode, "Only what has this in its name, \"GETBULK\" say");
  app.add_flag("--instructions", instructions, "Count instructions with valgrind in place of time");
  CLI11_PARSE(app, argc, argv);
  if (!instructions) pinSelf();
  for (uint32_t size : members)
    instructions ? countInstructions(size, mode) : measureTimes(size, rounds, mode);
  return 0;
} catch (const std::exception& error) {
  fmt::print(stderr, "peers: {}\n", error.what());
  return 1;
}
