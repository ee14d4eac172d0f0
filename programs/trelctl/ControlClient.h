// A client of the control protocol: one connection to a daemon, with deadlines. Its calls block.
#pragma once

#include <sys/types.h>

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>

#include "host/control/ControlProtocol.h"

namespace TrelCtl {

using Json = nlohmann::ordered_json;

// No daemon, no answer in time, or an answer that is an error. what() is one line for the operator.
class Unreachable final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ControlClient {
 public:
  // How long connecting may take, and each line. A healthy daemon takes milliseconds.
  static constexpr int kAnswerMs = 10'000;

  // Connects. The daemon must be root's, this user's, or that of the user to whom root gave the socket's
  // directory. Throws Unreachable.
  explicit ControlClient(const std::string& path, int answerMs = kAnswerMs);
  ~ControlClient();
  ControlClient(const ControlClient&) = delete;
  ControlClient& operator=(const ControlClient&) = delete;

  // Sends a request; throws Unreachable.
  void send(const char* op);
  void send(const Json& request);
  // The daemon's process.
  pid_t peer() const;
  // The next line of the answer; throws Unreachable, also when that is an error.
  Json receive();

 private:
  [[noreturn]] void fail(const std::string& why) const;

  std::string path_;
  int answerMs_;
  int fd_;
  Control::LineBuffer lines_;
};

}  // namespace TrelCtl
