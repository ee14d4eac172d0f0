// The answer to the control request "inspect": an object's attributes, by the runtime's type information.
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

}  // namespace Host
