#include "mib-state/TrelMib.h"

namespace TrelSnmp {
namespace {

template <class... Tables>
struct Description {
  static Kor::Type type() {
    Kor::TypeBuilder<TrelMib> type("TrelSnmp::TrelMib");
    type.attribute("name", &TrelMib::name);
    (type.attribute(PublishedTable<Tables>::kName,
                    [](const TrelMib& mib) { return mib.of<Tables>().table().size(); }),
     ...);
    (type.operation(PublishedTable<Tables>::kName + std::string("DelAll"),
                    [](TrelMib& mib) { mib.of<Tables>().delAll(); }),
     ...);
    return type.build();
  }
};

}  // namespace

const Kor::Type& TrelMib::type() {
  static const Kor::Type type = TablesIn<Description>::type();
  return type;
}

Zavro::Ptr<TrelMib> trelMibFactory(const Kor::String& name) { return Zavro::makePtr<TrelMib>(name); }

}  // namespace TrelSnmp
