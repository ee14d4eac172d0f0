#include "platform/snmp/KelstoreUtil.h"

#include <set>

#include "platform/snmp/Status.h"

namespace Snmp {
namespace {

struct Roots {
  Zavro::Ptr<const Kor::Dir> root;
  Config::PtrConst config;
};

Roots& roots() {
  static auto* instance = new Roots;
  return *instance;
}

using ContextAndModule = std::pair<std::string, std::string>;

std::set<ContextAndModule>& mibContexts() {
  static auto* contexts = new std::set<ContextAndModule>;
  return *contexts;
}

}  // namespace

const Kor::Type& Status::type() {
  static const Kor::Type type = Kor::TypeBuilder<Status>("Snmp::Status")
                                    .attribute("name", &Status::name)
                                    .attribute("initialized", &Status::initialized)
                                    .build();
  return type;
}

const Kor::Type& Config::type() {
  static const Kor::Type type = Kor::TypeBuilder<Config>("Snmp::Config")
                                    .attribute("name", &Config::name)
                                    .attribute("sysname", &Config::sysname)
                                    .build();
  return type;
}

void KelstoreUtil::rootIs(Zavro::Ptr<const Kor::Dir> root, Config::PtrConst config) {
  roots() = {std::move(root), std::move(config)};
}

Config::PtrConst KelstoreUtil::getSnmpConfig() { return roots().config; }

Zavro::Ptr<Kor::Entity> KelstoreUtil::getEntityRelative(std::string_view path) {
  return roots().root ? Kor::entityAt(*roots().root, path) : nullptr;
}

std::string KelstoreUtil::absolutePath(std::string_view path) {
  return fmt::format("/{}/{}", roots().config ? roots().config->sysname() : "", path);
}

void registerMibContext(const std::string& context, const std::string& module) {
  mibContexts().emplace(context, module);
}

void unregisterMibContext(const std::string& context, const std::string& module) {
  mibContexts().erase({context, module});
}

bool mibContextRegistered(const std::string& context, const std::string& module) {
  return mibContexts().contains({context, module});
}

}  // namespace Snmp
