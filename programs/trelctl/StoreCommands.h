// The commands that read and write a cluster's store: put, del, get, import, export.
//
// Errors are thrown: Unusable for arguments and documents, StoreFailed for the store. Warnings are one line
// each on standard error.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "kelstore/etcd/Access.h"
#include "programs/trelctl/Unusable.h"

namespace TrelCtl {

// The store cannot be reached, refuses, or does not have what was asked for. One line.
class StoreFailed final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct StoreOptions {
  std::string store;  // "etcd:HOST:PORT[,HOST:PORT...]/PREFIX"
  Kelstore::Etcd::Access access;
};

// Throws std::invalid_argument.
void checkStore(const std::string& store);

// What is done with a value without a lease below a member that publishes under one: it would stay when the
// member is gone.
enum class WithoutLease : uint8_t { refused, written };
// Writes one value. Paths are spelt as in a key: "members/1/storage/%2Fvar%2Flog".
void put(const StoreOptions& options, const std::string& path, const std::string& json, WithoutLease how);

// Whether changes are made, or printed only.
enum class Run : uint8_t { wet, dry };
// Deletes what is at the path or below it.
void del(const StoreOptions& options, const std::string& path, Run run);

struct ForgetOptions {
  Run run = Run::wet;
  bool confirmed = false;  // otherwise the terminal is asked
  bool force = false;      // also when the member's lease lives
};
// Deletes what the member has published: its own keys, and the interfaces that no other member names.
void forget(const StoreOptions& options, uint8_t member, const ForgetOptions& how);

// Prints what is at the path or below it as a document. An empty path is all of the state.
void get(const StoreOptions& options, const std::string& path);
struct ImportOptions {
  // What is done with values that members publish themselves. Written here they have no lease, and stay when
  // the member is gone.
  enum class OfMembers : uint8_t { refused, leftOut, written };
  OfMembers ofMembers = OfMembers::refused;
  // Also deletes values that the document does not have; those of members only if they are written.
  bool replace = false;
  Run run = Run::wet;
};
// Writes the document's values. "-" is standard input.
void importFrom(const StoreOptions& options, const std::string& file, const ImportOptions& how);
// Writes all of the state as a document to the file; empty or "-" is standard output.
void exportTo(const StoreOptions& options, const std::string& file);

}  // namespace TrelCtl
