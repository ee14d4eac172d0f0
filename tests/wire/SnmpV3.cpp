#include "tests/wire/SnmpV3.h"

#include <fmt/format.h>
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

namespace Wire {
namespace {

// What net-snmp wants to have room for.
constexpr size_t kMaxHashBytes = 64;
constexpr size_t kCipherKeyBytes = 16;
constexpr size_t kVectorBytes = 16;

Bytes integer(int64_t value) { return tlv(Tag::integer, integerContent(value)); }
Bytes octets(std::string_view bytes) { return tlv(Tag::octetString, bytes); }

const u_char* unsignedOf(std::string_view bytes) { return reinterpret_cast<const u_char*>(bytes.data()); }
u_char* unsignedOf(Bytes& bytes) { return reinterpret_cast<u_char*>(bytes.data()); }

void check(int result, const char* what) {
  if (result != SNMPERR_SUCCESS) throw std::runtime_error(fmt::format("{} fails: {}", what, result));
}

// The key that a pass phrase becomes at one engine.
Bytes localKey(const std::string& pass, Bytes engineId) {
  const oid* hash = usmHMAC192SHA256AuthProtocol;
  u_int hashLength = OID_LENGTH(usmHMAC192SHA256AuthProtocol);
  Bytes key(kMaxHashBytes, '\0');
  size_t length = key.size();
  check(generate_Ku(hash, hashLength, unsignedOf(pass), pass.size(), unsignedOf(key), &length),
        "generate_Ku");
  Bytes local(kMaxHashBytes, '\0');
  size_t localLength = local.size();
  check(generate_kul(hash, hashLength, unsignedOf(engineId), engineId.size(), unsignedOf(key), length,
                     unsignedOf(local), &localLength),
        "generate_kul");
  local.resize(localLength);
  return local;
}

Bytes bigEndian(int64_t value) {
  Bytes bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift & 0xff);
  return bytes;
}

Bytes vectorOf(const V3Message& message) {
  Bytes vector = bigEndian(message.boots) + bigEndian(message.time) + message.salt;
  vector.resize(kVectorBytes);
  return vector;
}

}  // namespace

Bytes encode(const V3Message& message) {
  Bytes security =
      tlv(Tag::sequence, octets(message.engineId) + integer(message.boots) + integer(message.time) +
                             octets(message.user) + octets(message.digest) + octets(message.salt));
  Bytes header = tlv(Tag::sequence, integer(message.id) + integer(message.maxSize) + octets(message.flags) +
                                        integer(message.securityModel));
  return tlv(Tag::sequence,
             integer(static_cast<int64_t>(Version::v3)) + header + octets(security) + message.data);
}

V3Message decodeV3(std::string_view bytes) {
  V3Message message;
  Reader reader(Reader(bytes).next(Tag::sequence));
  if (integerOf(reader.next(Tag::integer)) != static_cast<int64_t>(Version::v3))
    throw Malformed("not SNMPv3");
  Reader header(reader.next(Tag::sequence));
  message.id = integerOf(header.next(Tag::integer));
  message.maxSize = integerOf(header.next(Tag::integer));
  message.flags = header.next(Tag::octetString);
  message.securityModel = integerOf(header.next(Tag::integer));
  Reader security(Reader(reader.next(Tag::octetString)).next(Tag::sequence));
  message.engineId = security.next(Tag::octetString);
  message.boots = integerOf(security.next(Tag::integer));
  message.time = integerOf(security.next(Tag::integer));
  message.user = security.next(Tag::octetString);
  message.digest = security.next(Tag::octetString);
  message.salt = security.next(Tag::octetString);
  Reader::Element data = reader.next();
  message.data = tlv(data.tag, data.content);
  if (!reader.done()) throw Malformed("something behind the data");
  return message;
}

V3Message discovery() {
  V3Message message;
  message.flags = kReportable;
  message.data = scopedPdu("", "", {PduType::get, 1, 0, 0, {}});
  return message;
}

V3Message requestTo(const V3Message& engine, const Bytes& user, const Bytes& flags, const Pdu& pdu) {
  V3Message message;
  message.flags = flags;
  message.engineId = engine.engineId;
  message.boots = engine.boots;
  message.time = engine.time;
  message.user = user;
  if (flags == kPrivate) message.salt = "saltsalt";
  message.data = scopedPdu(engine.engineId, "", pdu);
  return message;
}

Bytes scopedPdu(std::string_view contextEngineId, std::string_view contextName, const Pdu& pdu) {
  return tlv(Tag::sequence, octets(contextEngineId) + octets(contextName) + encode(pdu));
}

V3Keys::V3Keys(const std::string& authPass, const std::string& privPass, const Bytes& engineId)
    : authKey_(localKey(authPass, engineId)), privKey_(localKey(privPass, engineId)) {}

Bytes V3Keys::signedMessage(V3Message message) const {
  message.digest = Bytes(kDigestBytes, '\0');
  Bytes whole = encode(message);
  size_t length = message.digest.size();
  check(sc_generate_keyed_hash(usmHMAC192SHA256AuthProtocol, OID_LENGTH(usmHMAC192SHA256AuthProtocol),
                               unsignedOf(authKey_), static_cast<u_int>(authKey_.size()), unsignedOf(whole),
                               static_cast<u_int>(whole.size()), unsignedOf(message.digest), &length),
        "sc_generate_keyed_hash");
  return encode(message);
}

Bytes V3Keys::sealed(const V3Message& message, const Bytes& flags) const {
  if (flags == kPrivate) return privateMessage(message);
  return flags == kAuthenticated ? signedMessage(message) : encode(message);
}

Bytes V3Keys::openedData(const V3Message& message) const {
  if ((message.flags.at(0) & 2) == 0) return message.data;
  Bytes vector = vectorOf(message);
  Bytes key = privKey_.substr(0, kCipherKeyBytes);
  Bytes cipher(Reader(message.data).next(Tag::octetString));
  Bytes plain(cipher.size() + kCipherKeyBytes, '\0');
  size_t length = plain.size();
  int result =
      sc_decrypt(usmAESPrivProtocol, OID_LENGTH(usmAESPrivProtocol), unsignedOf(key),
                 static_cast<u_int>(key.size()), unsignedOf(vector), static_cast<u_int>(vector.size()),
                 unsignedOf(cipher), static_cast<u_int>(cipher.size()), unsignedOf(plain), &length);
  if (result != SNMPERR_SUCCESS) throw Malformed("a cipher that is none");
  plain.resize(length);
  return plain;
}

Bytes V3Keys::privateMessage(V3Message message) const {
  Bytes vector = vectorOf(message);
  Bytes key = privKey_.substr(0, kCipherKeyBytes);
  Bytes cipher(message.data.size() + kCipherKeyBytes, '\0');
  size_t length = cipher.size();
  // Of nothing, net-snmp makes no cipher.
  if (message.data.empty()) return signedMessage(std::move(message));
  check(sc_encrypt(usmAESPrivProtocol, OID_LENGTH(usmAESPrivProtocol), unsignedOf(key),
                   static_cast<u_int>(key.size()), unsignedOf(vector), static_cast<u_int>(vector.size()),
                   unsignedOf(message.data), static_cast<u_int>(message.data.size()), unsignedOf(cipher),
                   &length),
        "sc_encrypt");
  cipher.resize(length);
  message.data = octets(cipher);
  return signedMessage(std::move(message));
}

}  // namespace Wire
