// Logs in to a server for a user who must not wait. It has a thread that nobody waits for, since the files
// may be on a file system that hangs. The result arrives through the user's completion queue.
#pragma once

#include <absl/status/statusor.h>
#include <grpcpp/completion_queue.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kelstore/etcd/Channels.h"
#include "runtime/Threads.h"

namespace Kelstore::Etcd {

class Login final {
 public:
  // Called once, when an operation on the queue is done.
  using Done = std::function<void(bool ok)>;
  using Take = std::function<void(absl::StatusOr<LoggedIn>)>;

  // Queue and threads outlive this. The queue's tags are Done*, made with new.
  Login(grpc::CompletionQueue& queue, Runtime::Threads& threads) : queue_(queue), threads_(threads) {}
  ~Login() { cancel(); }
  Login(const Login&) = delete;
  Login& operator=(const Login&) = delete;

  // Cancels the login under way and starts another; a tag of the queue calls `take` with its result.
  // Unavailable, and nothing is called: the last login still reads files, or the system has no thread left.
  absl::Status start(const std::string& endpoint, const Access& access,
                     std::shared_ptr<grpc::Channel> channel, const std::optional<std::string>& token,
                     Take take);
  // `take` is not called any more.
  void cancel();

 private:
  struct Attempt;

  grpc::CompletionQueue& queue_;
  Runtime::Threads& threads_;
  std::shared_ptr<Attempt> attempt_;
};

}  // namespace Kelstore::Etcd
