#include "programs/trelsnmpd/MasterAddress.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <regex>
#include <sstream>

#include "programs/trelsnmpd/SnmpdConf.h"
#include "runtime/Errors.h"
#include "runtime/Text.h"

namespace Trelsnmpd {
namespace {

// What the files say, the last one that says anything.
struct Configured {
  std::string address;   // empty: nothing
  std::string where;     // "FILE:LINE"
  std::string unusable;  // a value that is no address here, with its place
};

// The address by which this machine reaches what listens there: snmpd takes no host, localhost and any
// address, too. Unchanged for others.
std::string fromHere(const std::string& address) {
  static const std::regex four(R"(tcp:((localhost|0\.0\.0\.0):)?([0-9]{1,5}))");
  static const std::regex six(R"(tcp6:((localhost|\[::\]):)?([0-9]{1,5}))");
  std::smatch parts;
  if (std::regex_match(address, parts, four)) return "tcp:127.0.0.1:" + parts[3].str();
  if (std::regex_match(address, parts, six)) return "tcp6:[::1]:" + parts[3].str();
  return address;
}

Configured configuredIn(const SnmpdConf& conf) {
  Configured configured;
  for (const SnmpdConfLine& line : conf.lines) {
    if (line.directive != "agentxsocket") continue;
    configured = {"", line.where, ""};
    std::istringstream addresses(line.value);
    for (std::string address; configured.address.empty() && std::getline(addresses, address, ',');) {
      if (isMaster(fromHere(address))) configured.address = fromHere(address);
    }
    if (configured.address.empty()) {
      configured.unusable = fmt::format("agentXSocket {} in {}", Runtime::inQuotes(line.value), line.where);
    }
  }
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

MasterAddress findMaster(const MasterPlaces& places) {
  SnmpdConf conf = readSnmpdConf(places.conf, places.confDirectory);
  Configured configured = configuredIn(conf);
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
  if (!conf.unread.ok() && !absl::IsNotFound(conf.unread)) {
    found.why += fmt::format("; {}, so an agentXSocket there does not count: give the address instead",
                             Runtime::textOf(conf.unread));
  }
  found.why = fmt::format("chose {}, {}{}", found.address, found.why, obstacle(found.address));
  return found;
}

}  // namespace Trelsnmpd
