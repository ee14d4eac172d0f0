// The daemon trelsnmpd: its parts, and how they are wired. For one thread.
#pragma once

#include <list>
#include <optional>
#include <string>

#include "host/Cluster.h"
#include "host/ControlServer.h"
#include "host/SnmpAgent.h"
#include "host/TaskRunner.h"
#include "host/TraceLog.h"
#include "kelstore/etcd/Driver.h"
#include "platform/snmp/AgentUptime.h"
#include "platform/vem/Vem.h"
#include "programs/trelsnmpd/TrelsnmpdOptions.h"
#include "runtime/Directories.h"
#include "runtime/EventLoop.h"
#include "runtime/Reload.h"
#include "runtime/Systemd.h"
#include "runtime/Threads.h"
#include "runtime/UvIo.h"

namespace Trelsnmpd {

class Daemon {
 public:
  // Does all that may hang in the file system before it watches SIGTERM and SIGINT, so that until then these
  // end the process. Log, clock and threads outlive this; threads may still be working when it is destroyed.
  // `etcd` may be null when no source is in etcd.
  Daemon(const Options& options, const Kelstore::Etcd::Driver* etcd, Host::TraceLog& log,
         const Zavro::Clock& clock, Runtime::Threads& threads);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Why it cannot run, in one line; empty when it can.
  const std::string& error() const { return error_; }
  // Serves until SIGTERM or SIGINT. Requires: error() is empty.
  void run() { loop_.run(); }

 private:
  void reloadWaits() const;
  // What a reload reads.
  struct Reading {
    Options options;
    Runtime::Findings findings;
    Host::SnmpConf conf;
  };
  static Reading readAll(const Runtime::Arguments& arguments);
  void reloaded(const Reading& reading);
  std::string reloadConf(const Reading& reading, std::vector<std::string>& fixed);
  void start(const Kelstore::Etcd::Driver* etcd);
  void answer(const std::string& request, const Host::ControlServer::Answer& answer);
  std::unique_ptr<Host::Reply> acceptStores();
  std::unique_ptr<Host::Reply> inspected(const nlohmann::json& request) const;
  std::unique_ptr<Host::Reply> called(const nlohmann::json& request) const;
  std::unique_ptr<Host::Reply> values(const nlohmann::json& request) const;
  void tellWhenReady();

  const Options options_;
  const Zavro::Clock& clock_;
  Runtime::Threads& threads_;
  const uint64_t startedNs_;
  Host::TraceLog& log_;
  std::string error_;

  Runtime::LockFile stateLock_;
  Runtime::EventLoop loop_;
  Vem::TimeSlice slice_;
  Zavro::Ptr<Vem::TaskScheduler> scheduler_;
  Host::TaskRunner tasks_;
  Runtime::Systemd systemd_;
  Runtime::UvIo io_;
  Host::ControlServer control_;
  std::optional<Host::Cluster> cluster_;
  std::optional<Host::SnmpAgent> snmp_;
  std::optional<Snmp::AgentUptime> uptime_;
  std::optional<Runtime::TurnWatch> untilReady_;
  Runtime::Timer health_{loop_, [this] { cluster_->look(clock_.utcNs()); }};
  std::list<Runtime::SignalWatch> signals_;
  std::optional<Runtime::Reload<Reading>> reload_;
};

}  // namespace Trelsnmpd
