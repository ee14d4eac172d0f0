#include "kelstore/etcd/Address.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>

#include "runtime/Text.h"

namespace Kelstore::Etcd {
namespace {

constexpr const char* kForm = "HOST:PORT[,HOST:PORT...]/PREFIX";

absl::Status wrong(std::string_view found, std::string_view expected) {
  return absl::InvalidArgumentError(fmt::format("found {}, expected {}", Runtime::inQuotes(found), expected));
}

bool isPort(std::string_view text) {
  uint16_t port = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port != 0;
}

bool isHost(std::string_view text) {
  if (text.starts_with('[')) {
    std::string_view inner = text.substr(1);
    return inner.size() > 2 && inner.back() == ']' &&
           inner.substr(0, inner.size() - 1).find_first_not_of("0123456789abcdefABCDEF:.") ==
               std::string_view::npos;
  }
  auto odd = [](char c) {
    return c <= ' ' || c >= 0x7f || std::string_view(":[]@\"'\\").find(c) != std::string_view::npos;
  };
  return !text.empty() && std::none_of(text.begin(), text.end(), odd);
}

const char* expectedInsteadOf(std::string_view host) {
  bool ipv6 = host.find(':') != std::string_view::npos;
  if (ipv6 && host.find('%') != std::string_view::npos) {
    return "HOST:PORT without a zone: a link-local address does not do";
  }
  if (ipv6 && !host.starts_with('[')) return "HOST:PORT with an IPv6 address in brackets, such as [::1]:2379";
  return "HOST:PORT";
}

absl::Status checkEndpoint(std::string_view text) {
  size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return wrong(text, "HOST:PORT");
  std::string_view host = text.substr(0, colon);
  std::string_view port = text.substr(colon + 1);
  if (!isHost(host)) return wrong(text, expectedInsteadOf(host));
  return isPort(port) ? absl::OkStatus() : wrong(text, "HOST:PORT with a port of 1 to 65535");
}

}  // namespace

std::string Address::text() const { return fmt::format("{}/{}", fmt::join(endpoints, ","), prefix); }

absl::StatusOr<Address> parseAddress(std::string_view text) {
  size_t slash = text.find('/');
  if (slash == std::string_view::npos || slash == 0) return wrong(text, kForm);
  Address address;
  std::string_view endpoints = text.substr(0, slash);
  for (size_t at = 0; at <= endpoints.size();) {
    size_t comma = std::min(endpoints.find(',', at), endpoints.size());
    std::string_view endpoint = endpoints.substr(at, comma - at);
    if (absl::Status status = checkEndpoint(endpoint); !status.ok()) return status;
    address.endpoints.emplace_back(endpoint);
    at = comma + 1;
  }
  std::string_view prefix = text.substr(slash + 1);
  while (prefix.ends_with('/')) prefix.remove_suffix(1);
  if (prefix.empty()) return wrong(text, fmt::format("{} with a prefix that is not empty", kForm));
  if (!Runtime::isPlain(prefix) || !Runtime::isUtf8(prefix))
    return wrong(text, fmt::format("{} in plain UTF-8 text", kForm));
  address.prefix = prefix;
  return address;
}

absl::StatusOr<Address> parseStore(std::string_view name) {
  if (!name.starts_with(kScheme)) return wrong(name, fmt::format("{}{}", kScheme, kForm));
  return parseAddress(name.substr(kScheme.size()));
}

}  // namespace Kelstore::Etcd
