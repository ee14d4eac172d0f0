// Logs in to a server for somebody who may not wait: on a thread that nobody waits for either, since the
// files that it takes may be on a file system that hangs. What comes of it is told through the queue that its
// user waits at.
#pragma once

#include <absl/status/statusor.h>
#include <grpcpp/completion_queue.h>

#include <functional>
#include <memory>
#include <string>

#include "kelstore/etcd/Channels.h"
#include "runtime/Threads.h"

namespace Kelstore::Etcd {

class Login final {
 public:
  // What is called, once, when an operation on the queue is done.
  using Done = std::function<void(bool ok)>;
  using Take = std::function<void(absl::StatusOr<LoggedIn>)>;

  // Queue and threads outlive this. The queue's tags are Done*, made with new.
  Login(grpc::CompletionQueue& queue, Runtime::Threads& threads) : queue_(queue), threads_(threads) {}
  ~Login() { cancel(); }
  Login(const Login&) = delete;
  Login& operator=(const Login&) = delete;

  // Cancels what is under way; then `take` is called, by who waits at the queue, with what comes of this one.
  // Unavailable, and nothing is called, when the last one still reads files, or the system has no thread
  // left.
  absl::Status start(const std::string& endpoint, const Access& access,
                     std::shared_ptr<grpc::Channel> channel, Take take);
  // Nothing is called any more.
  void cancel();

 private:
  struct Attempt;

  grpc::CompletionQueue& queue_;
  Runtime::Threads& threads_;
  std::shared_ptr<Attempt> attempt_;
};

}  // namespace Kelstore::Etcd
