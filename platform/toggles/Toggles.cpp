#include "platform/toggles/Toggles.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>

#include "platform/lumalog/Lumalog.h"

namespace Toggles {
namespace {

const Lumalog::Handle traceHandle("Toggles");

std::map<std::string, std::string>& paths() {
  static auto* instance = new std::map<std::string, std::string>;
  return *instance;
}

// The faults that were traced since the last fileIs().
std::set<std::string>& traced() {
  static auto* instance = new std::set<std::string>;
  return *instance;
}

// Traces each fault once, however many toggles are read from the file.
void complain(const std::string& line) {
  if (traced().insert(line).second) traceHandle.trace(0, "{}", line);
}

// The file's bytes; nothing, with the reason in errno, when it cannot be opened or read, such as a directory.
std::optional<std::string> contents(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream bytes;
  if (in && in.peek() != std::ifstream::traits_type::eof()) bytes << in.rdbuf();
  if (in.bad() || !in.is_open()) return std::nullopt;
  return bytes.str();
}

std::optional<nlohmann::json> document(const std::string& path) {
  auto text = contents(path);
  if (!text) {
    complain(fmt::format("{}: {}, all toggles keep their defaults", path, std::strerror(errno)));
    return std::nullopt;
  }
  try {
    nlohmann::json json = nlohmann::json::parse(*text);
    if (json.is_object()) return json;
    complain(fmt::format("{}: found {}, expected an object of toggles; all keep their defaults", path,
                         json.type_name()));
  } catch (const nlohmann::json::exception& error) {
    complain(fmt::format("{}: expected JSON, all toggles keep their defaults: {}", path, error.what()));
  }
  return std::nullopt;
}

}  // namespace

void fileIs(const std::string& file, const std::string& path) {
  paths()[file] = path;
  traced().clear();
}

bool getToggleState(const std::string& name, const std::string& file, bool defaultState) {
  auto path = paths().find(file);
  if (path == paths().end()) return defaultState;
  auto json = document(path->second);
  if (!json || !json->contains(name)) return defaultState;
  const nlohmann::json& state = (*json)[name];
  if (!state.is_boolean()) {
    complain(fmt::format("{}: toggle \"{}\": found {}, expected true or false; it keeps its default {}",
                         path->second, name, state.type_name(), defaultState));
    return defaultState;
  }
  return state.get<bool>();
}

}  // namespace Toggles
