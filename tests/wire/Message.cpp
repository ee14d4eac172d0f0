#include "tests/wire/Message.h"

#include <fmt/format.h>

namespace Wire {
namespace {

Bytes integer(int64_t value) { return tlv(Tag::integer, integerContent(value)); }

Bytes encode(const Varbind& varbind) {
  return tlv(Tag::sequence,
             tlv(Tag::oid, oidContent(varbind.name)) + tlv(varbind.value.tag, varbind.value.content));
}

Varbind decodeVarbind(std::string_view content) {
  Reader reader(content);
  Varbind varbind;
  varbind.name = oidOf(reader.next(Tag::oid));
  Reader::Element value = reader.next();
  varbind.value = {value.tag, Bytes(value.content)};
  if (!reader.done()) throw Malformed("more than a name and a value in a varbind");
  return varbind;
}

Pdu decodePdu(const Reader::Element& element) {
  Reader reader(element.content);
  Pdu pdu;
  pdu.type = static_cast<PduType>(element.tag);
  pdu.requestId = integerOf(reader.next(Tag::integer));
  pdu.first = integerOf(reader.next(Tag::integer));
  pdu.second = integerOf(reader.next(Tag::integer));
  Reader varbinds(reader.next(Tag::sequence));
  if (!reader.done()) throw Malformed("something behind the varbinds");
  while (!varbinds.done()) pdu.varbinds.push_back(decodeVarbind(varbinds.next(Tag::sequence)));
  return pdu;
}

std::string typeText(PduType type) {
  switch (type) {
    case PduType::get:
      return "GET";
    case PduType::getNext:
      return "GETNEXT";
    case PduType::response:
      return "RESPONSE";
    case PduType::set:
      return "SET";
    case PduType::getBulk:
      return "GETBULK";
    case PduType::inform:
      return "INFORM";
    case PduType::trap:
      return "TRAP";
    case PduType::report:
      return "REPORT";
  }
  return fmt::format("PDU {:02x}", static_cast<uint8_t>(type));
}

std::string valueText(const Value& value) {
  switch (value.tag) {
    case Tag::null:
      return "NULL";
    case Tag::noSuchObject:
      return "noSuchObject";
    case Tag::noSuchInstance:
      return "noSuchInstance";
    case Tag::endOfMibView:
      return "endOfMibView";
    case Tag::integer:
      if (!value.content.empty() && value.content.size() <= 8) {
        return fmt::format("INTEGER {}", integerOf(value.content));
      }
      break;
    default:
      break;
  }
  return fmt::format("{:02x}:{}", value.tag, hex(value.content));
}

}  // namespace

Value integerValue(int64_t value) { return {Tag::integer, integerContent(value)}; }
Value unsignedValue(uint8_t tag, uint64_t value) { return {tag, unsignedContent(value)}; }
Value octetsValue(std::string_view octets) { return {Tag::octetString, Bytes(octets)}; }
Value oidValue(const Oid& oid) { return {Tag::oid, oidContent(oid)}; }

Bytes encode(const Pdu& pdu) {
  Bytes varbinds;
  for (const Varbind& varbind : pdu.varbinds) varbinds += encode(varbind);
  return tlv(static_cast<uint8_t>(pdu.type), integer(pdu.requestId) + integer(pdu.first) +
                                                 integer(pdu.second) + tlv(Tag::sequence, varbinds));
}

Bytes encode(const Message& message) {
  return tlv(Tag::sequence, integer(static_cast<int64_t>(message.version)) +
                                tlv(Tag::octetString, message.community) + encode(message.pdu));
}

Pdu decodePdu(std::string_view bytes) {
  Reader reader(bytes);
  Pdu pdu = decodePdu(reader.next());
  if (!reader.done()) throw Malformed("something behind the PDU");
  return pdu;
}

Message decode(std::string_view bytes) {
  Reader outer(bytes);
  Reader reader(outer.next(Tag::sequence));
  Message message;
  message.version = static_cast<Version>(integerOf(reader.next(Tag::integer)));
  message.community = reader.next(Tag::octetString);
  message.pdu = decodePdu(reader.next());
  if (!reader.done() || !outer.done()) throw Malformed("something behind the message");
  return message;
}

int64_t requestIdOf(std::string_view bytes) {
  Reader reader(Reader(bytes).next(Tag::sequence));
  reader.next(Tag::integer);
  reader.next(Tag::octetString);
  return integerOf(Reader(reader.next().content).next(Tag::integer));
}

std::string text(const Pdu& pdu) {
  std::string lines =
      fmt::format("{} request-id={} {} {}\n", typeText(pdu.type), pdu.requestId, pdu.first, pdu.second);
  for (const Varbind& varbind : pdu.varbinds) {
    lines += fmt::format("  {} = {}\n", text(varbind.name), valueText(varbind.value));
  }
  return lines;
}

std::string text(const Message& message) {
  return fmt::format("version={} community={} {}", static_cast<int64_t>(message.version), message.community,
                     text(message.pdu));
}

}  // namespace Wire
