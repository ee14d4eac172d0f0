// Messages that are none, each followed by a GET, which is answered as ever. At the end the daemon still
// runs, serves what it served, has not grown, and no sanitizer has anything to say.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/wire/Breakage.h"
#include "tests/wire/Clusters.h"
#include "tests/wire/Requests.h"
#include "tests/wire/Settings.h"
#include "tests/wire/SnmpV3.h"
#include "tests/wire/Subject.h"

namespace Wire {
namespace {

class MalformedMessages : public testing::Test {
 protected:
  // What the daemon has seen by then has filled its caches and its log's buffers.
  static constexpr size_t kWarmUp = 5'000;
  // Messages that leave 128 octets behind each show in the least that a test sends. A sanitizer's own figures
  // vary by up to half of it.
  static constexpr size_t kMaxGrowthKiB = 2048;
  static constexpr size_t kMinMeasured = 16'000;

  MalformedMessages() : random_(settings().seed), probes_(subject_.port()) {
    constexpr size_t kInstances = 50;
    Clusters clusters(settings().seed, subject_.clock());
    do {
      subject_.becomes(clusters.next());
    } while (subject_.model().tree().size() < kInstances);
    probe_ = {Version::v2c, kReader, pdu(PduType::get, 1)};
  }

  Oid instance() {
    const Tree& tree = subject_.model().tree();
    return random_.of(tree).first;
  }
  Pdu pdu(PduType type, size_t count) {
    Pdu made{type, static_cast<int32_t>(random_.edge()), 0, type == PduType::getBulk ? 5 : 0, {}};
    for (; count > 0; --count) made.varbinds.push_back({instance(), {}});
    return made;
  }

  // Sends what is broken, and asks whether all is as before.
  void send(const Bytes& broken) {
    if (HasFatalFailure()) return;
    subject_.exchange().send(broken);
    ++sent_;
    ++probe_.pdu.requestId;
    std::optional<Bytes> answer = probes_.ask(probe_);
    ASSERT_TRUE(answer) << "no answer any more; the message before, number " << sent_ << ":\n"
                        << hex(broken) << '\n'
                        << subject_.complaint();
    ASSERT_EQ(text(decode(*answer)), text(subject_.model().answerTo(probe_).value())) << hex(broken);
    while (auto said = subject_.exchange().receive(Support::Millis(0))) {
      ++answered_;
      ASSERT_TRUE(isWellFormed(*said)) << hex(broken) << "\nanswered: " << hex(*said);
    }
    if (sent_ == kWarmUp) warmKiB_ = subject_.residentKiB();
  }
  Take taken() {
    return [this](const Bytes& broken) { send(broken); };
  }

  // At the end of each test.
  void expectWell() {
    EXPECT_EQ(difference(subject_.model().tree(), subject_.walk()), difference({}, {}));
    size_t residentKiB = subject_.residentKiB();
    EXPECT_EQ(subject_.end(), "");
    fmt::print(
        "{} malformed messages, {} of them answered; resident memory {} KiB after {}, {} KiB at the end\n",
        sent_, answered_, warmKiB_, kWarmUp, residentKiB);
    EXPECT_GE(sent_, kWarmUp + kMinMeasured);
    EXPECT_LE(residentKiB, warmKiB_ + kMaxGrowthKiB);
  }

  Subject subject_{accessWithUsers()};
  Support::Random random_;
  // Apart from what is broken, so that answers to that do not come in between.
  Exchange probes_;
  Message probe_;
  size_t sent_ = 0;
  size_t answered_ = 0;
  size_t warmKiB_ = 0;
};

// --- with communities

class MalformedCommunityMessages : public MalformedMessages {
 protected:
  // With a value of every type that there is: a message with another one is not read any further.
  Pdu set() {
    Pdu made = pdu(PduType::set, 0);
    for (const Value& value : valuesOfEveryType()) {
      Message message{Version::v2c, kWriter, pdu(PduType::get, 1)};
      message.pdu.varbinds[0].value = value;
      if (subject_.model().answerTo(message)) made.varbinds.push_back({instance(), value});
    }
    return made;
  }
  // SNMPv1's own.
  static Bytes trap() {
    Bytes varbind = tlv(Tag::sequence, tlv(Tag::oid, oidContent({1, 3})) + tlv(Tag::null, {}));
    Bytes content = tlv(Tag::oid, oidContent({1, 3, 6, 1, 4, 1, 5})) + tlv(Tag::ipAddress, Bytes(4, '\1')) +
                    tlv(Tag::integer, "\6") + tlv(Tag::integer, "\1") + tlv(Tag::timeTicks, "\1") +
                    tlv(Tag::sequence, varbind);
    return tlv(Tag::sequence,
               tlv(Tag::integer, Bytes(1, '\0')) + tlv(Tag::octetString, kWriter) + tlv(0xa4, content));
  }
  std::vector<Bytes> messages() {
    std::vector<Bytes> all = {encode(Message{Version::v1, kReader, pdu(PduType::get, 1)}),
                              encode(Message{Version::v2c, kReader, pdu(PduType::get, 3)}),
                              encode(Message{Version::v2c, kReader, pdu(PduType::getNext, 2)}),
                              encode(Message{Version::v2c, kReader, pdu(PduType::getBulk, 2)}),
                              encode(Message{Version::v2c, kWriter, set()}),
                              trap()};
    // What an agent has no use for.
    for (PduType type : {PduType::response, PduType::inform, PduType::trap, PduType::report}) {
      all.push_back(encode(Message{Version::v2c, kWriter, pdu(type, 1)}));
    }
    return all;
  }
};

TEST_F(MalformedCommunityMessages, EachOctetAndElementBroken) {
  for (const Bytes& message : messages()) {
    breakOctets(message, taken());
    breakElements(message, taken());
  }
  expectWell();
}

TEST_F(MalformedCommunityMessages, BrokenAtRandom) {
  Requests requests(settings().seed);
  size_t count = std::max(settings().malformed, kWarmUp + kMinMeasured);
  for (size_t i = 0; i < count && !HasFatalFailure(); ++i) {
    send(brokenSomewhere(encode(requests.next(subject_.model().tree())), random_));
  }
  expectWell();
}

// --- SNMPv3

class MalformedV3Messages : public MalformedMessages {
 protected:
  // To the engine that the daemon is, at its time now.
  V3Message real(const std::string& flags, PduType type) {
    return requestTo(decodeV3(asked(encode(discovery()))), flags == kReportable ? kWatcher : kOperator, flags,
                     pdu(type, 1));
  }
  Bytes asked(const Bytes& message) {
    probes_.send(message);
    std::optional<Bytes> answer = probes_.receive(Support::Millis(10'000));
    if (!answer) throw std::runtime_error("no answer to " + hex(message));
    return *answer;
  }

  // How a message is sealed, once it is broken or not.
  using Seal = std::function<Bytes(const V3Message&)>;
  // Does something with a message of each level of security, which is answered before and after: what is
  // broken by it is otherwise right.
  void forEachSecurity(const std::function<void(const V3Message& message, const Seal& seal)>& act) {
    for (const char* flags : {kReportable, kAuthenticated, kPrivate}) {
      V3Message message = real(flags, PduType::getNext);
      V3Keys keys(kAuthPass, kPrivPass, message.engineId);
      Seal seal = [&](const V3Message& other) { return keys.sealed(other, flags); };
      expectServed(seal(message));
      act(message, seal);
      if (HasFatalFailure()) return;
      expectServed(seal(message));
    }
  }
  // By a response, not by a report.
  void expectServed(const Bytes& message) {
    V3Message answer = decodeV3(asked(message));
    // A report is not encrypted.
    if (answer.flags == Bytes(1, kPrivate[0] & ~kReportable[0])) return;
    Reader scoped(Reader(answer.data).next(Tag::sequence));
    scoped.next();
    scoped.next();
    EXPECT_EQ(scoped.next().tag, static_cast<uint8_t>(PduType::response)) << hex(message);
  }
};

TEST_F(MalformedV3Messages, EachOctetAndElementBroken) {
  for (const Bytes& message : {encode(discovery()), encode(real(kReportable, PduType::get))}) {
    breakOctets(message, taken());
    breakElements(message, taken());
  }
  forEachSecurity([this](const V3Message& message, const Seal& seal) {
    breakOctets(seal(message), taken());
    // Within what is signed and encrypted, so that the seal holds.
    auto sealed = [&](const Bytes& data) {
      V3Message broken = message;
      broken.data = data;
      send(seal(broken));
    };
    breakElements(message.data, sealed);
    breakOctets(message.data, sealed);
  });
  expectWell();
}

TEST_F(MalformedV3Messages, WrongEnginesTimesUsersDigestsAndCiphers) {
  static const std::vector<int64_t> kNumbers = {-1,         0,          1,          2,          4,
                                                483,        484,        2147483646, 2147483647, 2147483648,
                                                4294967295, 4294967296, INT64_MAX,  INT64_MIN,  -2147483648};
  // Rounds enough for what they leave behind to show.
  constexpr int kRounds = 12;
  for (int round = 0; round < kRounds && !HasFatalFailure(); ++round) {
    forEachSecurity([this](const V3Message& message, const Seal& seal) {
      // The message with one part that is wrong, sealed with it.
      auto with = [&](auto V3Message::*part, const auto& wrong) {
        V3Message broken = message;
        broken.*part = wrong;
        send(seal(broken));
      };
      for (int64_t number : kNumbers) {
        with(&V3Message::id, number);
        with(&V3Message::maxSize, number);
        with(&V3Message::securityModel, number);
        with(&V3Message::boots, number);
        with(&V3Message::time, number);
      }
      for (int64_t reboots : {-1, 1}) with(&V3Message::boots, message.boots + reboots);
      for (int64_t seconds : {-100'000, -151, -150, 150, 151, 100'000})
        with(&V3Message::time, message.time + seconds);
      for (unsigned flags = 0; flags < 256; flags += flags < 8 ? 1 : 31) {
        with(&V3Message::flags, Bytes(1, static_cast<char>(flags)));
      }
      for (size_t length : {0, 2, 3, 64}) with(&V3Message::flags, Bytes(length, message.flags[0]));
      for (size_t length = 0; length <= 64; ++length) {
        with(&V3Message::engineId, Bytes(length, '\x80'));
        with(&V3Message::engineId, (message.engineId + Bytes(length, '\0')).substr(0, length));
        with(&V3Message::user, Bytes(length, 'u'));
        with(&V3Message::user, (message.user + Bytes(length, '\0')).substr(0, length));
        with(&V3Message::salt, Bytes(length, 's'));
        // Junk where the encrypted, or the plain, scoped PDU should be.
        Bytes junk;
        while (junk.size() < length) junk += static_cast<char>(random_.any() & 0xff);
        with(&V3Message::data, junk);
        with(&V3Message::data, tlv(Tag::octetString, junk));
        with(&V3Message::data, scopedPdu(Bytes(length, 'e'), "", pdu(PduType::get, 1)));
        with(&V3Message::data, scopedPdu(message.engineId, Bytes(length, 'c'), pdu(PduType::get, 1)));
      }
      for (size_t length : {255, 256, 1500, 30'000}) {
        with(&V3Message::engineId, Bytes(length, '\x80'));
        with(&V3Message::user, Bytes(length, 'u'));
        with(&V3Message::salt, Bytes(length, 's'));
        with(&V3Message::data, tlv(Tag::octetString, Bytes(length, 'j')));
        with(&V3Message::data, scopedPdu(message.engineId, Bytes(length, 'c'), pdu(PduType::get, 1)));
      }
      // The engine that asks for whatever engine there is (RFC 5343).
      with(&V3Message::data, scopedPdu(Bytes("\x80\0\0\0\6", 5), "", pdu(PduType::get, 1)));
      with(&V3Message::data,
           scopedPdu(Bytes("\x80\0\0\0\6", 5), "", {PduType::getNext, 1, 0, 0, {{{1, 3}, {}}}}));

      // Digests and ciphers that are the right ones for another message, in all lengths.
      V3Message sealed = decodeV3(seal(message));
      for (size_t length = 0; length <= 64; ++length) {
        for (const Bytes& digest : {sealed.digest, Bytes(), Bytes(64, '\xff')}) {
          V3Message broken = sealed;
          broken.digest = (digest + Bytes(64, '\0')).substr(0, length);
          if (broken.digest != sealed.digest) send(encode(broken));
        }
      }
      for (size_t at = 0; at < sealed.data.size(); ++at) {
        V3Message broken = sealed;
        broken.data[at] = static_cast<char>(~broken.data[at]);
        send(encode(broken));
      }
    });
  }
  expectWell();
}

}  // namespace
}  // namespace Wire
