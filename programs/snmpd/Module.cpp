// libTrelSnmpd.so: the cluster's tables in the process of a stock snmpd, which loads it by a line of its
// snmpd.conf:
//
//     dlmod trel /usr/lib/x86_64-linux-gnu/libTrelSnmpd.so
//     trelState /etc/trel/cluster.json
//
// net-snmp's loop is the only one, and there is no other thread.
#include <fmt/format.h>

#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "host/Cluster.h"
#include "kelstore/FileSource.h"
#include "platform/lumalog/Lumalog.h"
#include "platform/snmp/AgentUptime.h"
#include "platform/vem/Vem.h"
#include "platform/zavro/Clock.h"
#include "programs/snmpd/SnmpIo.h"
#include "snmp-modules/NetSnmp.h"

namespace InSnmpd {
namespace {

// Traces, to the agent's own log.
class Traces final : public Lumalog::Sink {
 public:
  Traces() { Lumalog::sinkIs(this); }
  ~Traces() override { Lumalog::sinkIs(before_); }
  Traces(const Traces&) = delete;
  Traces& operator=(const Traces&) = delete;
  void trace(const Lumalog::Line& line) override {
    int priority = line.level <= Lumalog::kErrorLevel ? LOG_ERR : line.level == 1 ? LOG_INFO : LOG_DEBUG;
    snmp_log(priority, "trel: %.*s\n", static_cast<int>(line.text.size()), line.text.data());
  }

 private:
  Lumalog::Sink* before_ = Lumalog::sink();
};

// The library, and the state that it serves. Requires: net-snmp's agent is initialised.
class Module final {
 public:
  explicit Module(std::string path) : path_(std::move(path)) {
    Vem::TaskSchedulerRoot::schedulerIs(scheduler_);
    scheduler_->onRunnable([this] { runnable_.wake(); });
    cluster_.emplace(std::vector<Host::Cluster::MakeSource>{[this](Kelstore::LayeredState& layers) {
                       return std::make_unique<Kelstore::FileSource>(path_, layers, io_, clock_);
                     }},
                     scheduler_);
    cluster_->snmpIsUp();
  }
  ~Module() {
    cluster_->snmpGoesDown();
    cluster_.reset();
    scheduler_->onRunnable({});
    Vem::TaskSchedulerRoot::schedulerIs(nullptr);
  }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  const std::string& path() const { return path_; }

 private:
  // One slice of one task in each turn of the loop, so that requests are served in between.
  void runSlice() {
    scheduler_->runOne();
    if (scheduler_->runnable()) runnable_.wake();
  }

  const std::string path_;
  Traces traces_;
  Zavro::SystemClock clock_;
  Vem::TimeSlice slice_{clock_};
  Zavro::Ptr<Vem::TaskScheduler> scheduler_ = Zavro::makePtr<Vem::TaskScheduler>(slice_);
  Event runnable_{[this] { runSlice(); }};
  SnmpIo io_;
  Snmp::AgentUptime uptime_{
      clock_, [] { return Zavro::Duration(static_cast<double>(netsnmp_get_agent_uptime()) / 100); }};
  std::optional<Host::Cluster> cluster_;
};

// A reload unloads the module and loads it again, but its code stays: so do the tables, if it is named again.
std::unique_ptr<Module> module;
bool loaded = false;
std::string wanted;  // the path in the configuration
bool wrong = false;  // a line of it is

void takeState(const char*, char* line) {
  if (!wanted.empty()) return config_perror("a second trelState, expected one: the first counts");
  std::string path(std::strlen(line) + 1, '\0');
  copy_nword(line, path.data(), static_cast<int>(path.size()));
  path.resize(std::strlen(path.c_str()));
  wrong = path.empty() || path.front() != '/';
  if (wrong) return config_perror("expected the absolute path of a state document");
  wanted = path;
}

void forget() {
  wanted.clear();
  wrong = false;
}

int configured(int, int, void*, void*) {
  // The line has been told of; what it said before goes on.
  if (loaded && wrong && wanted.empty()) return SNMPERR_SUCCESS;
  if (loaded && wanted.empty()) {
    snmp_log(LOG_ERR, "trel: no trelState in snmpd.conf, expected a line \"trelState PATH\" after dlmod\n");
  }
  std::string path = loaded ? wanted : "";
  if (path == (module ? module->path() : "")) return SNMPERR_SUCCESS;
  module.reset();
  if (path.empty()) return SNMPERR_SUCCESS;
  try {
    module = std::make_unique<Module>(path);
  } catch (const std::exception& error) {
    snmp_log(LOG_ERR, "trel: %s, nothing is served\n", error.what());
  }
  return SNMPERR_SUCCESS;
}

int ends(int, int, void*, void*) {
  module.reset();
  return SNMPERR_SUCCESS;
}

}  // namespace
}  // namespace InSnmpd

// What dlmod calls for a module that is named "trel". Not from several threads.
extern "C" void init_trel() {
  using namespace InSnmpd;
  loaded = true;
  snmpd_register_config_handler("trelState", takeState, forget, "PATH");
  static const bool once = [] {
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_READ_CONFIG, configured, nullptr);
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_SHUTDOWN, ends, nullptr);
    return true;
  }();
  static_cast<void>(once);
}

extern "C" void deinit_trel() {
  InSnmpd::loaded = false;
  InSnmpd::forget();
}
