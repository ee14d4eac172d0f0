#include "CommandLine.h"

#include <fmt/format.h>

#include <algorithm>

namespace Host {
namespace {

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

}  // namespace

CLI::Validator checking(std::function<void(const std::string&)> check) {
  return CLI::Validator(
      [check = std::move(check)](std::string& text) {
        try {
          check(text);
        } catch (const std::invalid_argument& error) {
          return std::string(error.what());
        }
        return std::string();
      },
      "");
}

void oneOf(const std::string& text, const std::vector<std::string>& choices) {
  if (std::find(choices.begin(), choices.end(), text) != choices.end()) return;
  throw std::invalid_argument(fmt::format("found \"{}\", expected {}", text, fmt::join(choices, ", ")));
}

void describeAccess(CLI::App& app, Kelstore::Etcd::Access& access) {
  auto file = [&app](const char* name, std::string& path, const char* description) {
    app.add_option(name, path, description)->type_name("FILE");
  };
  file("--etcd-ca", access.caFile,
       "CAs that signed the servers' certificates, PEM; makes it TLS (default, with --etcd-cert: the "
       "system's)");
  file("--etcd-cert", access.certFile,
       "Certificate to show to the servers, PEM; makes it TLS; needs --etcd-key");
  file("--etcd-key", access.keyFile,
       "Its key, PEM; refused when others have any right to it; needs --etcd-cert");
  file("--etcd-credentials", access.credentialsFile,
       "User and password, {\"user\": ..., \"password\": ...}; refused when others have any right to it");
}

int parseCommandLine(CLI::App& app, int argc, const char* const* argv, const std::function<void()>& check) {
  try {
    app.parse(argc, argv);
    check();
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    fmt::print(stderr, "{}: {}\n", app.get_name(), firstLine(error.what()));
    return kUnusable;
  }
  return -1;
}

}  // namespace Host
