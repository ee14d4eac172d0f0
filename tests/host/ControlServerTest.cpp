// Clients of the control socket, good ones and bad ones.
#include "host/ControlServer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <list>
#include <optional>

#include "tests/runtime/Turning.h"
#include "tests/support/TempDir.h"

namespace Host {
namespace {

// A client that never blocks.
class TestClient {
 public:
  explicit TestClient(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::fcntl(fd_, F_SETFL, O_NONBLOCK);
  }
  TestClient(const TestClient&) = delete;
  TestClient& operator=(const TestClient&) = delete;
  ~TestClient() { ::close(fd_); }

  bool connected() const { return connected_; }
  void send(std::string_view bytes) {
    EXPECT_EQ(::write(fd_, bytes.data(), bytes.size()), ssize_t(bytes.size()));
  }
  void endSending() { ::shutdown(fd_, SHUT_WR); }
  // All that arrived until now.
  const std::string& received() {
    char bytes[4096];
    ssize_t count = 0;
    while ((count = ::read(fd_, bytes, sizeof bytes)) > 0)
      received_.append(bytes, static_cast<size_t>(count));
    closed_ = closed_ || count == 0 || (count < 0 && errno == ECONNRESET);
    return received_;
  }
  bool closed() {
    received();
    return closed_;
  }

 private:
  int fd_;
  bool connected_ = false;
  bool closed_ = false;
  std::string received_;
};

// Many lines, counting how many were taken.
class ManyLines final : public Reply {
 public:
  ManyLines(size_t count, size_t& taken) : count_(count), taken_(taken) {}
  bool next(std::string& line) override {
    if (count_-- == 0) return false;
    ++taken_;
    line = std::string(1000, 'x');
    return true;
  }

 private:
  size_t count_;
  size_t& taken_;
};

// What somebody else made at the path.
int boundTo(const std::string& path, int type) {
  int fd = ::socket(AF_UNIX, type, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return fd;
}

class ControlServerTest : public testing::Test {
 protected:
  ControlServerTest() { std::signal(SIGPIPE, SIG_IGN); }
  // No thread of one test opens or closes descriptors under the next.
  ~ControlServerTest() override { end(); }

  void start() {
    server_.emplace(loop_, threads_, path_,
                    [this](const std::string& request, const ControlServer::Answer& answer) {
                      if (request == "later") {
                        later_.push_back(answer);
                      } else if (request == "many") {
                        answer(std::make_unique<ManyLines>(100'000, taken_));
                      } else {
                        answer(lineReply("<" + request + ">"));
                      }
                    });
    if (!server_->error().empty()) return;
    EXPECT_EQ(server_->listen(), "");
  }
  // The socket is removed on a thread.
  void end() {
    server_.reset();
    EXPECT_FALSE(threads_.busyFor(std::chrono::seconds(10)));
  }
  bool receives(TestClient& client, const std::string& text) {
    return turnUntil(loop_, [&] { return client.received() == text; });
  }

  Support::TempDir dir_;
  std::string path_ = dir_.file("control");
  Runtime::EventLoop loop_;
  Runtime::Threads threads_;
  size_t taken_ = 0;
  std::vector<ControlServer::Answer> later_;  // to those who asked for it
  std::optional<ControlServer> server_;
};

TEST_F(ControlServerTest, RequestsAreAnsweredInOrder) {
  start();
  EXPECT_EQ(server_->error(), "");
  TestClient client(path_);
  client.send("a\nb\r\n\nc\n");
  EXPECT_TRUE(receives(client, "<a>\n<b>\n<>\n<c>\n"));
}

TEST_F(ControlServerTest, RequestInPieces_IsAnsweredWhenItIsWhole) {
  start();
  TestClient client(path_);
  client.send("ab");
  ASSERT_TRUE(turnUntil(loop_, [&] { return server_->clients() == 1; }));
  for (int i = 0; i < 10; ++i) uv_run(loop_.uv(), UV_RUN_NOWAIT);
  EXPECT_EQ(client.received(), "");
  client.send("c\n");
  EXPECT_TRUE(receives(client, "<abc>\n"));
}

TEST_F(ControlServerTest, ClientEndsSendingAfterItsRequest_ItStillGetsTheAnswer) {
  start();
  TestClient client(path_);
  client.send("a\n");
  client.endSending();
  EXPECT_TRUE(turnUntil(loop_, [&] { return client.closed(); }));
  EXPECT_EQ(client.received(), "<a>\n");
}

TEST_F(ControlServerTest, AnswerComesLater_OthersAreServed_AndTheClientsNextRequestWaits) {
  start();
  TestClient waiting(path_);
  TestClient other(path_);
  waiting.send("later\nnext\n");
  ASSERT_TRUE(turnUntil(loop_, [&] { return later_.size() == 1; }));
  other.send("a\n");
  ASSERT_TRUE(receives(other, "<a>\n"));
  EXPECT_EQ(waiting.received(), "");
  later_.front()(lineReply("now"));
  EXPECT_TRUE(receives(waiting, "now\n<next>\n"));
}

TEST_F(ControlServerTest, ClientGoesBeforeItsAnswerComes_TheAnswerIsDropped) {
  start();
  {
    std::list<TestClient> clients;
    clients.emplace_back(path_).send("later\n");
    ASSERT_TRUE(turnUntil(loop_, [&] { return later_.size() == 1; }));
    for (size_t i = 0; i < ControlServer::kMaxClients; ++i) {
      clients.emplace_back(path_).send("a\n");
      ASSERT_TRUE(receives(clients.back(), "<a>\n"));
    }
    later_.front()(lineReply("too late"));
    EXPECT_TRUE(clients.front().closed());
    EXPECT_EQ(clients.front().received(), "");
  }
  end();
  later_.front()(lineReply("much too late"));
}

TEST_F(ControlServerTest, SilentClient_DoesNotHoldUpOthers) {
  start();
  TestClient silent(path_);
  TestClient partial(path_);
  partial.send("half a requ");
  TestClient other(path_);
  other.send("a\n");
  EXPECT_TRUE(receives(other, "<a>\n"));
}

TEST_F(ControlServerTest, ClientThatDoesNotRead_MakesTheServerKeepNothing_AndDoesNotHoldUpOthers) {
  start();
  TestClient slow(path_);
  slow.send("many\n");
  TestClient other(path_);
  other.send("a\n");
  EXPECT_TRUE(receives(other, "<a>\n"));
  for (int i = 0; i < 5000; ++i) uv_run(loop_.uv(), UV_RUN_NOWAIT);
  EXPECT_LT(taken_, 2000u) << "lines made for a client that takes none";
  EXPECT_TRUE(turnUntil(loop_, [&] { return slow.received().size() > 10'000'000; })) << "and then it reads";
}

TEST_F(ControlServerTest, ClientGoesInTheMiddleOfItsAnswer_TheServerForgetsIt) {
  start();
  {
    TestClient client(path_);
    client.send("many\n");
    ASSERT_TRUE(turnUntil(loop_, [&] { return taken_ > 10; }));
  }
  EXPECT_TRUE(turnUntil(loop_, [&] { return server_->clients() == 0; }));
  EXPECT_LT(taken_, 100'000u);
}

TEST_F(ControlServerTest, OverlongRequest_OneErrorAndTheEnd) {
  start();
  TestClient client(path_);
  std::string piece(1000, 'x');
  for (int i = 0; i < 66; ++i) {
    client.send(piece);
    uv_run(loop_.uv(), UV_RUN_NOWAIT);
  }
  EXPECT_TRUE(turnUntil(loop_, [&] { return client.closed(); }));
  EXPECT_EQ(
      client.received(),
      "{\"ok\":false,\"error\":\"found a request of more than 65536 bytes, expected a line of JSON\"}\n");
}

TEST_F(ControlServerTest, OneClientTooMany_TheOneThatWasQuietForLongestGoes) {
  start();
  std::list<TestClient> clients;
  for (size_t i = 0; i < ControlServer::kMaxClients; ++i) {
    clients.emplace_back(path_);
    ASSERT_TRUE(turnUntil(loop_, [&] { return server_->clients() == i + 1; }));
  }
  clients.front().send("a\n");
  ASSERT_TRUE(receives(clients.front(), "<a>\n"));
  TestClient late(path_);
  late.send("b\n");
  EXPECT_TRUE(receives(late, "<b>\n"));
  EXPECT_EQ(server_->clients(), ControlServer::kMaxClients);
  EXPECT_FALSE(clients.front().closed()) << "it was heard of since";
  EXPECT_TRUE(std::next(clients.begin())->closed());
}

TEST_F(ControlServerTest, SocketIsForOwnerAndGroupOnly_AndGoesWithTheServer) {
  start();
  struct stat socket {};
  ASSERT_EQ(::stat(path_.c_str(), &socket), 0);
  EXPECT_EQ(socket.st_mode & 07777, 0660u);
  end();
  EXPECT_NE(::stat(path_.c_str(), &socket), 0);
}

TEST_F(ControlServerTest, SocketOfADeadDaemon_IsReplaced) {
  int fd = boundTo(path_, SOCK_STREAM);
  ::close(fd);
  start();
  EXPECT_EQ(server_->error(), "");
  EXPECT_TRUE(TestClient(path_).connected());
}

TEST_F(ControlServerTest, SocketOfALivingDaemon_IsLeftAlone) {
  start();
  {
    ControlServer second(loop_, threads_, path_, [](const std::string&, const auto&) {});
    EXPECT_EQ(second.error(), "--control " + path_ + ": another daemon uses it");
  }
  TestClient client(path_);
  client.send("a\n");
  EXPECT_TRUE(receives(client, "<a>\n"));
}

TEST_F(ControlServerTest, SomethingElseAtThePath_IsLeftAlone) {
  dir_.write("control", "precious");
  start();
  EXPECT_EQ(server_->error(),
            "--control " + path_ + ": found a file that is no socket, expected a socket or nothing");
  server_.reset();
  EXPECT_EQ(Support::readFile(path_), "precious");
}

TEST_F(ControlServerTest, PathTooLongOrNowhere_OneLine) {
  path_ = "/" + std::string(107, 'x');
  start();
  EXPECT_EQ(server_->error(), "--control " + path_ + ": found a path of 108 bytes, expected at most 107");
  path_ = dir_.file("a/b/c");
  start();
  EXPECT_EQ(server_->error(), "--control " + path_ + ": " + dir_.file("a/b") + ": No such file or directory");
}

TEST_F(ControlServerTest, DirectoryOfTheSocketIsMade_ForOwnerAndGroup) {
  path_ = dir_.file("run/control");
  mode_t before = ::umask(0);
  start();
  ::umask(before);
  EXPECT_EQ(server_->error(), "");
  struct stat made {};
  ASSERT_EQ(::stat(dir_.file("run").c_str(), &made), 0);
  EXPECT_EQ(made.st_mode & 07777, 0750u);
}

TEST_F(ControlServerTest, DirectoryThatOthersMayWriteInto_IsNoPlaceForTheSocket) {
  ASSERT_EQ(::chmod(dir_.path().c_str(), 0770), 0);
  start();
  EXPECT_THAT(server_->error(),
              testing::StartsWith("--control " + path_ + ": " + dir_.path().string() + ": found mode 0770"));
  ASSERT_EQ(::chmod(dir_.path().c_str(), 01777), 0);
  start();
  EXPECT_EQ(server_->error(), "") << "as in /tmp, where nobody can take away what is not his";
}

// It used to be taken for one that nobody listens at.
// As where the system has no memory left.
TEST_F(ControlServerTest, SystemDoesNotLetItListen_SaysSo) {
  server_.emplace(loop_, threads_, path_, [](const std::string&, const auto&) {});
  int datagrams = ::socket(AF_INET, SOCK_DGRAM, 0);
  for (int fd = 0; fd < datagrams; ++fd) {
    sockaddr_un address{};
    socklen_t size = sizeof address;
    bool isServers = ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
                     address.sun_family == AF_UNIX && path_ == address.sun_path;
    if (isServers) ::dup2(datagrams, fd);
  }
  ::close(datagrams);
  EXPECT_EQ(server_->listen(), "--control " + path_ + ": operation not supported on socket");
}

TEST_F(ControlServerTest, TooFewDescriptorsToTryTheSocket_ItIsNotReplaced) {
  end();  // nothing yet; a sanitizer that looks at this object's type for the first time needs a descriptor
  int living = boundTo(path_, SOCK_STREAM);
  ASSERT_EQ(::listen(living, 8), 0);
  int next = ::open("/dev/null", O_RDONLY);
  ::close(next);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  constexpr rlim_t kTaken = 3;  // at a time
  for (rlim_t some = 0; some <= kTaken; ++some) {
    rlimit few{static_cast<rlim_t>(next) + some, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    start();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_THAT(server_->error(),
                testing::EndsWith(some < kTaken ? ": Too many open files" : ": another daemon listens there"))
        << some;
    EXPECT_TRUE(TestClient(path_).connected());
    end();
  }
  ::close(living);
}

TEST_F(ControlServerTest, SocketOfAnotherKind_IsNotReplaced) {
  int living = boundTo(path_, SOCK_DGRAM);
  start();
  EXPECT_EQ(
      server_->error(),
      "--control " + path_ + ": no telling whether a daemon listens there: Protocol wrong type for socket");
  struct stat still {};
  EXPECT_EQ(::lstat(path_.c_str(), &still), 0);
  ::close(living);
}

TEST_F(ControlServerTest, LivingListenerThatLocksNothing_IsLeftAlone) {
  int living = boundTo(path_, SOCK_STREAM);
  ASSERT_EQ(::listen(living, 1), 0);
  start();
  EXPECT_EQ(server_->error(), "--control " + path_ + ": another daemon listens there");
  ::close(living);
}

}  // namespace
}  // namespace Host
