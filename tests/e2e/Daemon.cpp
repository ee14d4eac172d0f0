#include "tests/e2e/Daemon.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "tests/support/Network.h"

namespace E2e {
namespace {

Support::Argv joined(Support::Argv first, const Support::Argv& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// Nothing of the machine's own directories is read or written.
Support::Env environment(const Support::TempDir& dir) {
  return {"STATE_DIRECTORY=" + dir.file("persistent")};
}

}  // namespace

std::string textOf(By by) { return by == By::direct ? "direct" : "chain"; }

Daemon::Daemon()
    : address_(fmt::format("udp:127.0.0.1:{}", Support::freeUdpPort())),
      manager_(address_),
      listen_{"--listen", address_} {}

Daemon& Daemon::with(const Support::Argv& options) {
  options_ = joined(options_, options);
  return *this;
}

Daemon& Daemon::answersBy(By by) {
  nlohmann::json toggles{{"TrelSnmpDirect", by == By::direct}};
  return with({"--toggles", dir_.write("TrelCore.json", toggles.dump())});
}

Daemon& Daemon::listensAt(const Support::Argv& options) {
  listen_ = options;
  return *this;
}

Daemon& Daemon::runBy(const Support::Argv& program) {
  runBy_ = program;
  return *this;
}

Daemon& Daemon::stateIs(const std::string& document) {
  dir_.replace(kStateName, document);
  return stateToCome();
}

Daemon& Daemon::stateToCome() { return with({"--state", "file:" + stateFile()}); }

Support::Process& Daemon::launch() {
  Support::Argv argv = joined(runBy_, {TRELSNMPD, "--control", controlPath()});
  argv = joined(argv, joined(listen_, options_));
  process_ = std::make_unique<Support::Process>(argv, environment(dir_));
  return *process_;
}

void Daemon::waitUntilReady() const {
  Support::Result ready = ctl({"wait", "--timeout", "20"});
  if (ready.status != 0) {
    throw std::runtime_error("the daemon is not ready: " + ready.err + (process_ ? process_->err() : ""));
  }
}

Daemon& Daemon::start() {
  launch();
  waitUntilReady();
  return *this;
}

Support::Result Daemon::ctl(const Support::Argv& arguments) const {
  return Support::run(joined({TRELCTL, "--control", controlPath()}, arguments));
}

nlohmann::json Daemon::status() const {
  Support::Result result = ctl({"status", "--json"});
  if (result.out.empty()) throw std::runtime_error("no status: " + result.err);
  return nlohmann::json::parse(result.out);
}

bool Daemon::answersTrelctl() const { return !ctl({"status"}).out.empty(); }

uint64_t Daemon::directAnswers() const {
  uint64_t sum = 0;
  const nlohmann::json answer = status();
  for (const auto& table : answer.at("tables")) sum += table.at("directAnswers").get<uint64_t>();
  return sum;
}

std::string Daemon::sourceError() const {
  nlohmann::json sources = status().at("sources");
  const nlohmann::json& error = sources.at(0).at("error");
  return error.is_null() ? "" : error.get<std::string>();
}

// A thread of its own writes it.
std::string Daemon::log() const {
  bool written =
      Support::waitUntil([this] { return !process_->running() || status().at("log").at("waiting") == 0; });
  if (!written) throw std::runtime_error("the daemon's log is not written");
  return process_->err();
}

std::vector<std::string> Daemon::errors() const {
  std::istringstream lines(log());
  std::vector<std::string> found;
  for (std::string time, handle, text; lines >> time >> handle && std::getline(lines, text);) {
    if (time.ends_with('Z') && handle.ends_with("/0")) found.push_back(handle + text);
  }
  return found;
}

std::string writingAccess(const std::string& community, const std::string& view) {
  return fmt::format(
      "com2sec writer 127.0.0.1 {0}\ngroup writers v1 writer\ngroup writers v2c writer\n"
      "view all included .1\naccess writers \"\" any noauth prefix {1} {1} none\n",
      community, view.empty() ? "all" : view);
}

Support::Result runDaemon(const Support::Argv& arguments) {
  Support::TempDir dir;
  Support::Argv argv = joined({TRELSNMPD}, arguments);
  if (std::find(argv.begin(), argv.end(), "--control") == argv.end()) {
    argv.insert(argv.begin() + 1, {"--control", dir.file("control")});
  }
  return Support::run(argv, environment(dir));
}

}  // namespace E2e
