// Where a store is: the servers of an etcd cluster, and the prefix of our keys.
#pragma once

#include <absl/status/statusor.h>

#include <string>
#include <string_view>
#include <vector>

namespace Kelstore::Etcd {

inline constexpr std::string_view kScheme = "etcd:";  // what a store's name begins with

struct Address {
  std::vector<std::string> endpoints;  // "host:port", "[::1]:port"; never empty
  std::string prefix;                  // not empty, does not end in "/"

  // The text that parseAddress() accepts.
  std::string text() const;
};

// Parses `HOST:PORT[,HOST:PORT...]/PREFIX`; an IPv6 address is in brackets. The prefix is all that follows
// the first slash, without slashes at its end: with `h:2379/trel` a key is `trel/members/1/system`, with
// `h:2379//trel` it is `/trel/members/1/system`. An error says what was found and what was expected.
absl::StatusOr<Address> parseAddress(std::string_view text);

// The same for `etcd:HOST:PORT[,HOST:PORT...]/PREFIX`.
absl::StatusOr<Address> parseStore(std::string_view name);

}  // namespace Kelstore::Etcd
