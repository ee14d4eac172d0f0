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
  Json questions = Json::array();
  for (const Kor::Operation& operation : type.operations()) {
    operations.push_back(operation.name);
    if (operation.ask) questions.push_back(operation.name);
  }
  Json entities = Json::array();
  if (const auto* directory = dynamic_cast<const Kor::Dir*>(&object)) {
    for (auto at = directory->entityPtrIteratorConst(); at; at.next()) entities.push_back(at.key());
  }
  return {{"ok", true},
          {"type", type.name()},
          {"attributes", std::move(attributes)},
          {"operations", std::move(operations)},
          {"questions", std::move(questions)},
          {"entities", std::move(entities)}};
}

Json listed(const Objects& objects) {
  Json entities = Json::array();
  for (const auto& [name, object] : objects) entities.push_back(name);
  return {{"ok", true},
          {"type", nullptr},
          {"attributes", Json::object()},
          {"operations", Json::array()},
          {"questions", Json::array()},
          {"entities", std::move(entities)}};
}

std::unique_ptr<Reply> noSuchObject(const std::string& path) {
  return errorReply(fmt::format("found {}, expected the path of an object; trelctl inspect lists them",
                                Runtime::inQuotes(path)));
}

std::unique_ptr<Reply> reply(const Json& answer) {
  return lineReply(answer.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace

std::unique_ptr<Reply> inspectReport(const Objects& objects, const std::string& path) {
  if (path.empty()) return reply(listed(objects));
  Zavro::Ptr<const Kor::Object> object = found(objects, path);
  return object == nullptr ? noSuchObject(path) : reply(described(*object));
}

std::unique_ptr<Reply> callReport(const Objects& objects, const std::string& path,
                                  const std::string& operation) {
  Zavro::Ptr<const Kor::Object> object = found(objects, path);
  if (object == nullptr) return noSuchObject(path);
  try {
    return reply({{"ok", true}, {"result", Kor::ask(*object, operation)}});
  } catch (const Kor::NoSuchMemberException& error) {
    return errorReply(fmt::format("{}; expected an operation that trelctl inspect {} shows as a question",
                                  error.what(), path));
  }
}

}  // namespace Host
