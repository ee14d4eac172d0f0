// Shows the daemon's answers as text.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "programs/trelctl/ControlClient.h"

namespace TrelCtl {

// One line per row; columns as wide as their widest cell, numbers aligned to the right. The first row is the
// heading.
std::string aligned(const std::vector<std::vector<std::string>>& rows);

// "1 d 2:03:04".
std::string durationText(double seconds);

// The text of a value in a cell, with control characters escaped; "-" for null.
std::string cell(const Json& value);

// A list of objects with the same members, as a table with the members' names as heading.
std::string asTable(const Json& objects);

struct Judgement;
enum class Shown : uint8_t { whatMatters, all };

// The verdict and its reasons, then the lists. Those about the daemon's inner parts, and of what works, are
// left out unless all is to be shown.
std::string renderStatus(const Json& status, const Judgement& judgement, Shown shown);
std::string renderObject(const Json& object);
// Lines, of which each control character is escaped.
std::string renderLines(const std::string& text);
std::string renderTable(const std::string& name, const Json& rows);

}  // namespace TrelCtl
