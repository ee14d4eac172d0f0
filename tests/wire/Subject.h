// The daemon that is asked, with a state file of its own, and the model of what it should answer.
#pragma once

#include <memory>

#include "tests/e2e/Daemon.h"
#include "tests/wire/Exchange.h"
#include "tests/wire/Model.h"

namespace Wire {

class Subject {
 public:
  // Starts one; throws when it does not come up. The configuration is in snmpd.conf syntax.
  explicit Subject(const std::string& configuration = modelledAccess(), E2e::By by = E2e::By::direct);

  // Lets it serve this state, and waits until it does; throws, saying how what it serves differs.
  void becomes(const nlohmann::json& document);

  const Model& model() const { return *model_; }
  const AgentClock& clock() const { return clock_; }
  Exchange& exchange() { return exchange_; }
  // Where it listens, on 127.0.0.1.
  uint16_t port() const;
  E2e::Daemon& daemon() { return daemon_; }

  // All that it serves; throws when it does not answer, or walks in circles.
  Tree walk();
  // Resident memory, in KiB.
  size_t residentKiB();
  // What sanitizers have reported so far, or how it ended; empty when it runs and is well.
  std::string complaint();
  // Ends it; what is wrong with how it ended, leaks included; empty when nothing is.
  std::string end();

 private:
  void learnStart();
  // The times of last changes that are served, in walk order.
  std::vector<uint32_t> changes();
  std::string reports();

  E2e::Daemon daemon_;
  Exchange exchange_;
  AgentClock clock_;
  std::unique_ptr<Model> model_;
};

// All that a daemon with modelledAccess() serves; throws when it does not answer, or walks in circles.
Tree treeServed(Exchange& exchange, const Bytes& community);

// How the trees differ, a line for each instance, as long as there are only a few.
std::string difference(const Tree& expected, const Tree& served);

}  // namespace Wire
