// The lives of one SNMPv3 engine, most of which end without warning: what was said in one life does not count
// in the next, and a manager that has known the engine for long goes on.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "tests/e2e/Daemon.h"
#include "tests/e2e/Reports.h"
#include "tests/support/Network.h"

namespace E2e {
namespace {

using testing::HasSubstr;

constexpr const char* kAuthPass = "authentication pass";
constexpr const char* kPrivPass = "privacy pass";
// usmStatsNotInTimeWindows, as it stands in a report.
constexpr std::string_view kNotInTimeWindow("\x2b\x06\x01\x06\x03\x0f\x01\x01\x02", 9);

class Datagrams {
 public:
  Datagrams() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
  ~Datagrams() { close(fd_); }
  Datagrams(const Datagrams&) = delete;
  Datagrams& operator=(const Datagrams&) = delete;

  static sockaddr_in at(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
  }
  void bindTo(uint16_t port) {
    sockaddr_in address = at(port);
    ASSERT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  void send(std::string_view bytes, const sockaddr_in& to) const {
    EXPECT_EQ(sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(bytes.size()));
  }
  // The next one, or nothing when none comes in that time.
  std::string receive(Support::Millis patience, sockaddr_in* from = nullptr) const {
    pollfd readable{fd_, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(patience.count())) <= 0) return "";
    std::array<char, 65536> bytes{};
    socklen_t size = from == nullptr ? 0 : sizeof *from;
    ssize_t count = recvfrom(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(from),
                             from == nullptr ? nullptr : &size);
    return {bytes.data(), static_cast<size_t>(std::max<ssize_t>(count, 0))};
  }

 private:
  int fd_;
};

// One session for all of the engine's lives: it remembers boots and time of the engine from answer to answer.
class LongLivedManager {
 public:
  explicit LongLivedManager(const std::string& address) {
    setenv("SNMPCONFPATH", settings_.path().c_str(), 1);
    setenv("SNMP_PERSISTENT_DIR", settings_.path().c_str(), 1);
    setenv("MIBS", "", 1);
    init_snmp("long-lived-manager");
    netsnmp_session session{};
    snmp_sess_init(&session);
    std::string user = "operator";
    session.version = SNMP_VERSION_3;
    session.peername = const_cast<char*>(address.c_str());
    session.securityName = user.data();
    session.securityNameLen = user.size();
    session.securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
    session.securityAuthProto = const_cast<oid*>(usmHMAC192SHA256AuthProtocol);
    session.securityAuthProtoLen = OID_LENGTH(usmHMAC192SHA256AuthProtocol);
    session.securityPrivProto = const_cast<oid*>(usmAESPrivProtocol);
    session.securityPrivProtoLen = OID_LENGTH(usmAESPrivProtocol);
    session.securityAuthKeyLen =
        key(session.securityAuthProto, session.securityAuthProtoLen, kAuthPass, session.securityAuthKey);
    session.securityPrivKeyLen =
        key(session.securityAuthProto, session.securityAuthProtoLen, kPrivPass, session.securityPrivKey);
    session.timeout = 1'000'000;
    session.retries = 5;
    session_ = snmp_sess_open(&session);
    EXPECT_NE(session_, nullptr);
  }
  ~LongLivedManager() {
    snmp_sess_close(session_);
    snmp_shutdown("long-lived-manager");
  }
  LongLivedManager(const LongLivedManager&) = delete;
  LongLivedManager& operator=(const LongLivedManager&) = delete;

  // Whether the engine answers.
  bool isAnswered() {
    constexpr std::array<oid, 9> kUpTime = {1, 3, 6, 1, 2, 1, 1, 3, 0};
    netsnmp_pdu* request = snmp_pdu_create(SNMP_MSG_GET);
    snmp_add_null_var(request, kUpTime.data(), kUpTime.size());
    netsnmp_pdu* answer = nullptr;
    int status = snmp_sess_synch_response(session_, request, &answer);
    bool good = status == STAT_SUCCESS && answer->command == SNMP_MSG_RESPONSE &&
                answer->variables->type == ASN_TIMETICKS;
    if (answer != nullptr) snmp_free_pdu(answer);
    return good;
  }

 private:
  static size_t key(const oid* protocol, size_t length, const char* pass, u_char* key) {
    size_t size = USM_AUTH_KU_LEN;
    EXPECT_EQ(generate_Ku(protocol, static_cast<u_int>(length), reinterpret_cast<const u_char*>(pass),
                          strlen(pass), key, &size),
              SNMPERR_SUCCESS);
    return size;
  }

  Support::TempDir settings_;
  void* session_ = nullptr;
};

class SnmpV3Lives : public testing::Test {
 protected:
  SnmpV3Lives() {
    std::string conf = fmt::format(
        "createUser operator SHA-256 \"{}\" AES \"{}\"\nrouser operator authpriv\n", kAuthPass, kPrivPass);
    daemon_.stateIs(documentOf(kReports)).with({"--conf", daemon_.dir().write("trel.conf", conf)});
    daemon_.start();
  }

  static Manager managerAt(const std::string& address) {
    return Manager(address, {"-v3", "-u", "operator", "-l", "authPriv", "-a", "SHA-256", "-A", kAuthPass,
                             "-x", "AES", "-X", kPrivPass});
  }
  uint16_t port() const { return Support::portOf(daemon_.address()); }
  // What is stored while the daemon runs.
  int boots() const {
    std::string stored = Support::readFile(daemon_.dir().file("persistent/trelsnmpd.conf"));
    size_t at = stored.find("engineBoots ");
    return at == std::string::npos ? 0 : std::stoi(stored.substr(at + 12));
  }
  void dieAndStart() {
    daemon_.process().stop(SIGKILL);
    daemon_.start();
  }
  // The last message that a manager sent to get an answer.
  std::string captured() {
    Datagrams front;
    Datagrams back;
    uint16_t tapped = Support::freeUdpPort();
    front.bindTo(tapped);
    std::string last;
    Support::Process manager(
        {"snmpget", "-On", "-v3", "-u", "operator", "-l", "authPriv", "-a", "SHA-256", "-A", kAuthPass, "-x",
         "AES", "-X", kPrivPass, fmt::format("udp:127.0.0.1:{}", tapped), "1.3.6.1.2.1.1.3.0"},
        {"MIBS=", "SNMPCONFPATH=/nonexistent"});
    sockaddr_in client{};
    while (manager.running()) {
      std::string request = front.receive(Support::Millis(50), &client);
      if (request.empty()) continue;
      last = request;
      back.send(request, Datagrams::at(port()));
      front.send(back.receive(Support::Millis(2000)), client);
    }
    EXPECT_THAT(manager.out(), HasSubstr("Timeticks")) << manager.err();
    return last;
  }
  // What the engine says to it.
  std::string answerTo(const std::string& message) const {
    Datagrams sender;
    sender.send(message, Datagrams::at(port()));
    return sender.receive(Support::Millis(10'000));
  }

  Daemon daemon_;
};

TEST_F(SnmpV3Lives, EachIsCounted_HoweverTheLastOneEnded) {
  EXPECT_EQ(boots(), 1);
  for (int life = 2; life <= 4; ++life) {
    dieAndStart();
    EXPECT_EQ(boots(), life);
  }
  EXPECT_EQ(daemon_.process().stop(), 0);
  EXPECT_EQ(boots(), 4);
  daemon_.start();
  EXPECT_EQ(boots(), 5);
  EXPECT_EQ(managerAt(daemon_.address()).get({"reach.4.1.2"}), kRow);
}

TEST_F(SnmpV3Lives, RequestOfALifeThatWasKilled_IsRefusedInTheNext) {
  std::string request = captured();
  ASSERT_NE(request, "");
  EXPECT_THAT(answerTo(request), testing::AllOf(testing::SizeIs(testing::Gt(50u)),
                                                testing::Not(HasSubstr(std::string(kNotInTimeWindow)))))
      << "in the life that it was said in";
  dieAndStart();
  EXPECT_THAT(answerTo(request), HasSubstr(std::string(kNotInTimeWindow)));
}

TEST_F(SnmpV3Lives, ManagerThatKnowsTheEngineForLong_GoesOnThroughAllOfThem) {
  LongLivedManager manager(daemon_.address());
  EXPECT_TRUE(manager.isAnswered());
  for (int life = 2; life <= 4; ++life) {
    dieAndStart();
    EXPECT_TRUE(manager.isAnswered()) << "life " << life;
  }
}

// Users that an operator wrote there, as for net-snmp's own daemon: their passwords become keys.
TEST_F(SnmpV3Lives, UserInTheStateFile_IsKeptThroughAllOfThem) {
  daemon_.process().stop(SIGKILL);
  std::string conf = daemon_.dir().write("trel.conf", "rouser operator authpriv\n");
  std::string stored = Support::readFile(daemon_.dir().file("persistent/trelsnmpd.conf"));
  daemon_.dir().write(
      "persistent/trelsnmpd.conf",
      stored + fmt::format("createUser operator SHA-256 \"{}\" AES \"{}\"\n", kAuthPass, kPrivPass));
  for (int life = 2; life <= 4; ++life) {
    dieAndStart();
    EXPECT_EQ(managerAt(daemon_.address()).get({"reach.4.1.2"}), kRow) << "life " << life;
    EXPECT_EQ(boots(), life);
    EXPECT_THAT(Support::readFile(daemon_.dir().file("persistent/trelsnmpd.conf")),
                testing::AllOf(HasSubstr("usmUser "), testing::Not(HasSubstr("createUser"))));
  }
}

}  // namespace
}  // namespace E2e
