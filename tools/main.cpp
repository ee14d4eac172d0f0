// trelctl.
#include <fmt/format.h>
#include <poll.h>

#include <CLI/CLI.hpp>
#include <chrono>

#include "Client.h"
#include "Render.h"

namespace {

using TrelCtl::Client;
using TrelCtl::Json;

constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kRetryMs = 50;

Json status(const std::string& path, int answerMs = Client::kAnswerMs) {
  Client client(path, answerMs);
  client.send(Control::kOpStatus);
  return client.receive();
}

// What a daemon that answers is still waiting for.
std::string missing(const Json& status) {
  if (!status.at("connected").get<bool>()) {
    return fmt::format("not connected to the master agent at {}", TrelCtl::cell(status.at("address")));
  }
  for (const Json& source : status.at("sources")) {
    if (source.at("state") == "loading") {
      return fmt::format("source {} is still loading", TrelCtl::cell(source.at("name")));
    }
  }
  for (const Json& pipeline : status.at("pipelines")) {
    if (pipeline.at("ready") != true) {
      return fmt::format("pipeline {} is not ready", TrelCtl::cell(pipeline.at("name")));
    }
  }
  return "changes are still being applied";
}

void waitUntilReady(const std::string& path, double timeoutSeconds) {
  using Clock = std::chrono::steady_clock;
  auto deadline = Clock::now() + std::chrono::duration<double>(timeoutSeconds);
  while (true) {
    std::string problem;
    try {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      Json now = status(path, static_cast<int>(std::clamp<int64_t>(left, 1, Client::kAnswerMs)));
      if (now.at("ready") == true) return;
      problem = missing(now);
    } catch (const TrelCtl::Unreachable& error) {
      problem = error.what();
    }
    if (Clock::now() >= deadline) {
      throw TrelCtl::Unreachable(fmt::format("not ready after {} s: {}", timeoutSeconds, problem));
    }
    ::poll(nullptr, 0, kRetryMs);
  }
}

// Table name to rows, in the daemon's order.
Json tables(const std::string& path) {
  Client client(path);
  client.send(Control::kOpTables);
  Json all = Json::object();
  while (true) {
    Json part = client.receive();
    if (part.value("done", false)) return all;
    Json& rows = all[part.at("table").get<std::string>()];
    if (rows.is_null()) rows = Json::array();
    for (Json& row : part.at("rows")) rows.push_back(std::move(row));
  }
}

std::string dumped(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

struct Command {
  std::string control = Control::defaultSocketPath();
  bool json = false;
  double timeoutSeconds = 10;

  void runStatus() const {
    Json now = status(control);
    now.erase("ok");
    fmt::print("{}", json ? dumped(now) : TrelCtl::renderStatus(now));
  }
  void runTables() const {
    Json all = tables(control);
    if (json) {
      fmt::print("{}", dumped(all));
      return;
    }
    const char* separator = "";
    for (const auto& [name, rows] : all.items()) {
      fmt::print("{}{}", separator, TrelCtl::renderTable(name, rows));
      separator = "\n";
    }
  }
  void runWait() const { waitUntilReady(control, timeoutSeconds); }
};

void describe(CLI::App& app, Command& command) {
  app.set_version_flag("--version", "trelctl " TREL_VERSION, "Print the version and exit");
  app.footer("Exit status: 0 done, 1 no daemon or not ready in time, 2 unusable arguments.");
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--control", command.control,
                 fmt::format("The daemon's Unix socket (default: {})", command.control))
      ->type_name("PATH");

  auto* statusCommand =
      app.add_subcommand("status", "Show how the daemon, its sources, pipelines, tasks and tables are doing");
  statusCommand->add_flag("--json", command.json, "Print one JSON object");
  statusCommand->callback([&command] { command.runStatus(); });

  auto* tablesCommand =
      app.add_subcommand("tables", "Show the five tables as they are served, in walk order");
  tablesCommand->add_flag("--json", command.json, "Print one JSON object: table name to list of rows");
  tablesCommand->callback([&command] { command.runTables(); });

  auto* waitCommand = app.add_subcommand(
      "wait", "Return once the daemon runs, has read its sources and serves all of the cluster");
  waitCommand->add_option("--timeout", command.timeoutSeconds, "Seconds to wait at most (default: 10)")
      ->type_name("S")
      ->check(CLI::Range(0.0, 1e6).description(""));
  waitCommand->callback([&command] { command.runWait(); });
}

}  // namespace

int main(int argc, char** argv) {
  Command command;
  CLI::App app("Shows what a running trelsnmpd knows and does.", "trelctl");
  describe(app, command);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::string text = error.what();
    fmt::print(stderr, "trelctl: {}\n", text.substr(0, text.find('\n')));
    return kUsage;
  } catch (const std::exception& error) {
    fmt::print(stderr, "trelctl: {}\n", error.what());
    return kFailed;
  }
  return 0;
}
