// The daemon trelmemberd: its parts, and how they are wired. For one thread.
#pragma once

#include <memory>
#include <string>

#include "host/TraceLog.h"
#include "member/Config.h"
#include "member/LeaseStore.h"
#include "member/NetlinkLinks.h"
#include "member/OwnState.h"
#include "member/Publisher.h"
#include "runtime/BoundedIo.h"
#include "runtime/EventLoop.h"
#include "runtime/Reload.h"
#include "runtime/Systemd.h"
#include "runtime/Threads.h"
#include "runtime/UvIo.h"

namespace Member {

// Reads the configuration, and checks the store's address and the files for access to it. Blocks.
ParsedConfig usableConfig(const std::string& path);

// The configured store. Requires: the configuration has no errors.
std::shared_ptr<LeaseStore> storeOf(const Config& config);

class Trelmemberd final {
 public:
  // `path` is the configuration's file; handover: the rows are left to a successor at the end. Log, clock and
  // threads outlive this; threads may still be working when it is destroyed. Throws std::runtime_error, in
  // one line, when the kernel refuses to report network devices.
  Trelmemberd(std::string path, const Config& config, bool handover, Host::TraceLog& log,
              const Zavro::Clock& clock, Runtime::Threads& threads);

  // Publishes until SIGTERM or SIGINT, then revokes the lease or hands it over. SIGHUP reloads the
  // configuration.
  void run();

 private:
  void reloadWaits() const;
  void reloaded(const ParsedConfig& parsed);
  void publish();
  void end();

  const std::string path_;
  Config config_;  // in force
  Host::TraceLog& log_;
  Runtime::EventLoop loop_;
  Runtime::SignalWatch terminate_;
  Runtime::SignalWatch interrupt_;
  Runtime::Systemd systemd_;
  Runtime::UvIo io_;
  Runtime::BoundedIo calls_;  // to the store
  Publisher publisher_;
  NetlinkLinks links_;
  OwnState state_;
  Runtime::ReadWatch linkWatch_;
  Runtime::Reload<ParsedConfig> reload_;
};

}  // namespace Member
