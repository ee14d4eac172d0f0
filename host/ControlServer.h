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
#include "runtime/EventLoop.h"

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

  // Listens at the path, with mode 0660. Replaces the socket that a dead daemon left; when a living one
  // listens there, or the path cannot be used, error() says so.
  ControlServer(Runtime::EventLoop& loop, std::string path, Handler handler);
  // Removes the socket.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // One line; empty when it listens.
  const std::string& error() const { return error_; }
  size_t clients() const { return clients_.size(); }

 private:
  class Client;
  using Clients = std::list<std::shared_ptr<Client>>;

  void listen();
  void accept();
  void remove(const Client& client);

  Runtime::EventLoop& loop_;
  std::string path_;
  Handler handler_;
  std::string error_;
  bool bound_ = false;
  Runtime::UvHandle<uv_pipe_t> listener_;
  Clients clients_;  // the one heard of last comes last
};

}  // namespace Host
