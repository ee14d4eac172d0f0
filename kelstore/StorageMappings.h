// Changes of storage mappings, each together with the records whose rows use the mapping.
//
// Pipelines look up a record's mapping when the record changes; they do not follow mappings. So a record
// whose row loses its index is removed before the mapping changes, and its row goes under the old index.
// After the change every record concerned is set again, as a new one, and its row appears with the new index,
// type and description. On the event loop's thread.
#pragma once

#include <cstdint>
#include <string>

#include "kelstore/Schema.h"
#include "platform/hostresources/StorageEntryMappings.h"
#include "platform/kor/Dir.h"

namespace Kelstore {

// Sets the mapping of a mount point or of a kind of memory; null removes it. An unchanged mapping has no
// effect. hosts: a directory of HostResources::HostResources.
void mountMappingIs(HostResourcesMib::StorageEntryMappings& mappings, const Kor::Dir& hosts,
                    const std::string& mountPoint, const Mapping* mapping);
void memoryMappingIs(HostResourcesMib::StorageEntryMappings& mappings, const Kor::Dir& hosts, int32_t memory,
                     const Mapping* mapping);

}  // namespace Kelstore
