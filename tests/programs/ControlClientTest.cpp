// trelctl's side of the control protocol, against daemons that do and do not keep to it.
#include "programs/trelctl/ControlClient.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tests/support/TempDir.h"
#include "tests/support/Thrown.h"

namespace TrelCtl {
namespace {

// Listens, and does what a daemon does when the test says so. A client is connected before it is accepted.
class FakeDaemon {
 public:
  explicit FakeDaemon(const std::string& path) : listener_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_, 1), 0);
  }
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;
  ~FakeDaemon() {
    hangUp();
    ::close(listener_);
  }

  void accept() { client_ = ::accept(listener_, nullptr, nullptr); }
  void say(std::string_view bytes) {
    EXPECT_EQ(::write(client_, bytes.data(), bytes.size()), ssize_t(bytes.size()));
  }
  std::string heard() {
    char bytes[4096];
    ssize_t count = ::read(client_, bytes, sizeof bytes);
    return {bytes, static_cast<size_t>(std::max<ssize_t>(count, 0))};
  }
  void hangUp() {
    if (client_ >= 0) ::close(client_);
    client_ = -1;
  }

 private:
  int listener_;
  int client_ = -1;
};

class ClientTest : public testing::Test {
 protected:
  ClientTest() { daemon_.accept(); }
  std::string problem() {
    return thrown<Unreachable>([this] { client_.receive(); });
  }

  Support::TempDir dir_;
  std::string path_ = dir_.file("control");
  FakeDaemon daemon_{path_};
  ControlClient client_{path_};
};

TEST_F(ClientTest, Request_IsOneLineWithItsOperation) {
  client_.send("status");
  EXPECT_EQ(daemon_.heard(), "{\"op\":\"status\"}\n");
}

TEST_F(ClientTest, LinesOfAnAnswer_ComeOneByOneHoweverTheyArrive) {
  daemon_.say("{\"ok\":true,\"n\":1}\n{\"ok\":true,\"n\":2}\n{\"ok\":tr");
  EXPECT_EQ(client_.receive().at("n"), 1);
  EXPECT_EQ(client_.receive().at("n"), 2);
  daemon_.say("ue,\"n\":3}\n");
  EXPECT_EQ(client_.receive().at("n"), 3);
}

TEST_F(ClientTest, AnswerIsAnError_ItsTextIsThrown) {
  daemon_.say("{\"ok\":false,\"error\":\"not today\"}\n");
  EXPECT_EQ(problem(), path_ + ": not today");
}

TEST_F(ClientTest, ErrorWithoutAText_IsStillSaid) {
  daemon_.say("{\"ok\":false}\n");
  EXPECT_EQ(problem(), path_ + ": the request was refused");
}

TEST_F(ClientTest, AnswerOfAnotherProtocol_IsSaid) {
  for (const char* answer : {"HTTP/1.1 400 Bad Request\r\n", "[]\n", "{\"n\":1}\n", "\n"}) {
    daemon_.say(answer);
    EXPECT_EQ(problem(), path_ + ": the answer is not one of this protocol") << answer;
  }
}

TEST_F(ClientTest, DaemonGoesBeforeItsAnswerIsWhole_IsSaid) {
  daemon_.say("{\"ok\":true");
  daemon_.hangUp();
  EXPECT_EQ(problem(), path_ + ": the daemon closed the connection");
}

TEST_F(ClientTest, DaemonIsGoneWhenTheRequestIsSent_IsSaid) {
  daemon_.hangUp();
  EXPECT_EQ(thrown<Unreachable>([this] { client_.send("status"); }), path_ + ": Broken pipe");
}

TEST_F(ClientTest, NoAnswerWithinTheDeadline_IsSaid) {
  ControlClient impatient(path_, /*answerMs=*/20);
  EXPECT_EQ(thrown<Unreachable>([&] { impatient.receive(); }), path_ + ": no answer");
}

TEST_F(ClientTest, NobodyIsLetInAnyMore_IsNotWaitedForEither) {
  std::list<ControlClient> waiting;
  std::string refusal = "nothing";
  for (int i = 0; i < 100 && refusal == "nothing"; ++i) {
    refusal = thrown<Unreachable>([&] { waiting.emplace_back(path_, /*answerMs=*/20); });
  }
  EXPECT_EQ(refusal, "no daemon at " + path_ + ": no answer");
}

TEST_F(ClientTest, NobodyListens_OneLineWithThePath) {
  std::string nowhere = dir_.file("nowhere");
  EXPECT_EQ(thrown<Unreachable>([&] { ControlClient client(nowhere); }),
            "no daemon at " + nowhere +
                ": No such file or directory: start trelsnmpd, or name its socket with --control");
  std::string tooLong = dir_.file(std::string(200, 'x'));
  EXPECT_EQ(thrown<Unreachable>([&] { ControlClient client(tooLong); }),
            "no daemon at " + tooLong + ": File name too long");
}

}  // namespace
}  // namespace TrelCtl
