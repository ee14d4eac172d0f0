// Managers that take messages up to a size only: whatever that is, every answer fits, and says as much as
// does. The model says what there is to say; how much of it fits is worked out from the answer's own header.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/support/Random.h"
#include "tests/wire/Settings.h"
#include "tests/wire/SnmpV3.h"
#include "tests/wire/Subject.h"

namespace Wire {
namespace {

constexpr int64_t kMinSize = 484;  // that may be stated (RFC 3412, section 6.3)
constexpr int64_t kMaxSize = 2147483647;
constexpr size_t kMaxDatagram = 65507;

// Rows of many sizes: descriptions and types from nothing to the longest that there are.
nlohmann::json document() {
  constexpr int kMembers = 3;
  constexpr int kAreas = 40;
  nlohmann::json document;
  for (int area = 0; area < kAreas; ++area) {
    auto length = static_cast<size_t>(area);
    std::string type = "1.3";
    for (size_t i = 0; i < 125 * (length + 1) / kAreas; ++i) type += ".4294967295";
    document["storageMappings"]["mounts"][fmt::format("/{}", area)] = {
        {"index", area}, {"type", type}, {"description", std::string(255 * (length + 1) / kAreas, 'd')}};
  }
  for (int member = 1; member <= kMembers; ++member) {
    nlohmann::json& all = document["members"][std::to_string(member)];
    for (int area = 0; area < kAreas; ++area) {
      all["storage"][fmt::format("/{}", area)] = {
          {"allocationUnits", 4096}, {"size", area * 1'000'000}, {"free", 7}};
      all["processors"][std::to_string(area)] = {{"load", area}};
      all["reachability"][std::to_string(area)] = {{"state", area % 6}, {"lastChange", 0}};
    }
  }
  return document;
}

class Sizes : public testing::Test {
 protected:
  Sizes() : random_(settings().seed), probes_(subject_.port()) { subject_.becomes(document()); }

  Oid name() {
    const Tree& tree = subject_.model().tree();
    return random_.of(tree).first;
  }
  Pdu request(PduType type, size_t varbinds) {
    Pdu made{type, ++requestId_, 0, 0, {}};
    if (type == PduType::getBulk) {
      made.first = random_.below(3);
      made.second = random_.below(120);
    }
    Value value = type == PduType::set ? integerValue(1) : Value();
    for (; varbinds > 0; --varbinds) made.varbinds.push_back({name(), value});
    return made;
  }
  // All that there would be to say, had it room.
  Pdu whole(const Pdu& request, Version version = Version::v2c) {
    return subject_.model().answerTo({version, kReader, request}).value().pdu;
  }
  // What is to be said in a message that may have this size, which `sizeOf` tells of a message with a PDU.
  template <class SizeOf>
  static Pdu fitting(const Pdu& request, Pdu whole, size_t maxSize, SizeOf sizeOf) {
    bool isBulk = request.type == PduType::getBulk;
    while (sizeOf(whole) > maxSize && isBulk && whole.varbinds.size() > 1) whole.varbinds.pop_back();
    if (sizeOf(whole) <= maxSize) return whole;
    return {PduType::response, request.requestId, static_cast<int64_t>(ErrorStatus::tooBig), 0, {}};
  }
  // Fails when the daemon does not answer others any more.
  void expectWell(const std::string& after) {
    Message probe{Version::v2c, kReader, request(PduType::get, 1)};
    ASSERT_TRUE(probes_.ask(probe)) << "no answer to anybody any more, after " << after << '\n'
                                    << subject_.complaint();
  }

  Subject subject_{accessWithUsers()};
  Support::Random random_;
  // Apart from what may go without an answer.
  Exchange probes_;
  int64_t requestId_ = 0;
};

// --- SNMPv3, where a manager says what it takes

class V3Sizes : public Sizes, public testing::WithParamInterface<const char*> {
 protected:
  std::optional<Bytes> answerTo(const Bytes& message) {
    // A datagram may be lost.
    for (int attempt = 0; attempt < 3; ++attempt) {
      subject_.exchange().send(message);
      if (auto answer = subject_.exchange().receive(Support::Millis(3'000))) return answer;
    }
    return std::nullopt;
  }
  // The same engine, at its time now.
  const V3Message& engine() {
    constexpr size_t kUsableFor = 1'000;
    if (asked_++ % kUsableFor == 0) {
      std::optional<Bytes> told = answerTo(encode(discovery()));
      if (!told) throw std::runtime_error("no engine answers");
      engine_ = decodeV3(*told);
      keys_.emplace(kAuthPass, kPrivPass, engine_.engineId);
    }
    return engine_;
  }
  Bytes sealed(const Pdu& request, int64_t maxSize) {
    const V3Message& engine = this->engine();
    const char* user = GetParam() == std::string(kReportable) ? kWatcher : kOperator;
    V3Message message = requestTo(engine, user, GetParam(), request);
    message.id = request.requestId;
    message.maxSize = maxSize;
    return keys_->sealed(message, GetParam());
  }

  void ask(const Pdu& request, int64_t maxSize) {
    if (HasFatalFailure()) return;
    std::string what = fmt::format("{}, in a message of {} octets at most", text(request), maxSize);
    std::optional<Bytes> bytes = answerTo(sealed(request, maxSize));
    if (!bytes) expectWell(what);
    ASSERT_TRUE(bytes) << "no answer to " << what;
    ASSERT_LE(bytes->size(), static_cast<size_t>(maxSize)) << what;
    V3Message answer = decodeV3(*bytes);
    Bytes data = keys_->openedData(answer);
    Reader scoped(Reader(data).next(Tag::sequence));
    Bytes contextEngine(scoped.next(Tag::octetString));
    scoped.next(Tag::octetString);
    Reader::Element said = scoped.next();
    auto sizeOf = [&](const Pdu& pdu) {
      V3Message message = answer;
      message.data = scopedPdu(contextEngine, "", pdu);
      if (GetParam() == std::string(kPrivate)) message.data = tlv(Tag::octetString, message.data);
      return encode(message).size();
    };
    size_t bound = std::min(static_cast<size_t>(maxSize), kMaxDatagram);
    Pdu expected = fitting(request, whole(request), bound, sizeOf);
    ASSERT_EQ(text(decodePdu(tlv(said.tag, said.content))), text(expected)) << what;
    fits_ += expected.first == 0 ? 1 : 0;
    tooBig_ += expected.first == static_cast<int64_t>(ErrorStatus::tooBig) ? 1 : 0;
  }
  void askEverything(int64_t maxSize) {
    ask(request(PduType::getBulk, 1), maxSize);
    ask(request(PduType::getBulk, random_.from(1, 4)), maxSize);
    for (PduType type : {PduType::get, PduType::getNext, PduType::set}) {
      ask(request(type, random_.from(1, 12)), maxSize);
    }
  }

  V3Message engine_;
  std::optional<V3Keys> keys_;
  size_t asked_ = 0;
  size_t fits_ = 0;
  size_t tooBig_ = 0;
};
INSTANTIATE_TEST_SUITE_P(With, V3Sizes, testing::Values(kReportable, kAuthenticated, kPrivate),
                         [](const auto& flags) {
                           return flags.param == std::string(kReportable)      ? "nothing"
                                  : flags.param == std::string(kAuthenticated) ? "authentication"
                                                                               : "privacy";
                         });

TEST_P(V3Sizes, EverySmallSize_EveryAnswerFitsAndSaysAsMuchAsItCan) {
  for (int64_t size = kMinSize; size <= 1600; ++size) askEverything(size);
  EXPECT_GT(tooBig_, 100u);
  EXPECT_GT(fits_, 1'000u);
  EXPECT_EQ(subject_.end(), "");
}

TEST_P(V3Sizes, LargerSizes_EveryAnswerFitsAndSaysAsMuchAsItCan) {
  for (int i = 0; i < 300; ++i) askEverything(static_cast<int64_t>(random_.from(1601, 70'000)));
  for (int64_t size : {int64_t{65506}, int64_t{65507}, int64_t{65508}, kMaxSize}) askEverything(size);
  // More than a datagram holds.
  for (int64_t size : {int64_t{40'000}, kMaxSize}) {
    for (PduType type : {PduType::get, PduType::getNext, PduType::getBulk}) ask(request(type, 400), size);
  }
  EXPECT_EQ(subject_.end(), "");
}

// The request alone is larger than what its sender takes.
TEST_P(V3Sizes, LargeRequestSmallAnswer_FitsAsWell) {
  for (PduType type : {PduType::get, PduType::getNext, PduType::getBulk, PduType::set}) {
    for (size_t varbinds : {30, 100, 1000}) ask(request(type, varbinds), kMinSize);
  }
  EXPECT_EQ(subject_.end(), "");
}

TEST_P(V3Sizes, SizeThatMayNotBeStated_NoAnswer) {
  for (int64_t size : {int64_t{-1}, int64_t{0}, int64_t{1}, int64_t{483}, kMaxSize + 1}) {
    subject_.exchange().send(sealed(request(PduType::getBulk, 1), size));
    expectWell(fmt::format("a size of {}", size));
    EXPECT_FALSE(subject_.exchange().receive(Support::Millis(0))) << size;
  }
  EXPECT_EQ(subject_.end(), "");
}

// --- without, where what a datagram holds is the bound

class CommunitySizes : public Sizes {
 protected:
  void ask(Version version, const Pdu& request) {
    std::string what = text(request).substr(0, 500);
    Message message{version, kReader, request};
    std::optional<Bytes> bytes = probes_.ask(message);
    ASSERT_TRUE(bytes) << what;
    auto sizeOf = [&](const Pdu& pdu) { return encode(Message{version, kReader, pdu}).size(); };
    Pdu expected = fitting(request, whole(request, version), kMaxDatagram, sizeOf);
    // RFC 1157 wants what was asked.
    if (version == Version::v1 && expected.first != 0) expected.varbinds = request.varbinds;
    ASSERT_EQ(text(decode(*bytes).pdu), text(expected)) << what;
  }
};

TEST_F(CommunitySizes, MoreThanADatagramHolds) {
  for (size_t varbinds : {1, 100, 200, 400, 1000, 2000}) {
    for (Version version : {Version::v1, Version::v2c}) {
      ask(version, request(PduType::get, varbinds));
      ask(version, request(PduType::getNext, varbinds));
    }
    ask(Version::v2c, request(PduType::getBulk, varbinds));
  }
  // The longest values, as many as there can be.
  Oid types = tableShapes()[4].root;
  types.insert(types.end(), {1, 3, 2});
  for (Oid name : {types, Oid{1, 3}}) {
    ask(Version::v2c, {PduType::getBulk, ++requestId_, 0, 100, {{name, {}}}});
    Pdu many{PduType::getBulk, ++requestId_, 100, 100, {}};
    many.varbinds.assign(110, {types, {}});
    ask(Version::v2c, many);
  }
  EXPECT_EQ(subject_.end(), "");
}

}  // namespace
}  // namespace Wire
