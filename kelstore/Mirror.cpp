#include "kelstore/Mirror.h"

namespace Kelstore {

Mirror::Mirror()
    : entities_{Zavro::makePtr<Kor::Dir>("reachability"),
                Zavro::makePtr<Kor::Dir>("hostResources"),
                Zavro::makePtr<IntfSnmp::IfMib>("ifMib"),
                Zavro::makePtr<Trel::TopologyConfig>("topologyConfig"),
                boost::static_pointer_cast<HostResourcesMib::StorageEntryMappings>(
                    Kor::Entity::singletonIs(HostResourcesMib::StorageEntryMappings::kTypeName)),
                {},
                {},
                {},
                {},
                {}} {}

}  // namespace Kelstore
