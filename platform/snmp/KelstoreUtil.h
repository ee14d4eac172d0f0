// Where SNMP modules find the agent's configuration and the entity that they serve.
#pragma once

#include <string>
#include <string_view>

#include "platform/kor/Dir.h"

namespace Snmp {

// The SNMP agent's configuration, as far as modules need it.
class Config final : public Kor::Entity {
 public:
  using PtrConst = Zavro::Ptr<const Config>;
  explicit Config(Kor::String sysname) : Entity("snmpConfig"), sysname_(std::move(sysname)) {}
  const Kor::String& sysname() const { return sysname_; }
  static const Kor::Type& type();
  const Kor::Type& korType() const override { return type(); }

 private:
  Kor::String sysname_;
};

class KelstoreUtil {
 public:
  // Sets the root of the state database and the configuration; null releases them. The host calls this before
  // it reports the SNMP agent as initialised.
  static void rootIs(Zavro::Ptr<const Kor::Dir> root, Config::PtrConst config);

  static Config::PtrConst getSnmpConfig();
  // The entity at a path relative to the system's root, such as "snmp/trel/trelMib", or null.
  static Zavro::Ptr<Kor::Entity> getEntityRelative(std::string_view path);
  // The absolute form of a relative path, "/<sysname>/snmp/trel/trelMib".
  static std::string absolutePath(std::string_view path);
};

// The SNMP contexts in which each module was initialised. Modules maintain this themselves.
void registerMibContext(const std::string& context, const std::string& module);
void unregisterMibContext(const std::string& context, const std::string& module);
bool mibContextRegistered(const std::string& context, const std::string& module);

}  // namespace Snmp
