// trelmemberd's parts, put together. Built, run and destroyed on one thread.
#pragma once

#include <memory>
#include <string>

#include "Config.h"
#include "EventLoop.h"
#include "LeaseStore.h"
#include "NetlinkLinks.h"
#include "OwnState.h"
#include "Publisher.h"
#include "Systemd.h"
#include "Threads.h"
#include "UvIo.h"

namespace Member {

// The configuration in the file, with the errors of what it points at: the store's address, and the files
// that it takes to be let in there.
ParsedConfig usableConfig(const std::string& path);

// The configured store. Requires: the configuration has no errors.
std::shared_ptr<LeaseStore> storeOf(const Config& config);

class Trelmemberd final {
 public:
  // Clock and threads must outlive this; work may be under way on threads when it goes. Throws
  // std::runtime_error, in one line, when the kernel does not tell of its network devices.
  Trelmemberd(const Config& config, const Zavro::Clock& clock, Host::Threads& threads);

  // Publishes until SIGTERM or SIGINT, then gives the lease back.
  void run();

 private:
  void publish();
  void end();

  Host::EventLoop loop_;
  Host::SignalWatch terminate_;
  Host::SignalWatch interrupt_;
  Host::Systemd systemd_;
  Host::UvIo io_;
  Publisher publisher_;
  NetlinkLinks links_;
  OwnState state_;
  Host::ReadWatch linkWatch_;
};

}  // namespace Member
