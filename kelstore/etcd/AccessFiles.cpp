#include "kelstore/etcd/AccessFiles.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Threads.h"

namespace Kelstore::Etcd {
namespace {

using Json = nlohmann::json;

constexpr std::chrono::seconds kCheckTime{2};
constexpr size_t kMaxFileBytes = 1 << 20;
constexpr mode_t kRightsOfOthers = S_IRWXG | S_IRWXO;

enum class Holds : uint8_t { whatAllMayKnow, aSecret };

absl::Status wrong(const std::string& path, std::string_view what) {
  return absl::FailedPreconditionError(fmt::format("{}: {}", path, what));
}

// Whether root alone puts files into the path's directory.
bool isInRootsDirectory(const std::string& path) {
  std::filesystem::path directory = std::filesystem::path(path).parent_path();
  struct stat about {};
  return stat(directory.empty() ? "." : directory.c_str(), &about) == 0 && about.st_uid == 0 &&
         (about.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Why the file cannot hold a secret; empty if it can. Its owner decides which user we are, so nobody else may
// have put it there. Root also takes those of the daemons' user, to whom root gave them.
std::string wrongWithSecret(const std::string& path, const struct stat& about) {
  uid_t self = geteuid();
  if (self == 0 && about.st_uid != 0 && !isInRootsDirectory(path)) {
    return fmt::format(
        "found a file of the user {} in a directory that is not root's alone, expected one of the user 0",
        about.st_uid);
  }
  if (self != 0 && about.st_uid != self && about.st_uid != 0) {
    return fmt::format("found a file of the user {}, expected one of the user {} or of root", about.st_uid,
                       self);
  }
  if ((about.st_mode & kRightsOfOthers) == 0) return "";
  return fmt::format(
      "found mode {:04o}, expected a file that nobody but its owner has a right to, such as 0600",
      about.st_mode & 07777u);
}

absl::StatusOr<std::string> content(const std::string& path, Holds holds) {
  absl::StatusOr<Runtime::File> file = Runtime::File::open(path);
  if (!file.ok()) return wrong(path, Runtime::textOf(file.status()));
  if (std::string problem = wrongWithSecret(path, file->about());
      holds == Holds::aSecret && !problem.empty()) {
    return wrong(path, problem);
  }
  absl::StatusOr<std::string> text = file->content(kMaxFileBytes);
  if (!text.ok()) return wrong(path, Runtime::textOf(text.status()));
  return text;
}

// Sets `target` to the file's content; leaves it alone if the path is empty.
absl::Status pemIs(const std::string& path, Holds holds, std::string& target) {
  if (path.empty()) return absl::OkStatus();
  absl::StatusOr<std::string> text = content(path, holds);
  if (!text.ok()) return text.status();
  if (text->find("-----BEGIN ") == std::string::npos) return wrong(path, "expected a file in PEM format");
  target = *std::move(text);
  return absl::OkStatus();
}

// The member if it is a non-empty string; else null.
const std::string* textOf(const Json& json, const char* name) {
  auto found = json.find(name);
  const std::string* text = found == json.end() ? nullptr : found->get_ptr<const std::string*>();
  return text != nullptr && !text->empty() ? text : nullptr;
}

}  // namespace

absl::StatusOr<Credentials> readCredentials(const Access& access) {
  const std::string& path = access.credentialsFile;
  absl::StatusOr<std::string> text = content(path, Holds::aSecret);
  if (!text.ok()) return text.status();
  // The parser's message would show a part of the password.
  Json json = Json::parse(*text, nullptr, /*allow_exceptions=*/false);
  constexpr const char* kExpected = R"(expected {"user": "...", "password": "..."})";
  if (!json.is_object()) return wrong(path, kExpected);
  const std::string* user = textOf(json, "user");
  const std::string* password = textOf(json, "password");
  if (user == nullptr || password == nullptr || json.size() != 2) return wrong(path, kExpected);
  return Credentials{*user, *password};
}

absl::StatusOr<Certificates> readCertificates(const Access& access) {
  Certificates certificates;
  absl::Status status = pemIs(access.caFile, Holds::whatAllMayKnow, certificates.ca);
  status.Update(pemIs(access.certFile, Holds::whatAllMayKnow, certificates.cert));
  status.Update(pemIs(access.keyFile, Holds::aSecret, certificates.key));
  if (!status.ok()) return status;
  return certificates;
}

absl::Status checkAccess(const Access& access) {
  if (access.certFile.empty() != access.keyFile.empty()) {
    return absl::FailedPreconditionError(
        access.keyFile.empty() ? fmt::format("certificate {}: found no key for it", access.certFile)
                               : fmt::format("key {}: found no certificate for it", access.keyFile));
  }
  auto found = std::make_shared<absl::Status>();
  auto read = [access, found] {
    *found = readCertificates(access).status();
    if (!access.credentialsFile.empty()) found->Update(readCredentials(access).status());
  };
  Runtime::Threads reading;
  if (!reading.run(read)) read();
  if (reading.busyFor(kCheckTime)) return absl::OkStatus();
  return *found;
}

}  // namespace Kelstore::Etcd
