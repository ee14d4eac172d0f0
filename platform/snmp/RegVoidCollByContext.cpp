#include "platform/snmp/RegVoidCollByContext.h"

namespace Snmp {
namespace {

[[maybe_unused]] const bool registered = [] {
  Kor::Entity::singletonTypeIs(RegVoidCollByContext::kTypeName,
                               [] { return Zavro::makePtr<RegVoidCollByContext>(); });
  return true;
}();

}  // namespace

Zavro::Ptr<RegVoidCollByContext> RegVoidCollByContext::singleton() {
  return boost::static_pointer_cast<RegVoidCollByContext>(singletonIs(kTypeName));
}

RegVoid* RegVoidCollByContext::addRegVoid(const std::string& context, const std::string& table,
                                          Zavro::Ptr<Kor::Entity> object) {
  auto& record = records_[{context, table}];
  record = std::make_unique<RegVoid>(std::move(object));
  return record.get();
}

RegVoid* RegVoidCollByContext::regVoid(const std::string& context, const std::string& table) {
  auto found = records_.find({context, table});
  return found == records_.end() ? nullptr : found->second.get();
}

void RegVoidCollByContext::delRegVoid(const std::string& context, const std::string& table) {
  records_.erase({context, table});
}

const Kor::Type& RegVoidCollByContext::type() {
  static const Kor::Type type = Kor::TypeBuilder<RegVoidCollByContext>(kTypeName)
                                    .attribute("name", &RegVoidCollByContext::name)
                                    .attribute("regVoid", &RegVoidCollByContext::size)
                                    .build();
  return type;
}

}  // namespace Snmp
