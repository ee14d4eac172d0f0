// trelctl.
#include <CLI/CLI.hpp>
#include <functional>

#include "kelstore/etcd/AccessFiles.h"
#include "kelstore/etcd/AccessOptions.h"
#include "programs/trelctl/DaemonCommands.h"
#include "programs/trelctl/StoreCommands.h"
#include "programs/trelctl/StoreInit.h"
#include "runtime/CommandLine.h"
#include "runtime/Errors.h"
#include "runtime/Version.h"

namespace {

constexpr int kFailed = 1;

// The arguments of the commands for a cluster's store.
struct StoreCommand {
  explicit StoreCommand(const std::string& configDirectory) : config(configDirectory) {}

  const std::string& config;
  TrelCtl::StoreOptions options;
  std::string path;
  std::string json;
  std::string file;
  TrelCtl::ImportOptions import;
  TrelCtl::WithoutLease withoutLease = TrelCtl::WithoutLease::refused;
  unsigned member = 0;
  TrelCtl::ForgetOptions forget;
  TrelCtl::Run run = TrelCtl::Run::wet;
  TrelCtl::InitOptions init;
};

// With its access, unless options give one.
void takeDefaultStore(StoreCommand& command) {
  TrelCtl::DefaultStore found = TrelCtl::storeIn(command.config);
  command.options.store = found.store;
  if (command.options.access == Kelstore::Etcd::Access()) command.options.access = found.access;
}

CLI::App* storeCommand(CLI::App& app, StoreCommand& command, const char* name, const char* description,
                       std::function<void()> run) {
  auto* added = app.add_subcommand(name, description);
  added
      ->add_option("--store", command.options.store,
                   "The cluster's store: etcd:HOST:PORT[,HOST:PORT...]/PREFIX (default: that of the daemons' "
                   "configurations)")
      ->type_name("STORE")
      ->check(Runtime::checking(TrelCtl::checkStore));
  Kelstore::Etcd::Access& access = command.options.access;
  Kelstore::Etcd::describeAccess(*added, access);
  added->callback([&command, &access, run = std::move(run)] {
    if (command.options.store.empty()) takeDefaultStore(command);
    absl::Status status = Kelstore::Etcd::checkAccess(access);
    if (!status.ok()) throw TrelCtl::Unusable(Runtime::textOf(status));
    run();
  });
  return added;
}

void dryRun(CLI::App* app, TrelCtl::Run& run) {
  app->add_flag_callback(
      "--dry-run", [&run] { run = TrelCtl::Run::dry; }, "Print what would be changed, and change nothing");
}

void describe(CLI::App& app, StoreCommand& command) {
  auto pathOption = [&command](CLI::App* to, const char* meaning) {
    return to->add_option("PATH", command.path, meaning)->type_name("");
  };
  auto fileOption = [&command](CLI::App* to, const char* meaning) {
    return to->add_option("FILE", command.file, meaning)->type_name("");
  };
  constexpr const char* kPath = "A path of the state, such as members/1/storage/%2Fvar%2Flog";

  auto* put = storeCommand(
      app, command, "put", "Write one value of the cluster's state into its store",
      [&command] { TrelCtl::put(command.options, command.path, command.json, command.withoutLease); });
  pathOption(put, kPath)->required();
  put->add_flag_callback(
      "--force", [&command] { command.withoutLease = TrelCtl::WithoutLease::written; },
      "Also below a member that publishes under a lease");
  put->add_option("JSON", command.json, R"(The value, such as {"load": 7})")->type_name("")->required();

  auto* del = storeCommand(app, command, "del", "Delete from the store what is at a path, or below it",
                           [&command] { TrelCtl::del(command.options, command.path, command.run); });
  pathOption(del, kPath)->required();
  dryRun(del, command.run);

  auto* forget = storeCommand(
      app, command, "forget", "Delete all that a member has published, such as one that is gone for good",
      [&command] { TrelCtl::forget(command.options, static_cast<uint8_t>(command.member), command.forget); });
  forget->add_option("MEMBER", command.member, "The member's id, 0 to 255")
      ->type_name("")
      ->required()
      ->check(CLI::Range(0, 255).description(""));
  dryRun(forget, command.forget.run);
  forget->add_flag("--yes", command.forget.confirmed, "Do not ask");
  forget->add_flag("--force", command.forget.force, "Also when its lease lives");

  auto* get = storeCommand(app, command, "get", "Print what the store has at a path, or below it",
                           [&command] { TrelCtl::get(command.options, command.path); });
  pathOption(get, "A path of the state (default: all of it)");

  auto* import = storeCommand(app, command, "import", "Load a state document into the store", [&command] {
    TrelCtl::importFrom(command.options, command.file, command.import);
  });
  fileOption(import, "The document; - is standard input")->required();
  import->add_flag("--replace", command.import.replace, "Delete what the document does not have");
  dryRun(import, command.import.run);
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

  TrelCtl::InitOptions& what = command.init;
  auto* init =
      storeCommand(*app.get_subcommand("store"), command, "init",
                   "Create a user and a role for each member, and one for all agents, in the cluster's store",
                   [&command] { TrelCtl::initStore(command.options, command.init); });
  init->add_option_function<std::string>(
          "--members", [&what](const std::string& text) { what.members = TrelCtl::membersOf(text); },
          "The members' numbers, such as 1-20,30")
      ->type_name("N-N,...")
      ->required()
      ->check(Runtime::checking([](const std::string& text) { TrelCtl::membersOf(text); }));
  Runtime::addTextOption(*init, "--interfaces", what.interfaces,
                         "What the names of a member's interfaces begin with; % is its number "
                         "(default: Backplane%/)",
                         "TEXT");
  Runtime::addTextOption(*init, "--credentials", what.credentials,
                         "Where to write each user's password (default: users have none, and are told by "
                         "the names in their certificates)",
                         "DIRECTORY");
  init->add_flag("--enable", what.enable, "Have the servers ask from then on who it is");
  dryRun(init, what.run);
}

}  // namespace

int main(int argc, char** argv) {
  Runtime::openStandardStreams();
  TrelCtl::DaemonCommands daemon;
  StoreCommand store(daemon.config);
  CLI::App app("Shows what a running trelsnmpd knows and does; reads and writes a cluster's store.",
               "trelctl");
  app.set_version_flag("--version", std::string("trelctl ") + Runtime::kVersion,
                       "Print the version and exit");
  app.footer(
      "Exit status: 0 done, 1 no daemon, no store, nothing there or served, values left out or not ready in "
      "time, "
      "2 unusable arguments or documents; of status and doctor: 3 degraded, 4 not serving.");
  app.require_subcommand(1);
  app.fallthrough();
  TrelCtl::describe(app, daemon);
  describe(app, store);
  try {
    int ended = Runtime::parseCommandLine(app, argc, argv, [] {});
    return ended > 0 ? ended : daemon.exitStatus;
  } catch (const TrelCtl::Unusable& error) {
    for (const std::string& line : error.lines()) Runtime::complain("trelctl", line);
    return Runtime::kUnusable;
  } catch (const std::exception& error) {
    Runtime::complain("trelctl", error.what());
    return kFailed;
  }
}
