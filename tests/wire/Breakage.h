// A message, broken in every way there is: each of its octets, each of its elements, and its end.
#pragma once

#include <functional>

#include "tests/support/Random.h"
#include "tests/wire/Ber.h"

namespace Wire {

using Take = std::function<void(const Bytes&)>;

// Each octet in turn, tags and lengths among them, is something else; cut off before each; with more behind
// the end.
void breakOctets(const Bytes& message, const Take& take);

// Each element in turn has another tag, another form of its length or a wrong one, another content, or is
// missing, doubled, or within another one. The lengths around it are right, so that it is read. Requires: the
// message is well-formed.
void breakElements(const Bytes& message, const Take& take);

// A few octets are something else, missing or doubled, wherever.
Bytes brokenSomewhere(Bytes message, Support::Random& random);

// Whether it is one element, of elements as far as they are constructed.
bool isWellFormed(std::string_view message);

}  // namespace Wire
