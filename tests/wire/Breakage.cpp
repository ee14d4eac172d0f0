#include "tests/wire/Breakage.h"

#include <algorithm>

namespace Wire {
namespace {

constexpr uint8_t kConstructed = 0x20;

char octet(unsigned value) { return static_cast<char>(value); }

struct Element {
  uint8_t tag = 0;
  Bytes content;  // when there are no children
  std::vector<Element> children;
};

// SNMPv3 has its security parameters in an octet string.
bool isWrapped(uint8_t tag, std::string_view content) {
  return tag == Tag::octetString && !content.empty() && content.front() == octet(Tag::sequence) &&
         isWellFormed(content);
}

std::vector<Element> parsed(std::string_view bytes) {
  std::vector<Element> elements;
  for (Reader reader(bytes); !reader.done();) {
    Reader::Element read = reader.next();
    Element element{read.tag, {}, {}};
    bool hasChildren = (read.tag & kConstructed) != 0 || isWrapped(read.tag, read.content);
    if (hasChildren) element.children = parsed(read.content);
    if (element.children.empty()) element.content = read.content;
    elements.push_back(std::move(element));
  }
  return elements;
}

// The octets of all, with others in the place of one.
Bytes encoded(const Element& element, const Element* broken, const Bytes& instead) {
  if (&element == broken) return instead;
  if (element.children.empty()) return tlv(element.tag, element.content);
  Bytes content;
  for (const Element& child : element.children) content += encoded(child, broken, instead);
  return tlv(element.tag, content);
}

// A length in more octets than it needs, the first of which may be wrong.
Bytes longLength(size_t length, size_t octets, unsigned first) {
  Bytes bytes(1, octet(first));
  for (size_t i = octets; i > 0; --i) bytes += i > sizeof length ? '\0' : octet(length >> (i - 1) * 8 & 0xff);
  return bytes;
}

// What may stand where a length should.
std::vector<Bytes> lengths(size_t length) {
  std::vector<Bytes> forms;
  for (size_t octets : {1, 2, 3, 4, 5, 8, 9, 16, 126}) {
    forms.push_back(longLength(length, octets, 0x80 | static_cast<unsigned>(octets)));
  }
  for (size_t wrong : {length + 1, length - 1, length + 2, length * 2, size_t{0}, size_t{0x7f}, size_t{0xff},
                       size_t{0xffff}, size_t{0x7fffffff}, size_t{0x80000000}, size_t{0xffffffff}}) {
    if (wrong != length) forms.push_back(longLength(wrong, 4, 0x84));
  }
  forms.push_back(longLength(~size_t{0}, 8, 0x88));
  forms.push_back(longLength(~size_t{0} >> 1, 8, 0x88));
  forms.push_back(longLength(~size_t{0} - 8, 8, 0x88));
  forms.push_back("\x80");  // indefinite
  forms.push_back("\xff");
  return forms;
}

// Contents that no, or only some other, tag allows.
std::vector<Bytes> contents() {
  std::vector<Bytes> all;
  for (size_t length = 0; length <= 9; ++length) {
    for (unsigned value : {0x00u, 0x7fu, 0x80u, 0xffu}) all.emplace_back(length, octet(value));
  }
  for (size_t length : {16, 32, 33, 127, 128, 129, 255, 256, 300, 1500, 5000}) {
    all.emplace_back(length, '\x01');
    all.emplace_back(length, '\xff');
  }
  // Sub-identifiers of more than 32 bits, of leading zeros, and too many of them.
  all.emplace_back("\x2b\x90\x80\x80\x80\x00", 6);
  all.emplace_back("\x2b\xff\xff\xff\xff\xff\xff\xff\xff\xff\x7f", 11);
  all.emplace_back("\x80\x80\x80\x01", 4);
  all.push_back("\x2b" + Bytes(127, '\x01'));
  all.push_back("\x2b" + Bytes(128, '\x7f'));
  // What net-snmp takes for more within an Opaque: counters, floats and doubles, whole and cut off.
  for (unsigned kind : {0x76, 0x78, 0x79, 0x7a, 0x7b}) {
    for (unsigned length : {0, 1, 4, 7, 8, 9, 255}) {
      for (size_t there : {0, 1, 4, 8, 9}) {
        all.push_back(Bytes("\x9f") + octet(kind) + octet(length) + Bytes(there, '\x01'));
      }
    }
  }
  return all;
}

void breakElement(const Element& root, const Element& element, const Take& take) {
  Bytes whole = encoded(element, nullptr, {});
  Bytes content(Reader(whole).next(element.tag));
  auto with = [&](const Bytes& instead) { take(encoded(root, &element, instead)); };

  static const std::vector<unsigned> kTags = {
      0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x09, 0x0a, 0x10, 0x1f, 0x24, 0x30, 0x31,
      0x40, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x5f, 0x78, 0x80, 0x81, 0x82,
      0x83, 0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xbf, 0xc0, 0xff};
  for (unsigned tag : kTags) {
    if (tag != element.tag) with(octet(tag) + whole.substr(1));
  }
  for (const Bytes& length : lengths(content.size())) with(octet(element.tag) + length + content);
  with(octet(element.tag) + Bytes("\x80") + content + Bytes(2, '\0'));
  with({});
  with(whole + whole);
  with(tlv(Tag::sequence, whole));
  with(tlv(element.tag, whole));
  with(whole.substr(0, 1));
  Bytes nested = whole;
  for (int depth = 0; depth < 200; ++depth) nested = tlv(Tag::sequence, nested);
  with(nested);
  if (!element.children.empty()) {
    with(tlv(element.tag, {}));
    with(tlv(element.tag, content + content));
    for (const Element& child : element.children) breakElement(root, child, take);
    return;
  }
  static const std::vector<Bytes> kContents = contents();
  // Those for an Opaque are tried where one may be.
  bool isValue = element.tag >= Tag::ipAddress || element.tag == Tag::null;
  for (const Bytes& other : kContents) {
    bool forOpaque = !other.empty() && other.front() == '\x9f';
    if (!forOpaque) {
      with(tlv(element.tag, other));
    } else if (isValue) {
      with(tlv(Tag::opaque, other));
    }
  }
}

}  // namespace

void breakOctets(const Bytes& message, const Take& take) {
  for (size_t at = 0; at < message.size(); ++at) {
    auto is = static_cast<uint8_t>(message[at]);
    for (unsigned other : {0x00u, 0x01u, 0x7fu, 0x80u, 0x81u, 0x82u, 0x84u, 0x88u, 0x89u, 0xffu, is + 1u,
                           is - 1u, is ^ 0x20u, is ^ 0x80u}) {
      if (static_cast<uint8_t>(other) == is) continue;
      Bytes broken = message;
      broken[at] = octet(other);
      take(broken);
    }
    take(message.substr(0, at));
  }
  for (size_t length : {1, 2, 4, 100, 5000, 60000}) {
    take(message + Bytes(length, '\0'));
    take(message + Bytes(length, '\xff'));
  }
  take(message + message);
}

void breakElements(const Bytes& message, const Take& take) {
  std::vector<Element> elements = parsed(message);
  breakElement(elements.at(0), elements.at(0), take);
}

Bytes brokenSomewhere(Bytes message, Support::Random& random) {
  for (uint64_t count = random.from(1, 6); count > 0 && !message.empty(); --count) {
    size_t at = random.from(0, message.size() - 1);
    switch (random.below(6)) {
      case 0:
        message.erase(at, random.from(1, 4));
        break;
      case 1:
        message.insert(at, message.substr(random.from(0, message.size() - 1), random.from(1, 8)));
        break;
      case 2:
        message[at] = octet(static_cast<uint8_t>(message[at]) ^ 1u << random.below(8));
        break;
      default:
        message[at] = octet(static_cast<unsigned>(random.percent(50) ? random.edge() : random.any()) & 0xff);
    }
  }
  return message;
}

bool isWellFormed(std::string_view message) {
  try {
    return parsed(message).size() == 1;
  } catch (const Malformed&) {
    return false;
  }
}

}  // namespace Wire
