// trelctl.
#include <fmt/format.h>
#include <poll.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>

#include "kelstore/etcd/AccessFiles.h"
#include "kelstore/etcd/AccessOptions.h"
#include "programs/trelctl/ControlClient.h"
#include "programs/trelctl/Render.h"
#include "programs/trelctl/StoreCommands.h"
#include "runtime/CommandLine.h"
#include "runtime/Errors.h"
#include "runtime/Version.h"

namespace {

using TrelCtl::ControlClient;
using TrelCtl::Json;

constexpr int kFailed = 1;
constexpr int kRetryMs = 50;

Json answerTo(const char* op, const std::string& path, int answerMs = ControlClient::kAnswerMs) {
  ControlClient client(path, answerMs);
  client.send(op);
  return client.receive();
}

// Why a daemon that answers is not ready.
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
      Json now = answerTo(Control::kOpReady, path,
                          static_cast<int>(std::clamp<int64_t>(left, 1, ControlClient::kAnswerMs)));
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
  ControlClient client(path);
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

// In ASCII, as a terminal would obey control characters.
std::string dumped(const Json& json) {
  return json.dump(2, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace) + "\n";
}

struct Command {
  std::string control;  // empty: the default
  bool json = false;
  double timeoutSeconds = 10;

  std::string socket() const {
    try {
      return control.empty() ? Control::defaultSocketPath() : control;
    } catch (const std::invalid_argument& error) {
      throw TrelCtl::Unusable(fmt::format("--control: {}", error.what()));
    }
  }
  void runStatus() const {
    Json now = answerTo(Control::kOpStatus, socket());
    now.erase("ok");
    fmt::print("{}", json ? dumped(now) : TrelCtl::renderStatus(now));
  }
  void runTables() const {
    Json all = tables(socket());
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
  void runAccept() const {
    ControlClient client(socket());
    client.send(Control::kOpAccept);
    for (const Json& name : client.receive().at("accepted")) {
      fmt::print("{}: the store that is there counts now\n", TrelCtl::cell(name));
    }
  }
  void runWait() const { waitUntilReady(socket(), timeoutSeconds); }
};

// The arguments of the commands for a cluster's store.
struct StoreCommand {
  TrelCtl::StoreOptions options;
  std::string path;
  std::string json;
  std::string file;
  TrelCtl::ImportOptions import;
};

CLI::App* storeCommand(CLI::App& app, StoreCommand& command, const char* name, const char* description,
                       std::function<void()> run) {
  auto* added = app.add_subcommand(name, description);
  added
      ->add_option("--store", command.options.store,
                   "The cluster's store: etcd:HOST:PORT[,HOST:PORT...]/PREFIX")
      ->type_name("STORE")
      ->required()
      ->check(Runtime::checking(TrelCtl::checkStore));
  Kelstore::Etcd::Access& access = command.options.access;
  Kelstore::Etcd::describeAccess(*added, access);
  added->callback([&access, run = std::move(run)] {
    absl::Status status = Kelstore::Etcd::checkAccess(access);
    if (!status.ok()) throw TrelCtl::Unusable(Runtime::textOf(status));
    run();
  });
  return added;
}

void describe(CLI::App& app, StoreCommand& command) {
  auto pathOption = [&command](CLI::App* to, const char* meaning) {
    return to->add_option("PATH", command.path, meaning)->type_name("");
  };
  auto fileOption = [&command](CLI::App* to, const char* meaning) {
    return to->add_option("FILE", command.file, meaning)->type_name("");
  };
  constexpr const char* kPath = "A path of the state, such as members/1/storage/%2Fvar%2Flog";

  auto* put = storeCommand(app, command, "put", "Write one value of the cluster's state into its store",
                           [&command] { TrelCtl::put(command.options, command.path, command.json); });
  pathOption(put, kPath)->required();
  put->add_option("JSON", command.json, R"(The value, such as {"load": 7})")->type_name("")->required();

  auto* del = storeCommand(app, command, "del", "Delete from the store what is at a path, or below it",
                           [&command] { TrelCtl::del(command.options, command.path); });
  pathOption(del, kPath)->required();

  auto* get = storeCommand(app, command, "get", "Print what the store has at a path, or below it",
                           [&command] { TrelCtl::get(command.options, command.path); });
  pathOption(get, "A path of the state (default: all of it)");

  auto* import = storeCommand(app, command, "import", "Load a state document into the store", [&command] {
    TrelCtl::importFrom(command.options, command.file, command.import);
  });
  fileOption(import, "The document; - is standard input")->required();
  import->add_flag("--replace", command.import.replace, "Delete what the document does not have");
  using OfMembers = TrelCtl::ImportOptions::OfMembers;
  auto ofMembers = [&command, import](const char* name, OfMembers what, const char* description) {
    return import->add_flag_callback(
        name, [&command, what] { command.import.ofMembers = what; }, description);
  };
  ofMembers("--without-members", OfMembers::leftOut, "Leave out what members publish themselves")
      ->excludes(ofMembers("--force", OfMembers::written, "Write also what members publish themselves"));

  auto* exported = storeCommand(app, command, "export", "Save all of the store as a state document",
                                [&command] { TrelCtl::exportTo(command.options, command.file); });
  fileOption(exported, "Where to write it (default: standard output)");
}

void describe(CLI::App& app, Command& command) {
  app.set_version_flag("--version", std::string("trelctl ") + Runtime::kVersion,
                       "Print the version and exit");
  app.footer(
      "Exit status: 0 done, 1 no daemon, no store, nothing there, values left out or not ready in time, "
      "2 unusable arguments or documents.");
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--control", command.control,
                 "The daemon's Unix socket (default: trelsnmpd.sock in its runtime directory)")
      ->type_name("PATH");

  auto* statusCommand =
      app.add_subcommand("status", "Show how the daemon, its sources, pipelines, tasks and tables are doing");
  statusCommand->add_flag("--json", command.json, "Print one JSON object");
  statusCommand->callback([&command] { command.runStatus(); });

  auto* tablesCommand = app.add_subcommand("tables", "Show the tables as they are served, in walk order");
  tablesCommand->add_flag("--json", command.json, "Print one JSON object: table name to list of rows");
  tablesCommand->callback([&command] { command.runTables(); });

  auto* storeCommands = app.add_subcommand("store", "Tell the daemon which store of the cluster to follow");
  storeCommands->require_subcommand(1);
  storeCommands
      ->add_subcommand("accept", "Have the daemon follow a store that is in place of the one it followed")
      ->callback([&command] { command.runAccept(); });

  auto* waitCommand =
      app.add_subcommand("wait", "Return once the daemon runs and serves all that its sources say");
  waitCommand->add_option("--timeout", command.timeoutSeconds, "Seconds to wait at most (default: 10)")
      ->type_name("S")
      ->check(CLI::Range(0.0, 1e6).description(""));
  waitCommand->callback([&command] { command.runWait(); });
}

}  // namespace

int main(int argc, char** argv) {
  Runtime::openStandardStreams();
  Command command;
  StoreCommand store;
  CLI::App app("Shows what a running trelsnmpd knows and does; reads and writes a cluster's store.",
               "trelctl");
  describe(app, command);
  describe(app, store);
  try {
    return std::max(0, Runtime::parseCommandLine(app, argc, argv, [] {}));
  } catch (const TrelCtl::Unusable& error) {
    for (const std::string& line : error.lines()) Runtime::complain("trelctl", line);
    return Runtime::kUnusable;
  } catch (const std::exception& error) {
    Runtime::complain("trelctl", error.what());
    return kFailed;
  }
}
