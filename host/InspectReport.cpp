#include "host/InspectReport.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "platform/kor/Dir.h"
#include "runtime/Text.h"

namespace Host {
namespace {

using Json = nlohmann::ordered_json;

Zavro::Ptr<const Kor::Object> found(const Objects& objects, const std::string& path) {
  size_t slash = path.find('/');
  auto object = objects.find(path.substr(0, slash));
  if (object == objects.end()) return nullptr;
  if (slash == std::string::npos) return object->second;
  const auto* directory = dynamic_cast<const Kor::Dir*>(object->second.get());
  return directory == nullptr ? nullptr : Kor::entityAt(*directory, path.substr(slash + 1));
}

Json described(const Kor::Object& object) {
  const Kor::Type& type = object.korType();
  Json attributes = Json::object();
  for (const Kor::Attribute& attribute : type.attributes())
    attributes[attribute.name] = attribute.read(object);
  Json operations = Json::array();
  for (const Kor::Operation& operation : type.operations()) operations.push_back(operation.name);
  Json entities = Json::array();
  if (const auto* directory = dynamic_cast<const Kor::Dir*>(&object)) {
    for (auto at = directory->entityPtrIteratorConst(); at; at.next()) entities.push_back(at.key());
  }
  return {{"ok", true},
          {"type", type.name()},
          {"attributes", std::move(attributes)},
          {"operations", std::move(operations)},
          {"entities", std::move(entities)}};
}

Json listed(const Objects& objects) {
  Json entities = Json::array();
  for (const auto& [name, object] : objects) entities.push_back(name);
  return {{"ok", true},
          {"type", nullptr},
          {"attributes", Json::object()},
          {"operations", Json::array()},
          {"entities", std::move(entities)}};
}

}  // namespace

std::unique_ptr<Reply> inspectReport(const Objects& objects, const std::string& path) {
  Zavro::Ptr<const Kor::Object> object = found(objects, path);
  if (!path.empty() && object == nullptr) {
    return errorReply(fmt::format("found {}, expected the path of an object; trelctl inspect lists them",
                                  Runtime::inQuotes(path)));
  }
  Json answer = path.empty() ? listed(objects) : described(*object);
  return lineReply(answer.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace Host
