// A socket of the test's in the place of the system's logger, for a program in a mount namespace of its own.
#pragma once

#include <string>

#include "tests/support/Process.h"

namespace Support {

class SystemLogger final {
 public:
  // In the place of "syslog" or of the "journal", as --log names them. `directory` is the test's, and
  // outlives this. Throws std::runtime_error when there can be no such socket.
  SystemLogger(std::string directory, const std::string& name);
  ~SystemLogger();
  SystemLogger(const SystemLogger&) = delete;
  SystemLogger& operator=(const SystemLogger&) = delete;

  // Why there can be no such namespace here; empty when there can.
  static std::string notAllowed();
  // The program that runs another one, its last arguments, in the namespace.
  Argv runner() const;

  // As a logger that starts anew: another socket takes the place. The one before stays open, so that who is
  // connected with it may still write to it.
  void startAnew();

  // The next message at the socket in the place, or at the one before; empty when none is there.
  std::string received() const { return next(socket_); }
  std::string receivedBefore() const { return next(before_); }

 private:
  void open();
  static std::string next(int socket);

  const std::string directory_;
  const std::string path_;
  int socket_ = -1;
  int before_ = -1;
};

}  // namespace Support
