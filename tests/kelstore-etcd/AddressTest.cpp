// Addresses of stores: every accepted form, and the error line for anything else.
#include "kelstore/etcd/Address.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "runtime/Errors.h"

namespace Kelstore::Etcd {
namespace {

using testing::ElementsAre;

std::string fault(const std::string& text) { return Runtime::textOf(parseAddress(text).status()); }

TEST(EtcdAddressTest, EndpointsAndPrefix) {
  Address address = *parseAddress("switch-1.example:2379/trel");
  EXPECT_THAT(address.endpoints, ElementsAre("switch-1.example:2379"));
  EXPECT_EQ(address.prefix, "trel");
  address = *parseAddress("10.0.0.1:2379,h:1,[fe80::1]:65535/trel/lab");
  EXPECT_THAT(address.endpoints, ElementsAre("10.0.0.1:2379", "h:1", "[fe80::1]:65535"));
  EXPECT_EQ(address.prefix, "trel/lab");
  EXPECT_EQ(address.text(), "10.0.0.1:2379,h:1,[fe80::1]:65535/trel/lab");
}

TEST(EtcdAddressTest, PrefixIsAsWritten_ButForSlashesAtItsEnd) {
  EXPECT_EQ(parseAddress("h:1/trel/")->prefix, "trel");
  EXPECT_EQ(parseAddress("h:1//trel")->prefix, "/trel");
  EXPECT_EQ(parseAddress("h:1//trel//")->prefix, "/trel");
  EXPECT_EQ(parseAddress("h:1/a:b,c//d %2F")->prefix, "a:b,c//d %2F");
}

TEST(EtcdAddressTest, WithoutPrefixOrEndpoints) {
  constexpr const char* kForm = "expected HOST:PORT[,HOST:PORT...]/PREFIX";
  for (const char* text : {"", "h:2379", "/trel", "//trel"}) {
    EXPECT_EQ(fault(text), std::string("found \"") + text + "\", " + kForm);
  }
  for (const char* text : {"h:1/", "h:1//", "h:1///"}) {
    EXPECT_EQ(fault(text),
              std::string("found \"") + text + "\", " + kForm + " with a prefix that is not empty");
  }
  EXPECT_EQ(fault("h:1/a\nb"), std::string("found \"h:1/a\\x0ab\", ") + kForm + " in plain UTF-8 text");
  EXPECT_THAT(fault("h:1/\xff"), testing::EndsWith(" in plain UTF-8 text"));
}

TEST(EtcdAddressTest, EachEndpointNeedsAHostAndAPort) {
  EXPECT_EQ(fault("h/p"), "found \"h\", expected HOST:PORT");
  EXPECT_EQ(fault(":1/p"), "found \":1\", expected HOST:PORT");
  EXPECT_EQ(fault("h:1,/p"), "found \"\", expected HOST:PORT");
  EXPECT_EQ(fault(",h:1/p"), "found \"\", expected HOST:PORT");
  EXPECT_EQ(fault("h:1,,i:2/p"), "found \"\", expected HOST:PORT");
  EXPECT_EQ(fault("a b:1/p"), "found \"a b:1\", expected HOST:PORT");
  EXPECT_EQ(fault("user@h:1/p"), "found \"user@h:1\", expected HOST:PORT");
  EXPECT_EQ(fault("[x]:1/p"), "found \"[x]:1\", expected HOST:PORT");
  EXPECT_EQ(fault("[]:1/p"), "found \"[]:1\", expected HOST:PORT");
  for (const char* zoned : {"[fe80::1%eth0]:2379", "[fe80::1%25eth0]:2379", "fe80::1%eth0:2379"}) {
    EXPECT_EQ(fault(std::string(zoned) + "/p"),
              fmt::format("found \"{}\", expected HOST:PORT without a zone: a link-local address does not do",
                          zoned));
  }
  // A URL is not what is wanted here; its scheme takes the place of an endpoint.
  EXPECT_EQ(fault("http://h:1/p"), "found \"http:\", expected HOST:PORT with a port of 1 to 65535");
  EXPECT_EQ(fault("::1:2379/p"),
            "found \"::1:2379\", expected HOST:PORT with an IPv6 address in brackets, such as [::1]:2379");
}

TEST(EtcdAddressTest, PortsAreNumbersFrom1To65535) {
  for (const char* port : {"", "0", "65536", "-1", "+1", "1x", " 1", "99999999999"}) {
    EXPECT_EQ(fault(std::string("h:") + port + "/p"),
              std::string("found \"h:") + port + "\", expected HOST:PORT with a port of 1 to 65535");
  }
  EXPECT_EQ(fault("h:65535/p"), "");
}

TEST(EtcdAddressTest, AStoresNameBeginsWithItsScheme) {
  EXPECT_EQ(parseStore("etcd:h:1,i:2//p")->text(), "h:1,i:2//p");
  for (const char* name : {"", "h:1/p", "etcd", "ETCD:h:1/p", "file:/x", " etcd:h:1/p"}) {
    EXPECT_EQ(Runtime::textOf(parseStore(name).status()),
              fmt::format("found \"{}\", expected etcd:HOST:PORT[,HOST:PORT...]/PREFIX", name));
  }
  EXPECT_EQ(Runtime::textOf(parseStore("etcd:h/p").status()), "found \"h\", expected HOST:PORT");
}

}  // namespace
}  // namespace Kelstore::Etcd
