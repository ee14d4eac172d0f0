// The server of the control protocol: a Unix stream socket on which clients send requests, one per line, and
// get lines back. Does not know what requests mean. For the loop's thread.
//
// No client can block another or the loop, or make the daemon's memory grow: the next line of an answer is
// made when the client has taken the one before, and the next request is read when the client has its whole
// answer.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <string>

#include "host/control/ControlProtocol.h"
#include "runtime/Directories.h"
#include "runtime/EventLoop.h"
#include "runtime/Threads.h"

namespace Host {

// The lines of one answer. May be destroyed before the last.
class Reply {
 public:
  virtual ~Reply() = default;
  // Sets the next line, without a newline; false after the last.
  virtual bool next(std::string& line) = 0;
};

// An answer of one line.
std::unique_ptr<Reply> lineReply(std::string line);
// The answer to a request that cannot be served: {"ok":false,"error":<text>}.
std::unique_ptr<Reply> errorReply(std::string_view text);

class ControlServer {
 public:
  // Takes the answer to one request; never null. To be called once, at once or later; the client may be gone
  // by then.
  using Answer = std::function<void(std::unique_ptr<Reply>)>;
  // Answers one request line.
  using Handler = std::function<void(const std::string& request, const Answer& answer)>;
  // With one more, the client that has been idle longest is disconnected.
  static constexpr size_t kMaxClients = 64;

  // Makes the socket, with mode 0660, in a directory that no other user may write into; one that a dead
  // daemon left is replaced. When another daemon has the path, or it cannot be used, error() says so. Clients
  // can connect after listen(). Loop and threads outlive this.
  ControlServer(Runtime::EventLoop& loop, Runtime::Threads& threads, std::string path, Handler handler);
  // Removes the socket, on a thread, as that may hang.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Returns what is wrong, in one line, or empty. Requires: error() is empty.
  std::string listen();

  // One line; empty when the socket could be made.
  const std::string& error() const { return error_; }
  size_t clients() const { return clients_.size(); }

 private:
  class Client;
  using Clients = std::list<std::shared_ptr<Client>>;

  std::string claim();
  std::string bind();
  void accept();
  void remove(const Client& client);

  Runtime::EventLoop& loop_;
  Runtime::Threads& threads_;
  std::string path_;
  Handler handler_;
  std::string error_;
  std::shared_ptr<Runtime::LockFile> lock_ = std::make_shared<Runtime::LockFile>();
  bool bound_ = false;
  Runtime::UvHandle<uv_pipe_t> listener_;
  Clients clients_;  // the longest idle first
};

}  // namespace Host
