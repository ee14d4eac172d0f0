// Messages of SNMPv3 with the user-based security model (RFC 3412, RFC 3414), every part of which can be
// wrong.
#pragma once

#include "tests/wire/Message.h"

namespace Wire {

struct V3Message {
  int64_t id = 1;
  int64_t maxSize = 65507;
  Bytes flags;  // one octet: 1 authenticated, 2 private, 4 reportable
  int64_t securityModel = 3;
  Bytes engineId;
  int64_t boots = 0;
  int64_t time = 0;
  Bytes user;
  Bytes digest;
  Bytes salt;
  Bytes data;  // a scoped PDU as it is, or encrypted within an octet string
};

inline constexpr const char* kReportable = "\x04";
inline constexpr const char* kAuthenticated = "\x05";
inline constexpr const char* kPrivate = "\x07";

Bytes encode(const V3Message& message);
// Throws Malformed.
V3Message decodeV3(std::string_view bytes);

// A GET of nothing, in no engine's name: the engine answers with its own, and its time.
V3Message discovery();
// A request to the engine that gave this answer, by a user with as much security as the flags say: not sealed
// yet.
V3Message requestTo(const V3Message& engine, const Bytes& user, const Bytes& flags, const Pdu& pdu);

Bytes scopedPdu(std::string_view contextEngineId, std::string_view contextName, const Pdu& pdu);

// What a user of HMAC-SHA-256 and AES-128 shares with one engine.
class V3Keys {
 public:
  static constexpr size_t kDigestBytes = 24;

  V3Keys(const std::string& authPass, const std::string& privPass, const Bytes& engineId);

  // The message with the digest that belongs to it.
  Bytes signedMessage(V3Message message) const;
  // With data encrypted as well, with the salt that it has.
  Bytes privateMessage(V3Message message) const;
  // As much of both as these flags say.
  Bytes sealed(const V3Message& message, const Bytes& flags) const;

  // The scoped PDU of an answer. Throws Malformed when it cannot be decrypted.
  Bytes openedData(const V3Message& message) const;

 private:
  Bytes authKey_;
  Bytes privKey_;
};

}  // namespace Wire
