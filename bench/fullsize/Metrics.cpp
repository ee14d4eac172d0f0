#include "bench/fullsize/Metrics.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/support/Network.h"

namespace FullSize {
namespace {

// The answer to a GET, with its head; empty: there is none.
std::string get(uint16_t port, const std::string& path) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  timeval patience{2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  std::string request = "GET " + path + " HTTP/1.0\r\n\r\n";
  bool asked = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
               send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0;
  char part[65536];
  for (ssize_t size = 0; asked && (size = recv(fd, part, sizeof part, 0)) > 0;) {
    answer.append(part, static_cast<size_t>(size));
  }
  close(fd);
  return answer;
}

}  // namespace

Metrics metricsOf(const std::string& endpoint) {
  Metrics metrics;
  std::istringstream lines(get(Support::portOf(endpoint), "/metrics"));
  for (std::string line; std::getline(lines, line);) {
    size_t space = line.rfind(' ');
    if (line.empty() || line[0] == '#' || space == std::string::npos) continue;
    metrics[line.substr(0, space)] = std::strtod(line.c_str() + space, nullptr);
  }
  return metrics;
}

double sum(const Metrics& metrics, const std::string& name, const std::vector<std::string>& labels) {
  double all = 0;
  for (auto at = metrics.lower_bound(name); at != metrics.end() && at->first.starts_with(name); ++at) {
    const std::string& key = at->first;
    if (key.size() > name.size() && key[name.size()] != '{') continue;
    bool meant = std::all_of(labels.begin(), labels.end(),
                             [&key](const std::string& label) { return key.find(label) != key.npos; });
    if (meant) all += at->second;
  }
  return all;
}

double processorSeconds(pid_t process) {
  std::ifstream file(fmt::format("/proc/{}/stat", process));
  std::string text((std::istreambuf_iterator<char>(file)), {});
  size_t end = text.rfind(')');
  if (end == std::string::npos) return 0;
  std::istringstream fields(text.substr(end + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) fields >> skipped;
  double user = 0, system = 0;
  fields >> user >> system;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace FullSize
