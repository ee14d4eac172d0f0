#include "host/ControlServer.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace Host {
namespace {

constexpr int kBacklog = 16;
const std::string kTooLong =
    fmt::format("found a request of more than {} bytes, expected a line of JSON", Control::kMaxRequestBytes);
constexpr mode_t kSocketUmask = 0117;  // leaves 0660
constexpr mode_t kDirectoryMode = 0750;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

// Why the socket at the path must not be replaced; empty when its daemon is dead.
std::string wrongWithSocket(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::strerror(errno);
  sockaddr_un address = addressOf(path);
  int error =
      ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? EISCONN : errno;
  ::close(fd);
  if (error == ECONNREFUSED) return "";
  if (error == EISCONN || error == EAGAIN) return "another daemon listens there";
  return fmt::format("no telling whether a daemon listens there: {}", std::strerror(error));
}

class LineReply final : public Reply {
 public:
  explicit LineReply(std::string line) : line_(std::move(line)) {}
  bool next(std::string& line) override {
    if (taken_) return false;
    taken_ = true;
    line = std::move(line_);
    return true;
  }

 private:
  std::string line_;
  bool taken_ = false;
};

}  // namespace

std::unique_ptr<Reply> lineReply(std::string line) { return std::make_unique<LineReply>(std::move(line)); }

std::unique_ptr<Reply> errorReply(std::string_view text) {
  nlohmann::ordered_json answer{{"ok", false}, {"error", text}};
  return lineReply(answer.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

class ControlServer::Client : public std::enable_shared_from_this<Client> {
 public:
  explicit Client(ControlServer& server)
      : server_(server),
        pipe_([&](uv_pipe_t* pipe) { return uv_pipe_init(server.loop_.uv(), pipe, 0); }),
        lines_(Control::kMaxRequestBytes) {
    pipe_->data = this;
  }

  bool accept(uv_pipe_t* listener) {
    if (uv_accept(stream(listener), stream(pipe_.get())) != 0) return false;
    resume();
    return true;
  }

 private:
  struct Write {
    uv_write_t request{};
    std::string bytes;
    std::weak_ptr<Client> client;
  };

  static uv_stream_t* stream(uv_pipe_t* pipe) { return reinterpret_cast<uv_stream_t*>(pipe); }

  void resume() {
    auto allocate = [](uv_handle_t*, size_t, uv_buf_t* buffer) {
      static std::array<char, 16 * 1024> bytes;
      *buffer = uv_buf_init(bytes.data(), static_cast<unsigned>(bytes.size()));
    };
    auto received = [](uv_stream_t* pipe, ssize_t count, const uv_buf_t* buffer) {
      static_cast<Client*>(pipe->data)->received(count, buffer->base);
    };
    uv_read_start(stream(pipe_.get()), allocate, received);
  }

  void received(ssize_t count, const char* bytes) {
    if (count < 0) {
      server_.remove(*this);
      return;
    }
    touched();
    lines_.append({bytes, static_cast<size_t>(count)});
    serveNext();
  }

  // Moves it to the end of the list, away from the longest idle.
  void touched() {
    Clients& clients = server_.clients_;
    auto self =
        std::find_if(clients.begin(), clients.end(), [this](const auto& c) { return c.get() == this; });
    clients.splice(clients.end(), clients, self);
  }

  // Starts the next answer, unless one is awaited or being sent.
  void serveNext() {
    if (reply_ || asked_) return;
    std::optional<std::string> line = lines_.takeLine();
    if (!line && !lines_.overflown()) {
      resume();
      return;
    }
    uv_read_stop(stream(pipe_.get()));
    lastReply_ = !line;
    if (!line) return answer(errorReply(kTooLong));
    asked_ = true;
    server_.handler_(*line, [weak = weak_from_this()](std::unique_ptr<Reply> reply) {
      if (auto client = weak.lock()) client->answer(std::move(reply));
    });
  }

  void answer(std::unique_ptr<Reply> reply) {
    asked_ = false;
    reply_ = std::move(reply);
    writeNext();
  }

  void writeNext() {
    std::string line;
    if (!reply_->next(line)) {
      reply_.reset();
      if (lastReply_) {
        server_.remove(*this);
      } else {
        serveNext();
      }
      return;
    }
    auto* write = new Write{{}, line + "\n", weak_from_this()};
    write->request.data = write;
    uv_buf_t buffer = uv_buf_init(write->bytes.data(), static_cast<unsigned>(write->bytes.size()));
    auto written = [](uv_write_t* request, int result) {
      std::unique_ptr<Write> done(static_cast<Write*>(request->data));
      if (auto client = done->client.lock()) client->written(result);
    };
    if (int result = uv_write(&write->request, stream(pipe_.get()), &buffer, 1, written); result != 0) {
      delete write;
      server_.remove(*this);
    }
  }

  void written(int result) {
    if (result != 0) {
      server_.remove(*this);
      return;
    }
    touched();
    writeNext();
  }

  ControlServer& server_;
  Runtime::UvHandle<uv_pipe_t> pipe_;
  Control::LineBuffer lines_;
  bool asked_ = false;  // the handler, which has not answered yet
  std::unique_ptr<Reply> reply_;
  bool lastReply_ = false;
};

ControlServer::ControlServer(Runtime::EventLoop& loop, Runtime::Threads& threads, std::string path,
                             Handler handler)
    : loop_(loop),
      threads_(threads),
      path_(std::move(path)),
      handler_(std::move(handler)),
      listener_([&](uv_pipe_t* pipe) { return uv_pipe_init(loop.uv(), pipe, 0); }) {
  listener_->data = this;
  error_ = claim();
  if (error_.empty()) error_ = bind();
  if (!error_.empty()) error_ = fmt::format("--control {}: {}", path_, error_);
}

ControlServer::~ControlServer() {
  clients_.clear();
  if (!bound_) return;
  // Holds the lock until the socket is removed, which otherwise might be the next daemon's.
  threads_.run([path = path_, lock = lock_] { ::unlink(path.c_str()); });
}

// Locks the path and removes a dead daemon's socket. Returns what is wrong.
std::string ControlServer::claim() {
  if (path_.size() >= sizeof(sockaddr_un::sun_path)) {
    return fmt::format("found a path of {} bytes, expected at most {}", path_.size(),
                       sizeof(sockaddr_un::sun_path) - 1);
  }
  std::string directory = std::filesystem::absolute(path_).parent_path();
  std::string problem =
      Runtime::claimDirectory(directory, {.mode = kDirectoryMode, .withParents = false, .mayBeShared = true});
  if (!problem.empty()) return fmt::format("{}: {}", directory, problem);
  struct stat there {};
  bool exists = ::lstat(path_.c_str(), &there) == 0;
  if (exists && !S_ISSOCK(there.st_mode))
    return "found a file that is no socket, expected a socket or nothing";
  if (problem = lock_->take(path_ + ".lock"); !problem.empty()) return problem;
  if (!exists) return "";
  if (problem = wrongWithSocket(path_); !problem.empty()) return problem;
  return ::unlink(path_.c_str()) == 0 ? "" : std::strerror(errno);
}

// Not with uv_pipe_bind(): libuv would later remove the socket on the loop's thread.
std::string ControlServer::bind() {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::strerror(errno);
  sockaddr_un address = addressOf(path_);
  {
    Runtime::Umask umask(kSocketUmask);
    bound_ = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  int error = errno;
  int result = bound_ ? uv_pipe_open(listener_.get(), fd) : uv_translate_sys_error(error);
  if (result == 0) return "";
  ::close(fd);
  return uv_strerror(result);
}

std::string ControlServer::listen() {
  auto arrived = [](uv_stream_t* listener, int status) {
    if (status == 0) static_cast<ControlServer*>(listener->data)->accept();
  };
  int result = uv_listen(reinterpret_cast<uv_stream_t*>(listener_.get()), kBacklog, arrived);
  return result == 0 ? "" : fmt::format("--control {}: {}", path_, uv_strerror(result));
}

void ControlServer::accept() {
  if (clients_.size() == kMaxClients) clients_.pop_front();
  auto client = std::make_shared<Client>(*this);
  clients_.push_back(client);
  if (!client->accept(listener_.get())) remove(*client);
}

void ControlServer::remove(const Client& client) {
  clients_.remove_if([&client](const auto& candidate) { return candidate.get() == &client; });
}

}  // namespace Host
