// The answers to the control requests "inspect" and "call": an object's attributes, and what an operation
// that only reads finds, by the runtime's type information.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "host/ControlServer.h"
#include "platform/kor/Type.h"

namespace Host {

using Objects = std::map<std::string, Zavro::Ptr<const Kor::Object>>;

// The object at the path: a name, with "/" and the name of an entity behind it where the object is a
// directory. The empty path is the list of all.
std::unique_ptr<Reply> inspectReport(const Objects& objects, const std::string& path);
// What the operation of the object at the path finds. Refuses one that does not only read.
std::unique_ptr<Reply> callReport(const Objects& objects, const std::string& path,
                                  const std::string& operation);

}  // namespace Host
