// The server's side of the control protocol: a Unix stream socket on which clients send one request per line
// and get lines back. Knows nothing of what requests mean.
//
// No client can hold up another or the loop, or make the daemon's memory grow: an answer is made line by
// line, as fast as its client takes it, and nothing more is read from a client until it has its answer.
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

// The lines of one answer. It may be dropped at any line.
class Reply {
 public:
  virtual ~Reply() = default;
  // Sets the next line, without its end; false when there is none.
  virtual bool next(std::string& line) = 0;
};

// An answer of one line.
std::unique_ptr<Reply> lineReply(std::string line);
// The answer to a request that cannot be served: {"ok":false,"error":<text>}.
std::unique_ptr<Reply> errorReply(std::string_view text);

class ControlServer {
 public:
  // Answers one request line; never null.
  using Handler = std::function<std::unique_ptr<Reply>(const std::string& request)>;
  // One more client makes the one that has been quiet for longest go.
  static constexpr size_t kMaxClients = 64;

  // Makes the socket, with mode 0660, in a directory that no other user may write into, and replaces the one
  // that a dead daemon left. The path is the server's as long as it lives: when another has it, or it cannot
  // be used, error() says so. Nobody is let in before listen(). Loop and threads outlive this.
  ControlServer(Runtime::EventLoop& loop, Runtime::Threads& threads, std::string path, Handler handler);
  // Removes the socket, on a thread, as everything that may hang.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Returns why it cannot, in one line, or empty. Requires: error() is empty.
  std::string listen();

  // One line; empty when it has its socket.
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
  Clients clients_;  // the one heard of last comes last
};

}  // namespace Host
