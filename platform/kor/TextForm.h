// The text form of values, as traces and attributes show it.
//
// A type has a text form when it offers `std::string text() const`; such a type, and a Zavro::Ptr to one,
// formats with "{}". A null pointer formats as "None".
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/zavro/Exception.h"
#include "platform/zavro/Ptr.h"

namespace Kor {

template <class T>
concept HasText = requires(const T& value) {
  { value.text() } -> std::convertible_to<std::string>;
};

template <class T>
std::string toText(const T& value) {
  return fmt::format("{}", value);
}

// "Optional( <value> )", or "None" when there is none.
template <class T>
std::string optText(const Zavro::Ptr<T>& value) {
  return value ? fmt::format("Optional( {} )", value->text()) : "None";
}
template <class T>
std::string optText(const std::optional<T>& value) {
  return value ? fmt::format("Optional( {} )", *value) : "None";
}

// A text is not a value of the expected type. The message names what was found and what was expected.
class ParseException final : public Zavro::Exception {
 public:
  using Zavro::Exception::Exception;
};

// The whole of text as an unsigned 32-bit decimal number; throws ParseException.
uint32_t u32FromText(std::string_view text);
// The whole of text as a finite decimal number; throws ParseException.
double doubleFromText(std::string_view text);

// The position of an attribute in its composite.
enum class AttrPlace { first, inner, last };

// Readers of a composite's text form "(<name>=<value>, <name>=<value>)". desAttrPre() consumes what stands
// before the value of attribute `name` (the opening parenthesis before the first, the name, the equals sign),
// readU32() the value, and desAttrPost() what follows it (a comma, or the closing parenthesis and then
// nothing after the last). Blanks around parentheses, names and commas are allowed. Each advances `rest`, and
// throws ParseException when the text is malformed.
void desAttrPre(std::string_view& rest, std::string_view name, AttrPlace place);
uint32_t readU32(std::string_view& rest);
void desAttrPost(std::string_view& rest, AttrPlace place);

}  // namespace Kor

template <Kor::HasText T>
struct fmt::formatter<T> : fmt::formatter<std::string> {
  template <class Context>
  auto format(const T& value, Context& context) const {
    return fmt::formatter<std::string>::format(value.text(), context);
  }
};

template <Kor::HasText T>
struct fmt::formatter<boost::intrusive_ptr<T>> : fmt::formatter<std::string> {
  template <class Context>
  auto format(const boost::intrusive_ptr<T>& value, Context& context) const {
    return fmt::formatter<std::string>::format(value ? value->text() : "None", context);
  }
};
