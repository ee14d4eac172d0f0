#include "tests/support/OwnNetwork.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/support/WaitUntil.h"

namespace Support {
namespace {

Argv words(const std::string& text) {
  std::istringstream stream(text);
  Argv all;
  for (std::string word; stream >> word;) all.push_back(word);
  return all;
}

void runIp(Argv command, const std::string& arguments) {
  command.push_back("ip");
  for (std::string& word : words(arguments)) command.push_back(std::move(word));
  Result result = run(command);
  if (result.status != 0) throw std::runtime_error("ip " + arguments + ": " + result.err);
}

std::filesystem::path networkOf(pid_t process) {
  std::error_code failure;
  return std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/ns/net", failure);
}

}  // namespace

std::string enterOwnNetwork() {
  if (unshare(CLONE_NEWNET) != 0) {
    return std::string("this machine forbids network namespaces: ") + std::strerror(errno);
  }
  try {
    ip("link set lo up");
    ip("link add name probe type veth peer name prober");
    ip("link delete probe");
  } catch (const std::runtime_error& error) {
    return std::string("this machine cannot make veth devices: ") + error.what();
  }
  return "";
}

void ip(const std::string& arguments) { runIp({}, arguments); }

OtherNetwork::OtherNetwork() : holder_(std::make_unique<Process>(Argv{"unshare", "--net", "sleep", "300"})) {
  auto own = std::filesystem::read_symlink("/proc/thread-self/ns/net");
  bool there = waitUntil([&] {
    auto other = networkOf(holder_->pid());
    return !other.empty() && other != own;
  });
  if (!there) throw std::runtime_error("no other network: " + holder_->err());
  ip("link set lo up");
}

void OtherNetwork::take(const std::string& device) const {
  Support::ip("link set " + device + " netns " + std::to_string(holder_->pid()));
}

void OtherNetwork::enter() const {
  int network = open(("/proc/" + std::to_string(holder_->pid()) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
  bool entered = network >= 0 && setns(network, CLONE_NEWNET) == 0;
  int error = errno;
  if (network >= 0) close(network);
  if (!entered) throw std::runtime_error(std::string("the other network: ") + std::strerror(error));
}

void OtherNetwork::writeTo(const std::string& path, const std::string& text) const {
  std::thread([&] {
    enter();
    std::ofstream(path) << text;
  }).join();
}

void OtherNetwork::ip(const std::string& arguments) const {
  runIp({"nsenter", "--net=/proc/" + std::to_string(holder_->pid()) + "/ns/net"}, arguments);
}

}  // namespace Support
