// The commands that read and write a cluster's store: put, del, get, import, export.
//
// What goes wrong is thrown: Unusable for arguments and documents, StoreFailed for the store. What is odd,
// but keeps nothing from being done, is one line each on standard error.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "kelstore/etcd/Access.h"

namespace TrelCtl {

// The lines say what is wrong with an argument or a document; nothing was written.
class Unusable final : public std::runtime_error {
 public:
  explicit Unusable(const std::string& line) : Unusable(std::vector<std::string>{line}) {}
  explicit Unusable(std::vector<std::string> lines)
      : runtime_error(lines.front()), lines_(std::move(lines)) {}
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::vector<std::string> lines_;
};

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

// A path is spelt as in a key: "members/1/storage/%2Fvar%2Flog".
void put(const StoreOptions& options, const std::string& path, const std::string& json);
// What is at the path, or below it.
void del(const StoreOptions& options, const std::string& path);
// Prints the document of what is at the path or below it; an empty path is the root.
void get(const StoreOptions& options, const std::string& path);
// Makes the store hold what the document says; with `replace`, and nothing else. "-" is standard input.
void importFrom(const StoreOptions& options, const std::string& file, bool replace);
// Writes all of the store as a document, to standard output when the file is empty or "-".
void exportTo(const StoreOptions& options, const std::string& file);

}  // namespace TrelCtl
