// A trelsnmpd with ports, directories and sockets of its own, ended with the object.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/e2e/Manager.h"
#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

namespace E2e {

// Who answers for the tables: the handler of the direct answers, or net-snmp's iterator behind it.
enum class By : uint8_t { direct, chain };
std::string textOf(By by);

class Daemon {
 public:
  // Serves the state that is built in, or the state file once one is written.
  Daemon();

  // Options beside those that start() gives; before start().
  Daemon& with(const Support::Argv& options);
  // With the toggle for it; before start().
  Daemon& answersBy(By by);
  // Instead of a UDP port of its own.
  Daemon& listensAt(const Support::Argv& options);

  // Run by this program, which is given the daemon's path and options as last arguments.
  Daemon& runBy(const Support::Argv& program);

  // Follows dir().file("state.json"), with this content.
  Daemon& stateIs(const std::string& document);
  // Follows a file that is not there yet.
  Daemon& stateToCome();

  // Starts the process, and waits until it serves all of its state; throws when it does not.
  Daemon& start();
  // Starts the process only.
  Support::Process& launch();
  void waitUntilReady() const;

  Support::Process& process() { return *process_; }
  const Support::TempDir& dir() const { return dir_; }
  std::string address() const { return address_; }
  std::string controlPath() const { return dir_.file("control"); }
  std::string stateFile() const { return dir_.file(kStateName); }
  const Manager& manager() const { return manager_; }

  // trelctl with this daemon's socket.
  Support::Result ctl(const Support::Argv& arguments) const;
  nlohmann::json status() const;
  // Whether it answers trelctl, whatever the verdict.
  bool answersTrelctl() const;
  // Varbinds of the tables that were answered directly.
  uint64_t directAnswers() const;
  // The error of the one source, or empty.
  std::string sourceError() const;
  // All that it has logged until now.
  std::string log() const;
  // Lines of the log with errors, without their time: "Kelstore/0 <text>".
  std::vector<std::string> errors() const;

  static constexpr const char* kStateName = "state.json";

 private:
  Support::TempDir dir_;
  std::string address_;
  Manager manager_;
  Support::Argv runBy_;
  Support::Argv options_;
  Support::Argv listen_;
  std::unique_ptr<Support::Process> process_;
};

// Lines for --conf by which the community may write, from this machine, all of the view, or everything.
std::string writingAccess(const std::string& community, const std::string& view = "");

// One that is not to start: runs it with these arguments to its end. Its control socket is its own, unless
// they name one.
Support::Result runDaemon(const Support::Argv& arguments);

}  // namespace E2e
