#include "programs/trelctl/Support.h"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>

#include "programs/trelctl/ControlClient.h"
#include "programs/trelctl/Defaults.h"
#include "programs/trelctl/Doctor.h"
#include "programs/trelctl/Secrets.h"
#include "programs/trelctl/TableChanges.h"
#include "programs/trelctl/Tar.h"
#include "programs/trelctl/Unusable.h"
#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Version.h"

namespace TrelCtl {
namespace {

constexpr uint64_t kMaxFileBytes = 1 << 20;
constexpr uint64_t kMaxLogBytes = 16 << 20;

std::string indented(const Json& what) {
  return what.dump(2, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace) + "\n";
}

Json rowsByTable(ControlClient& client) {
  ShownTables tables;
  for (Json part = client.receive(); !part.value("done", false); part = client.receive())
    append(part, tables);
  Json all = Json::object();
  for (const ShownTable& table : tables) all[table.name] = table.rows;
  return all;
}

std::string answer(const std::string& socket, const char* op,
                   const std::function<Json(ControlClient&)>& received) {
  try {
    ControlClient client(socket);
    client.send(op);
    return indented(received(client));
  } catch (const Unreachable& error) {
    return fmt::format("{}\n", error.what());
  }
}

std::string versions() {
  utsname machine{};
  uname(&machine);
  return fmt::format("trelctl {}\n{} {} {}\n{}", Runtime::kVersion, machine.sysname, machine.release,
                     machine.machine, Runtime::readFile("/etc/os-release", kMaxFileBytes).value_or(""));
}

// The last lines that the unit logged.
std::string logOf(const char* unit) {
  std::string command =
      fmt::format("timeout 20 journalctl --quiet --no-pager --lines=2000 --unit={}.service 2>&1", unit);
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "re"), pclose);
  if (!pipe) return "journalctl cannot be run\n";
  absl::StatusOr<std::string> lines = Runtime::readAll(fileno(pipe.get()), kMaxLogBytes);
  return lines.ok() ? *std::move(lines) : Runtime::textOf(lines.status()) + "\n";
}

// The file that the daemon reads access from, as its configuration names it.
std::string confIn(const std::string& configuration) {
  Json parsed = Json::parse(configuration, nullptr, /*allow_exceptions=*/false);
  auto at = parsed.is_object() ? parsed.find("conf") : parsed.end();
  return parsed.is_object() && at != parsed.end() && at->is_string() ? at->get<std::string>() : "";
}

class Collection final {
 public:
  Collection(const std::string& socket, const std::string& config) : socket_(socket), config_(config) {}

  std::vector<SupportFile> files() && {
    add("versions.txt", versions());
    add("status.json", answer(socket_, Control::kOpStatus, [](ControlClient& c) { return c.receive(); }));
    add("tables.json", answer(socket_, Control::kOpTables, rowsByTable));
    add("traces.json", answer(socket_, Control::kOpTrace, [](ControlClient& c) { return c.receive(); }));
    configurations();
    // They may quote what was just taken out.
    add("doctor.txt", secrets_.textWithout(findingsText(findingsOf(factsOf(socket_, config_)))));
    for (const char* unit : {"trelsnmpd", "trelmemberd"})
      add(fmt::format("{}.log", unit), secrets_.textWithout(logOf(unit)));
    return std::move(files_);
  }

 private:
  using Without = std::string (Secrets::*)(const std::string&);

  void add(std::string name, std::string content) { files_.push_back({std::move(name), std::move(content)}); }

  // Returns what the file has, secrets included.
  std::string read(const std::string& name, const std::string& path, Without without) {
    absl::StatusOr<std::string> text = Runtime::readFile(path, kMaxFileBytes);
    add(name, text.ok() ? (secrets_.*without)(*text) : Runtime::textOf(text.status()) + "\n");
    return text.value_or("");
  }

  void configurations() {
    std::string agent = read("trelsnmpd.json", config_ + "/trelsnmpd.json", &Secrets::jsonWithout);
    if (std::string conf = confIn(agent); !conf.empty()) read("conf", conf, &Secrets::confWithout);
    read("trelmemberd.json", config_ + "/trelmemberd.json", &Secrets::jsonWithout);
    read("snmpd.conf", "/etc/snmp/snmpd.conf", &Secrets::confWithout);
  }

  const std::string socket_;
  const std::string config_;
  Secrets secrets_;
  std::vector<SupportFile> files_;
};

}  // namespace

std::vector<SupportFile> supportFiles(const std::string& socket, const std::string& config) {
  return Collection(socket, config).files();
}

void writeArchive(const std::string& path, const std::vector<SupportFile>& files) {
  Tar tar(static_cast<uint64_t>(std::time(nullptr)));
  for (const SupportFile& file : files) tar.add("trel-support/" + file.name, file.content);
  orUnusable(path, Runtime::writeNewFile(path, std::move(tar).archive(), 0600));
}

}  // namespace TrelCtl
