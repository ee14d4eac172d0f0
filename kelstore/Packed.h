// The packed forms: what changes all the time of a member, as one object, so that it is one key in a store
// and one event for those who follow it.
//
//   members/<m>/figures      system, memory and processors. In place of uptime and date there are the time
//                            when the machine started and the publisher's clock when it wrote.
//   members/<m>/filesystems  storage
//
// A packed form is no value: it is written and read in place of the values that it gives. On any thread.
#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "kelstore/Document.h"

namespace Kelstore {

// The path of the packed form that may give this path's value.
std::optional<Path> packedFormOf(const Path& path);

// The values that a packed form gives, no path twice. A fault names the path whose value is wrong, the others
// can be used. Requires: it is the path of a packed form.
Document unpacked(const Path& path, nlohmann::json json, const Limits& limits);

// What a store is to hold for these values, as JSON by path: packed forms where there are some, but no
// containers. What would make a packed form larger than `mostBytes` stays as it is, and so do figures of a
// member without a `system`. Requires: no path twice.
std::map<Path, std::string> packed(const std::vector<Snapshot::Entry>& entries, size_t mostBytes);

// The figures when so many seconds have passed and the publisher's clock shows this time, in seconds since
// 1970 UTC. The uptime goes on with what has passed, also when the clock was set.
std::string withClock(const std::string& figures, double utcSeconds, double passedSeconds);

// The fields of the packed forms.
std::vector<FieldSpec> figuresFields();
std::vector<FieldSpec> filesystemsFields();

}  // namespace Kelstore
