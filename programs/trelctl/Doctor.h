// What keeps a machine from serving, or from serving well, and what to do about it.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "programs/trelctl/ControlClient.h"
#include "programs/trelctl/SnmpdViews.h"
#include "programs/trelctl/Verdict.h"

namespace TrelCtl {

// What there is to see on the machine. An error is one line; empty: none.
struct Facts {
  // The daemon and its process.
  std::string socket;
  std::string daemonError;
  std::optional<Json> status;
  std::optional<uint32_t> user;
  std::optional<uint64_t> capabilities;  // effective, a bit for each

  // Directories of the daemon, if they are there.
  struct Directory {
    std::string path;
    uint32_t owner = 0;
    uint32_t mode = 0;
  };
  std::vector<Directory> directories;

  // The store that the daemon follows, else that of the daemons' configurations.
  std::string store;           // empty: none
  bool accessUnknown = false;  // the configurations do not name it
  bool tls = false;
  bool credentials = false;
  std::string storeError;
  size_t keys = 0;  // below the prefix
  struct Server {
    std::string endpoint;
    std::string version;
    std::string error;
  };
  std::vector<Server> servers;
  // Whether the configured users may write what they should not; nothing: it is not known.
  std::optional<bool> agentMayWrite;
  std::optional<bool> memberMayWriteOthers;

  std::string master;  // which AgentX master there is, and what keeps one from it, in a line
  SnmpdViews views;    // of a stock snmpd

  std::string configurationError;
  bool clockIsSynchronised = true;
  std::string mibs;  // the directory where the MIB modules are; empty: nowhere
};

struct Finding {
  Verdict verdict;     // degraded: it works, but should be mended
  const char* what;    // "clock"
  std::string text;    // what was found
  std::string remedy;  // what to do next; empty where all is well
};

std::vector<Finding> findingsOf(const Facts& facts);
// The worst of them.
Verdict verdictOf(const std::vector<Finding>& findings);

// A line each, "OK", "WARN" or "FAIL", with a line for what to do.
std::string findingsText(const std::vector<Finding>& findings);
Json findingsJson(const std::vector<Finding>& findings);

// Looks at this machine. Blocks for some seconds when daemon or store do not answer. `config`: as in
// Defaults.h.
Facts factsOf(const std::string& socket, const std::string& config);

}  // namespace TrelCtl
