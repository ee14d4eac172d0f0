#include "programs/trelctl/Doctor.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <set>

#include "programs/trelctl/Render.h"
#include "runtime/Text.h"

namespace TrelCtl {
namespace {

// CAP_NET_BIND_SERVICE, for ports below 1024.
constexpr uint64_t kBindService = uint64_t{1} << 10;

class Findings final {
 public:
  explicit Findings(const Facts& facts) : facts_(facts) {}

  std::vector<Finding> found() && {
    daemon();
    if (facts_.status) {
      serving();
      address();
      process();
    }
    for (const Facts::Directory& directory : facts_.directories) look(directory);
    configuration();
    store();
    clock();
    mibs();
    return std::move(found_);
  }

 private:
  void ok(const char* what, std::string text) { found_.push_back({Verdict::ok, what, std::move(text), ""}); }
  void warn(const char* what, std::string text, std::string remedy) {
    found_.push_back({Verdict::degraded, what, std::move(text), std::move(remedy)});
  }
  void fail(const char* what, std::string text, std::string remedy) {
    found_.push_back({Verdict::notServing, what, std::move(text), std::move(remedy)});
  }

  void daemon() {
    if (!facts_.status)
      return fail("daemon", facts_.daemonError, "systemctl status trelsnmpd says why it does not run");
    ok("daemon", fmt::format("{} {} answers at {}", cell(facts_.status->at("daemon")),
                             cell(facts_.status->at("version")), facts_.socket));
  }

  void serving() {
    Judgement judgement = judgementOf(*facts_.status);
    if (judgement.reasons.empty()) ok("serving", "what all sources say is served");
    for (const Reason& reason : judgement.reasons)
      found_.push_back({reason.verdict, "serving", reason.text, "trelctl status shows more"});
  }

  void address() {
    const Json& status = *facts_.status;
    std::string where = cell(status.at("address"));
    if (status.at("mode") == "agentx") {
      if (status.at("connected") == true) {
        ok("agentx", fmt::format("connected to the master agent at {}", where));
      } else {
        fail(
            "agentx", fmt::format("no master agent at {}; --agentx auto {}", where, facts_.master),
            "start snmpd with \"master agentx\", and an agentXSocket of that address, or see docs/agentx.md");
      }
      views();
    } else if (where.find("127.0.0.1:") != std::string::npos && !status.at("stores").empty()) {
      warn("port", fmt::format("answers at {}, to this machine alone, though it follows a cluster", where),
           "set \"listen\" in trelsnmpd.json to an address that managers reach, and \"conf\" to who may ask");
    } else {
      ok("port", fmt::format("answers at {}", where));
    }
  }

  // Of the master, which decides who may read.
  void views() {
    const SnmpdViews& views = facts_.views;
    if (!views.unread.empty()) return warn("views", views.unread, "run this as root, or see docs/agentx.md");
    if (!views.anybody) {
      return warn("views", "snmpd's configuration lets nobody read anything",
                  "put rocommunity or rouser into it: docs/agentx.md");
    }
    for (const std::string& view : views.without) {
      warn("views", fmt::format("snmpd's view {} does not include the tables", view),
           fmt::format("put \"view {} included {}\" into /etc/snmp/snmpd.conf.d/trel.conf, and restart snmpd",
                       view, kTablesSubtree));
    }
    if (views.without.empty()) ok("views", "those of snmpd include the tables");
  }

  void process() {
    if (!facts_.user || !facts_.capabilities) return;
    if (*facts_.user == 0) {
      warn("rights", "trelsnmpd runs as root", "start it by its unit, or with --user trel");
    } else if ((*facts_.capabilities & ~kBindService) != 0) {
      warn("rights",
           fmt::format("trelsnmpd has more capabilities than it needs: {:#x}", *facts_.capabilities),
           "start it by its unit, which gives it CAP_NET_BIND_SERVICE alone");
    } else {
      ok("rights", fmt::format("trelsnmpd runs as user {} with {} capability", *facts_.user,
                               *facts_.capabilities == 0 ? "no" : "one"));
    }
  }

  void look(const Facts::Directory& directory) {
    bool foreign = directory.owner != 0 && facts_.user && directory.owner != *facts_.user;
    if (foreign) {
      fail("directory",
           fmt::format("{} belongs to user {}, and trelsnmpd runs as {}", directory.path, directory.owner,
                       *facts_.user),
           fmt::format("chown -R {} {}", *facts_.user, directory.path));
    } else if ((directory.mode & 0022) != 0) {
      fail("directory",
           fmt::format("{} has mode {:04o}: others may write into it", directory.path, directory.mode),
           fmt::format("chmod go-w {}", directory.path));
    } else {
      ok("directory", fmt::format("{} is its own", directory.path));
    }
  }

  void configuration() {
    if (facts_.configurationError.empty()) return ok("configuration", "can be read");
    warn("configuration", facts_.configurationError, "trelsnmpd --check and trelmemberd --check say more");
  }

  void store() {
    if (facts_.store.empty()) {
      if (facts_.configurationError.empty()) ok("store", "none is configured");
      return;
    }
    if (!facts_.storeError.empty() && facts_.accessUnknown) {
      return warn(
          "store",
          fmt::format("{} is what the daemon follows; without its certificate and password: {}", facts_.store,
                      facts_.storeError),
          "set state, etcd-ca and the others in trelsnmpd.json instead of by options, so that this can "
          "ask as the daemon does");
    }
    if (!facts_.storeError.empty()) {
      return fail("store", facts_.storeError,
                  "see that etcd runs there, and that the user may read the prefix: docs/etcd.md");
    }
    if (facts_.keys == 0) {
      warn("store", fmt::format("{} answers, but has nothing below its prefix", facts_.store),
           "see that the prefix is that of trelmemberd.json on the members, and that trelmemberd runs there");
    } else {
      ok("store", fmt::format("{} answers, with {} keys", facts_.store, facts_.keys));
    }
    if (facts_.credentials && !facts_.tls) {
      warn("store", "the password crosses the network in the clear", "use TLS: etcd-ca and etcd-cert");
    }
    servers();
    roles();
  }

  void servers() {
    std::set<std::string> versions;
    for (const Facts::Server& server : facts_.servers) {
      if (!server.error.empty()) {
        warn("etcd", server.error, "see that etcd runs there; the other servers do meanwhile");
        continue;
      }
      versions.insert(server.version);
      if (isOld(server.version)) {
        warn("etcd", fmt::format("{} runs {}, which is too old", server.endpoint, server.version),
             "update it to etcd 3.4 or later");
      } else {
        ok("etcd", fmt::format("{} runs {}", server.endpoint, server.version));
      }
    }
    if (versions.size() > 1) {
      warn("etcd", fmt::format("the servers run different versions: {}", fmt::join(versions, ", ")),
           "bring the update to its end");
    }
  }

  void roles() {
    constexpr const char* kRemedy = "trelctl store init makes users that may not: docs/etcd.md";
    if (facts_.agentMayWrite == true) warn("roles", "trelsnmpd may write values of members", kRemedy);
    if (facts_.memberMayWriteOthers == true)
      warn("roles", "trelmemberd may write values of other members", kRemedy);
    if (facts_.agentMayWrite == false) ok("roles", "trelsnmpd may not write values of members");
    if (facts_.memberMayWriteOthers == false)
      ok("roles", "trelmemberd may not write values of other members");
  }

  // Before 3.4.
  static bool isOld(const std::string& version) {
    int major = 0;
    int minor = 0;
    return std::sscanf(version.c_str(), "%d.%d", &major, &minor) == 2 &&
           (major < 3 || (major == 3 && minor < 4));
  }

  void clock() {
    if (facts_.clockIsSynchronised) return ok("clock", "is synchronised");
    warn("clock", "is not synchronised, so times of other members are compared with a wrong one",
         "run a time service, such as systemd-timesyncd or chrony");
  }

  void mibs() {
    if (!facts_.mibs.empty()) return ok("mibs", fmt::format("are in {}", facts_.mibs));
    warn("mibs", "the MIB modules are not installed here", "install trel-mibs where managers ask from");
  }

  const Facts& facts_;
  std::vector<Finding> found_;
};

const char* wordOf(Verdict verdict) {
  constexpr std::array kWords = {"OK", "WARN", "FAIL"};
  return kWords.at(static_cast<size_t>(verdict));
}

}  // namespace

std::vector<Finding> findingsOf(const Facts& facts) { return Findings(facts).found(); }

Verdict verdictOf(const std::vector<Finding>& findings) {
  Verdict worst = Verdict::ok;
  for (const Finding& finding : findings) worst = std::max(worst, finding.verdict);
  return worst;
}

std::string findingsText(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& finding : findings) {
    text += fmt::format("{:<4}  {:<13}  {}\n", wordOf(finding.verdict), finding.what,
                        Runtime::escaped(finding.text));
    if (!finding.remedy.empty()) text += fmt::format("{:19}  -> {}\n", "", Runtime::escaped(finding.remedy));
  }
  return text;
}

Json findingsJson(const std::vector<Finding>& findings) {
  Json all = Json::array();
  for (const Finding& finding : findings) {
    all.push_back({{"result", wordOf(finding.verdict)},
                   {"what", finding.what},
                   {"text", finding.text},
                   {"remedy", finding.remedy.empty() ? Json(nullptr) : Json(finding.remedy)}});
  }
  return {{"verdict", nameOf(verdictOf(findings))}, {"findings", std::move(all)}};
}

}  // namespace TrelCtl
