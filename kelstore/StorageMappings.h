// Changes of storage mappings, around the records whose rows of the storage table stand on them.
//
// Those who make rows look a record's mapping up when the record changes, and do not follow the mappings. So
// a mapping changes together with the records concerned: a record whose row's index goes or becomes another
// one is taken away before, so that its row goes under the old index; and every record concerned comes back
// after, as a new one, so that its row appears under the new index, or with the new type and description.
#pragma once

#include <cstdint>
#include <string>

#include "kelstore/Schema.h"
#include "platform/hostresources/StorageEntryMappings.h"
#include "platform/kor/Dir.h"

namespace Kelstore {

// The mapping of a mount point or a kind of memory is this one from now on; null: there is none. Nothing
// happens when that is so already. `hosts` holds HostResources::HostResources.
void mountMappingIs(HostResourcesMib::StorageEntryMappings& mappings, const Kor::Dir& hosts,
                    const std::string& mountPoint, const Mapping* mapping);
void memoryMappingIs(HostResourcesMib::StorageEntryMappings& mappings, const Kor::Dir& hosts, int32_t memory,
                     const Mapping* mapping);

}  // namespace Kelstore
