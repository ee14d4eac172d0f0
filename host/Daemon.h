// trelsnmpd's parts, put together. Built, run and destroyed on one thread.
#pragma once

#include <optional>
#include <string>

#include "Cluster.h"
#include "ControlServer.h"
#include "EventLoop.h"
#include "Options.h"
#include "SnmpAgent.h"
#include "Systemd.h"
#include "Threads.h"
#include "UvIo.h"
#include "vem/Vem.h"

namespace Host {

class Daemon {
 public:
  // Clock and threads must outlive the daemon; work may be under way on threads when it goes. `etcd` may be
  // null when no such source is among the options.
  Daemon(const Options& options, const EtcdSources* etcd, const Zavro::Clock& clock, Threads& threads);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // One line that says why it cannot run; empty when it can.
  const std::string& error() const { return error_; }
  // Serves until SIGTERM or SIGINT. Requires: error() is empty.
  void run() { loop_.run(); }

 private:
  void start(const EtcdSources* etcd);
  std::unique_ptr<Reply> answer(const std::string& request) const;
  void tellWhenReady();

  const Options options_;
  const Zavro::Clock& clock_;
  const uint64_t startedNs_;
  std::string error_;

  EventLoop loop_;
  Vem::TimeSlice slice_;
  Zavro::Ptr<Vem::TaskScheduler> scheduler_;
  TaskRunner tasks_;
  SignalWatch terminate_;
  SignalWatch interrupt_;
  Systemd systemd_;
  UvIo io_;
  ControlServer control_;
  std::optional<Cluster> cluster_;
  std::optional<SnmpAgent> snmp_;
  std::optional<TurnWatch> untilReady_;
};

}  // namespace Host
