#include "kelstore/etcd/Login.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <grpcpp/alarm.h>

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

namespace Kelstore::Etcd {
namespace {

std::string filesOf(const Access& access) {
  std::vector<std::string> files;
  for (const std::string& file : {access.caFile, access.certFile, access.keyFile, access.credentialsFile}) {
    if (!file.empty()) files.push_back(file);
  }
  return fmt::format("{}", fmt::join(files, ", "));
}

}  // namespace

struct Login::Attempt {
  std::atomic<bool> reading = true;  // the files; false afterwards
  grpc::ClientContext context;
  std::mutex mutex;  // guards what follows
  Take take;         // null: cancelled, or called already
  absl::StatusOr<LoggedIn> result = absl::UnknownError("");
  grpc::Alarm alarm;
};

absl::Status Login::start(const std::string& endpoint, const Access& access,
                          std::shared_ptr<grpc::Channel> channel, const std::optional<std::string>& token,
                          Take take) {
  if (attempt_ && attempt_->reading) {
    return absl::UnavailableError(fmt::format("{}: no answer from the file system", filesOf(access)));
  }
  cancel();
  attempt_ = std::make_shared<Attempt>();
  attempt_->take = std::move(take);
  auto work = [attempt = attempt_, &queue = queue_, endpoint, access, channel = std::move(channel), token] {
    auto result =
        logIn(endpoint, access, channel, token, attempt->context, [&attempt] { attempt->reading = false; });
    attempt->reading = false;
    std::lock_guard lock(attempt->mutex);
    if (!attempt->take) return;
    attempt->result = std::move(result);
    attempt->alarm.Set(&queue, gpr_time_0(GPR_TIMESPAN), new Done([attempt](bool /*ok*/) {
      if (auto taken = std::exchange(attempt->take, nullptr)) taken(std::move(attempt->result));
    }));
  };
  if (threads_.run(work)) return absl::OkStatus();
  attempt_.reset();
  return absl::UnavailableError(endpoint + ": the system has no thread left");
}

void Login::cancel() {
  if (!attempt_) return;
  std::lock_guard lock(attempt_->mutex);
  attempt_->take = nullptr;
  attempt_->context.TryCancel();
}

}  // namespace Kelstore::Etcd
