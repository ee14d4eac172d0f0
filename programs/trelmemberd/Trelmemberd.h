// trelmemberd's parts, put together. Built, run and destroyed on one thread.
#pragma once

#include <memory>
#include <string>

#include "host/TraceLog.h"
#include "member/Config.h"
#include "member/LeaseStore.h"
#include "member/NetlinkLinks.h"
#include "member/OwnState.h"
#include "member/Publisher.h"
#include "runtime/EventLoop.h"
#include "runtime/Reload.h"
#include "runtime/Systemd.h"
#include "runtime/Threads.h"
#include "runtime/UvIo.h"

namespace Member {

// The configuration in the file, with the errors of what it points at: the store's address, and the files
// that it takes to be let in there.
ParsedConfig usableConfig(const std::string& path);

// The configured store. Requires: the configuration has no errors.
std::shared_ptr<LeaseStore> storeOf(const Config& config);

class Trelmemberd final {
 public:
  // `path` is the configuration's file. Log, clock and threads must outlive this; work may be under way on
  // threads when it goes. Throws std::runtime_error, in one line, when the kernel does not tell of its
  // network devices.
  Trelmemberd(std::string path, const Config& config, Host::TraceLog& log, const Zavro::Clock& clock,
              Runtime::Threads& threads);

  // Publishes until SIGTERM or SIGINT, then gives the lease back. With SIGHUP the configuration is read
  // again.
  void run();

 private:
  void reloadWaits() const;
  void reloaded(const ParsedConfig& parsed);
  void publish();
  void end();

  const std::string path_;
  Config config_;  // that is in force
  Host::TraceLog& log_;
  Runtime::EventLoop loop_;
  Runtime::SignalWatch terminate_;
  Runtime::SignalWatch interrupt_;
  Runtime::Systemd systemd_;
  Runtime::UvIo io_;
  Publisher publisher_;
  NetlinkLinks links_;
  OwnState state_;
  Runtime::ReadWatch linkWatch_;
  Runtime::Reload<ParsedConfig> reload_;
};

}  // namespace Member
