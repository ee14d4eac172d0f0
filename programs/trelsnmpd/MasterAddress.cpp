#include "programs/trelsnmpd/MasterAddress.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <regex>
#include <sstream>

#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Text.h"

namespace Trelsnmpd {
namespace {

constexpr uint64_t kMaxConfBytes = 1 << 20;

// What the files say, the last one that says anything.
struct Configured {
  std::string address;   // empty: nothing
  std::string where;     // "FILE:LINE"
  std::string unusable;  // a value that is no address here, with its place
  std::string unread;    // a file that could not be read, and why
};

void take(const std::string& where, const std::string& value, Configured& configured) {
  std::istringstream addresses(value);
  for (std::string address; std::getline(addresses, address, ',');) {
    if (!isMaster(address)) continue;
    configured.address = address;
    configured.where = where;
    configured.unusable.clear();
    return;
  }
  configured.address.clear();
  configured.unusable = fmt::format("agentXSocket {} in {}", Runtime::inQuotes(value), where);
}

void read(const std::string& path, Configured& configured) {
  absl::StatusOr<std::string> text = Runtime::readFile(path, kMaxConfBytes);
  if (!text.ok()) {
    if (!absl::IsNotFound(text.status())) {
      configured.unread = fmt::format("{}: {}", path, Runtime::textOf(text.status()));
    }
    return;
  }
  std::istringstream lines(*text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    std::istringstream words(line);
    std::string word;
    std::string value;
    if (!(words >> word >> value) || strcasecmp(word.c_str(), "agentxsocket") != 0) continue;
    take(fmt::format("{}:{}", path, number), value, configured);
  }
}

Configured readAll(const MasterPlaces& places) {
  Configured configured;
  for (const std::string& path : confFiles(places)) read(path, configured);
  return configured;
}

enum class Place { none, socket, closed };

Place placeOf(const std::string& path) {
  struct stat found {};
  if (stat(path.c_str(), &found) == 0) return S_ISSOCK(found.st_mode) ? Place::socket : Place::none;
  return errno == EACCES ? Place::closed : Place::none;
}

// Of the places where a socket is or may be, the first; nothing: there is none.
std::optional<std::string> socketAmong(const std::vector<std::string>& paths) {
  for (Place wanted : {Place::socket, Place::closed}) {
    for (const std::string& path : paths) {
      if (placeOf(path) == wanted) return path;
    }
  }
  return std::nullopt;
}

// What keeps this user from connecting, and what to do; empty: nothing.
std::string obstacle(const std::string& address) {
  size_t slash = address.find('/');
  if (slash == std::string::npos) return "";
  std::string path = address.substr(slash);
  if (faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) == 0 || errno != EACCES) return "";
  std::string directory = std::filesystem::path(path).parent_path().string();
  return fmt::format(
      "; but user {} may not connect: put \"agentXPerms 0660 0711 root GROUP\" with a group of this user "
      "into "
      "snmpd's configuration, \"chmod 0711 {}\", and restart snmpd",
      geteuid(), directory);
}

}  // namespace

bool isMaster(const std::string& address) {
  static const std::regex here(R"((unix:)?/.+|tcp:127(\.[0-9]{1,3}){3}:[0-9]{1,5}|tcp6:\[::1\]:[0-9]{1,5})");
  return std::regex_match(address, here);
}

std::vector<std::string> confFiles(const MasterPlaces& places) {
  std::vector<std::string> more;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(places.confDirectory, ignored)) {
    if (entry.path().extension() == ".conf") more.push_back(entry.path().string());
  }
  std::sort(more.begin(), more.end());
  more.insert(more.begin(), places.conf);
  return more;
}

MasterAddress findMaster(const MasterPlaces& places) {
  Configured configured = readAll(places);
  MasterAddress found{configured.address, fmt::format("as agentXSocket in {} says", configured.where)};
  if (configured.address.empty()) {
    std::optional<std::string> socket = socketAmong(places.sockets);
    found.address = "unix:" + socket.value_or(places.sockets.front());
    found.why = socket ? "where a master's socket is" : "net-snmp's default, as no master runs yet";
    if (socket && placeOf(*socket) == Place::closed) found.why = "as the directory exists";
  }
  if (!configured.unusable.empty()) {
    found.why += fmt::format("; {} is no socket of this machine that can be used", configured.unusable);
  }
  if (!configured.unread.empty()) {
    found.why += fmt::format("; {}, so an agentXSocket there does not count: give the address instead",
                             configured.unread);
  }
  found.why = fmt::format("chose {}, {}{}", found.address, found.why, obstacle(found.address));
  return found;
}

}  // namespace Trelsnmpd
