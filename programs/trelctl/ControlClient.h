// The client's side of the control protocol: one connection to a daemon, with deadlines.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "host/control/ControlProtocol.h"

namespace TrelCtl {

using Json = nlohmann::ordered_json;

// The daemon cannot be reached, or does not answer as it should. The text is one line for the operator.
class Unreachable final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ControlClient {
 public:
  // How long the daemon may take to let a client in, and for one line. It does so within milliseconds.
  static constexpr int kAnswerMs = 10'000;

  // Connects to a daemon of root, of this user, or of the user to whom root gave the directory of the socket;
  // throws Unreachable, also when it is somebody else's.
  explicit ControlClient(const std::string& path, int answerMs = kAnswerMs);
  ~ControlClient();
  ControlClient(const ControlClient&) = delete;
  ControlClient& operator=(const ControlClient&) = delete;

  // Sends a request; throws Unreachable.
  void send(const char* op);
  // The next line of the answer; throws Unreachable, also for an answer that is an error.
  Json receive();

 private:
  [[noreturn]] void fail(const std::string& why) const;

  std::string path_;
  int answerMs_;
  int fd_;
  Control::LineBuffer lines_;
};

}  // namespace TrelCtl
