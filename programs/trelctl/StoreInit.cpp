#include "programs/trelctl/StoreInit.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "kelstore/etcd/AccessFiles.h"
#include "kelstore/etcd/Address.h"
#include "kelstore/etcd/Driver.h"
#include "runtime/Errors.h"
#include "runtime/File.h"
#include "runtime/Text.h"

namespace TrelCtl {
namespace {

namespace Etcd = Kelstore::Etcd;

constexpr const char* kRoot = "root";  // etcd's name for who may do everything

// One user, and the role of the same name.
struct Account {
  std::string name;
  std::vector<Etcd::KeyRange> writes;
};

// All keys that begin with this text.
Etcd::KeyRange beginningWith(const std::string& text) {
  std::string end = text;
  ++end.back();
  return {text, end};
}

// What the names of a cluster's users begin with. "/" has no place in a certificate's name or a file's; no
// two prefixes give the same.
std::string clusterOf(const std::string& prefix) {
  for (const char* twofold : {"--", "-/", "/-"}) {
    if (prefix.find(twofold) == std::string::npos) continue;
    throw Unusable(fmt::format(
        "--store: found prefix {}, expected one with single \"-\" that are not beside a \"/\", as users are "
        "named after it with \"--\" for each \"/\"",
        Runtime::inQuotes(prefix)));
  }
  std::string cluster;
  for (char c : prefix) cluster += c == '/' ? "--" : std::string(1, c);
  return cluster;
}

// Otherwise members 1 and 10 would share names.
void checkInterfaces(const std::string& interfaces) {
  size_t at = interfaces.find('%');
  bool own = at != std::string::npos;
  for (; own && at != std::string::npos; at = interfaces.find('%', at + 1)) {
    own = at + 1 < interfaces.size() && interfaces[at + 1] != '%' &&
          (interfaces[at + 1] < '0' || interfaces[at + 1] > '9');
  }
  if (own) return;
  throw Unusable(fmt::format(
      "--interfaces: found {}, expected % with a character that is no digit behind it, such as Backplane%/: "
      "each member writes only what begins so with its own number",
      Runtime::inQuotes(interfaces)));
}

std::string interfacesOf(const std::string& interfaces, const std::string& member) {
  std::string own;
  for (char c : interfaces) own += c == '%' ? member : std::string(1, c);
  return own;
}

std::vector<Account> accountsOf(const Etcd::Address& address, const InitOptions& what) {
  Etcd::KeySpace keys(address.prefix);
  std::string cluster = clusterOf(address.prefix);
  checkInterfaces(what.interfaces);
  std::vector<Account> accounts{{cluster + "-agent", {}}};
  for (uint8_t member : what.members) {
    std::string number = std::to_string(member);
    std::string interfaces = interfacesOf(what.interfaces, number);
    accounts.push_back({fmt::format("{}-member-{}", cluster, member),
                        {keys.below(std::vector<std::string>{"members", number}),
                         keys.below(std::vector<std::string>{"topology", number}),
                         beginningWith(keys.key(std::vector<std::string>{"interfaces", interfaces}))}});
  }
  return accounts;
}

std::string newPassword() {
  std::array<unsigned char, 24> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw StoreFailed("the system has no random numbers");
  }
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

class Init final {
 public:
  Init(const StoreOptions& options, const InitOptions& what)
      : address_(*Etcd::parseStore(options.store)),
        access_(options.access),
        what_(what),
        all_(Etcd::KeySpace(address_.prefix).all()),
        calls_(Etcd::driver().calls(address_, options.access)) {}

  void run() {
    std::vector<Account> accounts = accountsOf(address_, what_);
    if (!what_.credentials.empty() && what_.run == Run::wet && mkdir(what_.credentials.c_str(), 0700) != 0 &&
        errno != EEXIST) {
      orUnusable(what_.credentials, Runtime::systemError(errno));
    }
    for (const Account& account : accounts) add(account);
    if (what_.enable) enable();
  }

 private:
  void add(const Account& account) {
    std::vector<std::string> writes;
    for (const Etcd::KeyRange& keys : account.writes) writes.push_back(keys.first + "*");
    std::string user = addUser(account.name);
    fmt::print("{}: reads {}*, writes {}{}\n", account.name, all_.first,
               writes.empty() ? "nothing" : fmt::format("{}", fmt::join(writes, " ")), user);
    if (what_.run == Run::dry) return;
    done(calls_->addRole(account.name));
    done(calls_->grantKeys(account.name, all_, Etcd::Right::read));
    for (const Etcd::KeyRange& keys : account.writes) {
      done(calls_->grantKeys(account.name, keys, Etcd::Right::readAndWrite));
    }
    done(calls_->grantRole(account.name, account.name));
  }

  // What is to be said of its password.
  std::string addUser(const std::string& name) {
    if (what_.credentials.empty()) {
      if (what_.run == Run::wet) done(calls_->addUser(name, ""));
      return "";
    }
    std::string file = (std::filesystem::path(what_.credentials) / (name + ".json")).string();
    bool there = std::filesystem::exists(file);
    if (what_.run == Run::dry) return fmt::format("; its password {} in {}", there ? "is" : "would be", file);
    std::string password;
    if (there) {
      // Of an earlier run, which may not have come to the user.
      auto known = Etcd::readCredentials({.credentialsFile = file});
      if (!known.ok()) throw Unusable(Runtime::textOf(known.status()));
      if (known->user != name) {
        throw Unusable(fmt::format("{}: found user {}, expected {}: move the file away", file,
                                   Runtime::inQuotes(known->user), Runtime::inQuotes(name)));
      }
      password = known->password;
    } else {
      password = newPassword();
      orUnusable(file, Runtime::writeNewFile(
                           file, nlohmann::json{{"user", name}, {"password", password}}.dump() + "\n", 0600));
    }
    absl::Status added = calls_->addUser(name, password);
    if (absl::IsAlreadyExists(added) && !there) {
      unlink(file.c_str());
      return "; the user is there already, with a password that is not known here";
    }
    done(added);
    bool certain = added.ok() || loggedIn(name, file);
    if (!certain && name == kRoot) {
      throw StoreFailed(fmt::format(
          "user root is there already, and whether its password is that of {} cannot be told before "
          "the servers ask who it is; nobody might be root then, so they were not told to: set it by "
          "\"etcdctl user delete root\", and run this again",
          file));
    }
    return fmt::format("; its password is in {}{}", file,
                       certain ? "" : ", if it was not changed: the servers do not tell yet");
  }

  // Whether the user has that password; false: servers that do not ask cannot tell. Throws StoreFailed when
  // it has another.
  bool loggedIn(const std::string& name, const std::string& file) {
    Etcd::Access access = access_;
    access.credentialsFile = file;
    auto calls = Etcd::driver().calls(address_, access);
    // A key that is none of the cluster's: of those who have logged in only root may read it.
    absl::Status read = calls->range({address_.prefix, ""}).status();
    if (absl::IsUnauthenticated(read)) {
      throw StoreFailed(
          fmt::format("{}; the user has another password there: set this one by etcdctl user "
                      "passwd {}, or move the file away",
                      Runtime::textOf(read), name));
    }
    if (absl::IsPermissionDenied(read)) return true;
    done(read);
    return name == kRoot && serversAsk();
  }

  // Whether they refuse who has no name. Who is known by a certificate is not refused.
  bool serversAsk() {
    Etcd::Access nobody = access_;
    nobody.credentialsFile.clear();
    return !Etcd::driver().calls(address_, nobody)->range({address_.prefix, ""}).ok();
  }

  void enable() {
    std::string user = addUser(kRoot);
    fmt::print("{}: everything{}\n", kRoot, user);
    if (what_.run == Run::dry) return;
    done(calls_->addRole(kRoot));
    done(calls_->grantRole(kRoot, kRoot));
    done(calls_->askWhoItIs());
    fmt::print("The servers ask from now on who it is.\n");
  }

  static void done(const absl::Status& status) {
    if (!status.ok() && !absl::IsAlreadyExists(status)) throw StoreFailed(Runtime::textOf(status));
  }

  const Etcd::Address address_;
  const Etcd::Access access_;
  const InitOptions& what_;
  const Etcd::KeyRange all_;
  std::unique_ptr<Etcd::Calls> calls_;
};

}  // namespace

std::vector<uint8_t> membersOf(const std::string& text) {
  std::vector<uint8_t> members;
  auto unusable = [&text] {
    return std::invalid_argument(
        fmt::format("found {}, expected numbers from 0 to 255, such as 1-20,30", Runtime::inQuotes(text)));
  };
  auto number = [&unusable](std::string_view digits) {
    uint8_t value = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size()) throw unusable();
    return value;
  };
  std::string_view rest = text;
  while (true) {
    std::string_view part = rest.substr(0, rest.find(','));
    size_t dash = part.find('-');
    unsigned first = number(part.substr(0, dash));
    unsigned last = dash == std::string_view::npos ? first : number(part.substr(dash + 1));
    if (first > last) throw unusable();
    for (; first <= last; ++first) members.push_back(static_cast<uint8_t>(first));
    if (part.size() == rest.size()) return members;
    rest.remove_prefix(part.size() + 1);
  }
}

void initStore(const StoreOptions& options, const InitOptions& what) {
  if (what.enable && what.credentials.empty() && options.access.certFile.empty()) {
    throw Unusable(
        "--enable: expected --credentials with it, where the password of root is written, or --etcd-cert "
        "with a "
        "certificate of root's");
  }
  Init(options, what).run();
}

}  // namespace TrelCtl
