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
#include <cstring>
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

std::vector<Account> accountsOf(const Etcd::Address& address, const InitOptions& what) {
  Etcd::KeySpace keys(address.prefix);
  std::string cluster = address.prefix;
  std::replace(cluster.begin(), cluster.end(), '/', '-');
  std::vector<Account> accounts{{cluster + "-agent", {}}};
  for (uint8_t member : what.members) {
    std::string number = std::to_string(member);
    std::string interfaces = what.interfaces;
    if (size_t at = interfaces.find('%'); at != std::string::npos) interfaces.replace(at, 1, number);
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

std::string withError(const std::string& file) { return fmt::format("{}: {}", file, std::strerror(errno)); }

// A file of its owner's only, that was not there.
void writeNew(const std::string& file, const std::string& text) {
  Runtime::Descriptor written(open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!written.opened()) throw Unusable(withError(file));
  if (::write(written.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
      fsync(written.get()) != 0) {
    std::string error = withError(file);
    unlink(file.c_str());
    throw Unusable(error);
  }
}

class Init final {
 public:
  Init(const StoreOptions& options, const InitOptions& what)
      : address_(*Etcd::parseStore(options.store)),
        what_(what),
        all_(Etcd::KeySpace(address_.prefix).all()),
        calls_(Etcd::driver().calls(address_, options.access)) {}

  void run() {
    if (!what_.credentials.empty() && what_.run == Run::wet && mkdir(what_.credentials.c_str(), 0700) != 0 &&
        errno != EEXIST) {
      throw Unusable(withError(what_.credentials));
    }
    for (const Account& account : accountsOf(address_, what_)) add(account);
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
      password = known->password;
    } else {
      password = newPassword();
      writeNew(file, nlohmann::json{{"user", name}, {"password", password}}.dump() + "\n");
    }
    absl::Status added = calls_->addUser(name, password);
    if (absl::IsAlreadyExists(added) && !there) {
      unlink(file.c_str());
      return "; the user is there already, with a password that is not known here";
    }
    done(added);
    return fmt::format("; its password is in {}", file);
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
