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
#include "programs/trelmemberd/TrelmemberdOptions.h"
#include "runtime/BoundedIo.h"
#include "runtime/EventLoop.h"
#include "runtime/Reload.h"
#include "runtime/Systemd.h"
#include "runtime/Threads.h"
#include "runtime/UvIo.h"

namespace Member {

// The configured store. Requires: the configuration has no errors.
std::shared_ptr<LeaseStore> storeOf(const Config& config);

class Trelmemberd final {
 public:
  // The options are those of the arguments, which a reload reads again. Log, clock and threads outlive this;
  // threads may still be working when it is destroyed. Throws std::runtime_error, in one line, when the
  // kernel refuses to report network devices.
  Trelmemberd(Runtime::Arguments arguments, const Options& options, Host::TraceLog& log,
              const Zavro::Clock& clock, Runtime::Threads& threads);

  // Publishes until SIGTERM or SIGINT, then revokes the lease or hands it over. SIGHUP reloads the
  // configuration.
  void run();

 private:
  void reloadWaits() const;
  void reloaded(const Reading& reading);
  void publish();
  void end();

  const Runtime::Arguments arguments_;
  const Runtime::Settings::AtStart atStart_;
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
  Runtime::Reload<Reading> reload_;
};

}  // namespace Member
