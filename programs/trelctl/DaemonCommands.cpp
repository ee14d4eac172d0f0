#include "programs/trelctl/DaemonCommands.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <nlohmann/json.hpp>

#include "programs/trelctl/Doctor.h"
#include "programs/trelctl/Explain.h"
#include "programs/trelctl/Render.h"
#include "programs/trelctl/Support.h"
#include "programs/trelctl/TableChanges.h"
#include "programs/trelctl/Topology.h"
#include "programs/trelctl/Units.h"
#include "programs/trelctl/Unusable.h"
#include "programs/trelctl/Verdict.h"
#include "runtime/CommandLine.h"

namespace TrelCtl {
namespace {

constexpr int kNotServed = 1;
constexpr int kRetryMs = 50;
constexpr int kWatchMs = 1000;

std::string socketOf(const DaemonCommands& commands) {
  try {
    if (!commands.control.empty()) return commands.control;
    std::string configured = controlIn(commands.config);
    return configured.empty() ? Control::defaultSocketPath() : configured;
  } catch (const std::invalid_argument& error) {
    throw Unusable(fmt::format("--control: {}", error.what()));
  }
}

Json answerTo(const char* op, const std::string& path, int answerMs = ControlClient::kAnswerMs) {
  ControlClient client(path, answerMs);
  client.send(op);
  Json answer = client.receive();
  answer.erase("ok");
  return answer;
}

// In ASCII, as a terminal would obey control characters.
std::string dumped(const Json& json, int indent = 2) {
  return json.dump(indent, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace) + "\n";
}

int status(const DaemonCommands& commands) {
  Json now = answerTo(Control::kOpStatus, socketOf(commands));
  Judgement judgement = judgementOf(now);
  if (commands.json) {
    Json all = asJson(judgement);
    all.update(now);
    fmt::print("{}", dumped(all));
  } else {
    fmt::print("{}", renderStatus(now, judgement, commands.all ? Shown::all : Shown::whatMatters));
  }
  return exitStatusOf(judgement.verdict);
}

ShownTables tablesOf(ControlClient& client) {
  client.send(Control::kOpTables);
  ShownTables all;
  while (true) {
    Json part = client.receive();
    if (part.value("done", false)) return all;
    append(part, all);
  }
}

// Leaves the table that is asked for, if one is.
void leaveAsked(const std::string& asked, ShownTables& tables) {
  if (asked.empty()) return;
  std::vector<std::string> names;
  for (const ShownTable& table : tables) names.push_back(table.name);
  try {
    std::string name = tableNamed(asked, names);
    std::erase_if(tables, [&](const ShownTable& table) { return table.name != name; });
  } catch (const std::invalid_argument& error) {
    throw Unusable(error.what());
  }
}

ShownTables shownTables(ControlClient& client, const DaemonCommands& commands) {
  ShownTables tables = tablesOf(client);
  leaveAsked(commands.table, tables);
  if (commands.raw || commands.json) return tables;
  for (ShownTable& table : tables) {
    for (Json& row : table.rows) row = readable(row);
  }
  return tables;
}

void print(const ShownTables& tables, bool json) {
  if (json) {
    Json all = Json::object();
    for (const ShownTable& table : tables) all[table.name] = table.rows;
    return fmt::print("{}", dumped(all));
  }
  const char* separator = "";
  for (const ShownTable& table : tables) {
    fmt::print("{}{}", separator, renderTable(table.name, table.rows));
    separator = "\n";
  }
}

void print(const std::vector<RowChange>& changes, bool json) {
  auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  for (const RowChange& change : changes) {
    if (json) {
      Json line{{"time", fmt::format("{:%FT%TZ}", now)},
                {"table", change.table},
                {"index", change.index},
                {"was", change.was},
                {"is", change.is}};
      fmt::print("{}", dumped(line, -1));
    } else {
      fmt::print("{:%FT%TZ} {}\n", now, textOf(change));
    }
  }
}

// Until the daemon or the reader is gone.
[[noreturn]] void watch(ControlClient& client, const DaemonCommands& commands, ShownTables last) {
  while (true) {
    if (std::fflush(stdout) != 0) throw Unreachable("standard output: nobody reads it any more");
    ::poll(nullptr, 0, kWatchMs);
    ShownTables now = shownTables(client, commands);
    print(changesOf(last, now), commands.json);
    last = std::move(now);
  }
}

int tables(const DaemonCommands& commands) {
  ControlClient client(socketOf(commands));
  ShownTables now = shownTables(client, commands);
  print(now, commands.json);
  if (commands.watch) watch(client, commands, std::move(now));
  return 0;
}

// What the lines of the answer have under the name.
Json partsOf(const Json& request, const char* name, ControlClient& client) {
  client.send(request);
  Json all = Json::array();
  while (true) {
    Json part = client.receive();
    if (part.value("done", false)) return all;
    for (Json& value : part.at(name)) all.push_back(std::move(value));
  }
}

// What the sources say below the segments.
Json valuesBelow(const std::vector<std::string>& segments, ControlClient& client) {
  return partsOf({{"op", Control::kOpValues}, {"below", segments}}, "values", client);
}

int topology(const DaemonCommands& commands) {
  ControlClient client(socketOf(commands));
  Json links = partsOf({{"op", Control::kOpLinks}}, "links", client);
  Topology topology = topologyOf(tablesOf(client), links);
  if (commands.json) {
    fmt::print("{}", dumped(topologyJson(topology)));
  } else if (commands.format == "dot") {
    fmt::print("{}", topologyDot(topology));
  } else {
    fmt::print("{}", commands.format == "svg" ? topologySvg(topology) : topologyText(topology));
  }
  return 0;
}

int doctor(const DaemonCommands& commands) {
  std::vector<Finding> findings = findingsOf(factsOf(socketOf(commands), commands.config));
  fmt::print("{}", commands.json ? dumped(findingsJson(findings)) : findingsText(findings));
  return exitStatusOf(verdictOf(findings));
}

int support(const DaemonCommands& commands) {
  std::string file = commands.file;
  if (file.empty()) {
    auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    file = fmt::format("trel-support-{:%Y%m%dT%H%M%SZ}.tar", now);
  }
  writeArchive(file, supportFiles(socketOf(commands), commands.config));
  fmt::print(
      "{}: status, tables, traces, configurations and logs, without secrets; look through it before it "
      "is passed on\n",
      file);
  return 0;
}

int inspect(const DaemonCommands& commands) {
  ControlClient client(socketOf(commands));
  client.send({{"op", Control::kOpInspect}, {"path", commands.object}});
  Json object = client.receive();
  object.erase("ok");
  fmt::print("{}", commands.json ? dumped(object) : renderObject(object));
  return 0;
}

int call(const DaemonCommands& commands) {
  ControlClient client(socketOf(commands));
  client.send({{"op", Control::kOpCall}, {"path", commands.object}, {"operation", commands.operation}});
  Json answer = client.receive();
  answer.erase("ok");
  fmt::print("{}", commands.json ? dumped(answer) : renderLines(answer.at("result")));
  return 0;
}

int trace(const DaemonCommands& commands) {
  bool sets = !commands.handle.empty();
  if (sets != (commands.level >= 0))
    throw Unusable("expected a HANDLE and a LEVEL, or neither, to list all handles");
  ControlClient client(socketOf(commands));
  Json request{{"op", Control::kOpTrace}};
  if (sets) request.update({{"handle", commands.handle}, {"level", commands.level}});
  client.send(request);
  Json handles = client.receive().at("handles");
  if (commands.json) {
    fmt::print("{}", dumped({{"handles", std::move(handles)}}));
  } else if (!sets) {
    fmt::print("{}", asTable(handles));
  }
  return 0;
}

int explain(const DaemonCommands& commands) {
  ControlClient client(socketOf(commands));
  Instance instance;
  try {
    instance = instanceOf(commands.instance, tablesOf(client));
  } catch (const std::invalid_argument& error) {
    throw Unusable(error.what());
  }
  Json values = Json::array();
  for (const auto& segments : neededFor(instance)) {
    for (Json& value : valuesBelow(segments, client)) values.push_back(std::move(value));
  }
  client.send(Control::kOpStatus);
  Json explanation = TrelCtl::explain(instance, values, client.receive());
  fmt::print("{}", commands.json ? dumped(explanation) : explanationText(explanation));
  return explanation.at("served").get<bool>() ? 0 : kNotServed;
}

// Why a daemon that answers is not ready.
std::string missing(const Json& status) {
  Judgement judgement = judgementOf(status);
  if (judgement.verdict == Verdict::notServing) return judgement.reasons.front().text;
  return "changes are still being applied";
}

int wait(const DaemonCommands& commands) {
  using Clock = std::chrono::steady_clock;
  std::string path = socketOf(commands);
  auto deadline = Clock::now() + std::chrono::duration<double>(commands.timeoutSeconds);
  while (true) {
    std::string problem;
    try {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      Json now = answerTo(Control::kOpReady, path,
                          static_cast<int>(std::clamp<int64_t>(left, 1, ControlClient::kAnswerMs)));
      if (now.at("ready") == true) return 0;
      problem = missing(now);
    } catch (const Unreachable& error) {
      problem = error.what();
    }
    if (Clock::now() >= deadline) {
      throw Unreachable(fmt::format("not ready after {} s: {}", commands.timeoutSeconds, problem));
    }
    ::poll(nullptr, 0, kRetryMs);
  }
}

int accept(const DaemonCommands& commands) {
  for (const Json& name : answerTo(Control::kOpAccept, socketOf(commands)).at("accepted")) {
    fmt::print("{}: the store that is there counts now\n", cell(name));
  }
  return 0;
}

void jsonFlag(CLI::App& app, DaemonCommands& commands, const char* description) {
  app.add_flag("--json", commands.json, description);
}

void describeStatus(CLI::App& app, DaemonCommands& commands) {
  jsonFlag(app, commands, "Print one JSON object");
  app.add_flag("--all", commands.all, "Also what works: collectors, counters, pipelines, tasks");
}

void describeTables(CLI::App& app, DaemonCommands& commands) {
  app.add_option("TABLE", commands.table, "One table, such as reachability (default: all)")->type_name("");
  jsonFlag(app, commands, "Print one JSON object: table name to list of rows; then a line for each change");
  app.add_flag("--raw", commands.raw, "Values as they are on the wire");
  // Completion reads this line.
  app.footer("Tables: BaIf Reachability HrSystem Processor Storage");
  app.add_flag("--watch", commands.watch, "Then print changes, a line each, until this is ended");
}

void describeTopology(CLI::App& app, DaemonCommands& commands) {
  jsonFlag(app, commands, "Print one JSON object");
  app.add_option("--format", commands.format, "text, dot (for Graphviz) or svg (a picture; default: text)")
      ->type_name("FORMAT")
      ->check(Runtime::checking([](const std::string& text) {
        Runtime::oneOf(text, {"text", "dot", "svg"});
      }));
}

void describeExplain(CLI::App& app, DaemonCommands& commands) {
  app.add_option("INSTANCE", commands.instance, "An OID, or a column or table and an index: reach.1.2")
      ->type_name("")
      ->required();
  jsonFlag(app, commands, "Print one JSON object");
}

void describeDoctor(CLI::App& app, DaemonCommands& commands) {
  jsonFlag(app, commands, "Print one JSON object");
}

void describeSupport(CLI::App& app, DaemonCommands& commands) {
  app.add_option("FILE", commands.file, "The archive (default: trel-support-TIME.tar)")->type_name("");
}

void describeInspect(CLI::App& app, DaemonCommands& commands) {
  app.add_option("PATH", commands.object, "Such as ifMib or hostResources/1 (default: the list)")
      ->type_name("");
  jsonFlag(app, commands, "Print one JSON object");
}

void describeCall(CLI::App& app, DaemonCommands& commands) {
  app.add_option("PATH", commands.object, "An object, as inspect lists them")->type_name("")->required();
  app.add_option("OPERATION", commands.operation, "One that inspect shows as a question")
      ->type_name("")
      ->required();
  jsonFlag(app, commands, "Print one JSON object");
}

void describeTrace(CLI::App& app, DaemonCommands& commands) {
  app.add_option("HANDLE", commands.handle, "A part of the daemon; * is each without a level of its own")
      ->type_name("");
  app.add_option("LEVEL", commands.level, "0 (errors) to 9 (all)")
      ->type_name("")
      ->check(CLI::Range(0, 9).description(""));
  jsonFlag(app, commands, "Print one JSON object");
}

void describeWait(CLI::App& app, DaemonCommands& commands) {
  app.add_option("--timeout", commands.timeoutSeconds, "Seconds to wait at most (default: 10)")
      ->type_name("S")
      ->check(CLI::Range(0.0, 1e6).description(""));
}

struct Command {
  const char* name;
  const char* description;
  void (*describe)(CLI::App& app, DaemonCommands& commands);  // null: it has no arguments
  int (*run)(const DaemonCommands& commands);                 // returns the exit status
};
constexpr std::array kCommands = {
    Command{"status", "Say whether the daemon serves all that its sources say, and how it is doing",
            describeStatus, status},
    Command{"tables", "Show the tables as they are served, in walk order", describeTables, tables},
    Command{"topology", "Show the links between the members, and what is wrong with them", describeTopology,
            topology},
    Command{"explain", "Say where a served value comes from, or why there is none", describeExplain, explain},
    Command{"doctor", "Look for what keeps this machine from serving, and say what to do", describeDoctor,
            doctor},
    Command{"support",
            "Write a tar archive for whoever helps: what the daemon says, configurations, logs; no secrets",
            describeSupport, support},
    Command{"inspect", "Show an object within the daemon, by its type; list all of them", describeInspect,
            inspect},
    Command{"call", "Call an operation of such an object that only reads", describeCall, call},
    Command{"trace", "Set how much a part of the daemon logs, until its reload or end; list all parts",
            describeTrace, trace},
    Command{"wait", "Return once the daemon runs and serves all that its sources say", describeWait, wait}};
constexpr Command kAccept{"accept", "Have the daemon follow a store that is in place of the one it followed",
                          nullptr, accept};

void add(CLI::App& app, const Command& command, DaemonCommands& commands) {
  CLI::App* added = app.add_subcommand(command.name, command.description);
  if (command.describe != nullptr) command.describe(*added, commands);
  added->callback([&command, &commands] { commands.exitStatus = command.run(commands); });
}

}  // namespace

void describe(CLI::App& app, DaemonCommands& commands) {
  app.add_option(
         "--control", commands.control,
         "The daemon's Unix socket (default: that of its configuration, or trelsnmpd.sock in its runtime "
         "directory)")
      ->type_name("PATH");
  app.add_option("--config", commands.config, "Where the daemons' configurations are (default: /etc/trel)")
      ->type_name("DIRECTORY");
  for (const Command& command : kCommands) add(app, command, commands);
  auto* store =
      app.add_subcommand("store", "Say who may use the cluster's store, and which one the daemon follows");
  store->require_subcommand(1);
  add(*store, kAccept, commands);
}

}  // namespace TrelCtl
