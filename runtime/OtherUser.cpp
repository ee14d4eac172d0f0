#include "runtime/OtherUser.h"

#include <fmt/format.h>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

#include "runtime/Errors.h"
#include "runtime/Text.h"

namespace Runtime {
namespace {

void require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(std::string(errorOf(what, errno).message()));
}

// Of this thread; threads that it starts have the same.
void onlyCapability(unsigned capability, bool permitted) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
  require(syscall(SYS_capget, &header, sets.data()) == 0, "capabilities");
  for (auto& set : sets) {
    set.effective = 0;
    set.inheritable = 0;
    if (permitted) set.permitted = 0;
  }
  auto& set = sets[CAP_TO_INDEX(capability)];
  set.effective = CAP_TO_MASK(capability);
  if (permitted) set.permitted = CAP_TO_MASK(capability);
  require(syscall(SYS_capset, &header, sets.data()) == 0, "capabilities");
}

const passwd& userOf(const std::string& name) {
  if (geteuid() != 0) {
    throw std::runtime_error(fmt::format("found the user {}, expected root, who may be others", geteuid()));
  }
  const passwd* user = getpwnam(name.c_str());
  if (user == nullptr)
    throw std::runtime_error(fmt::format("found {}, expected a user of this machine", inQuotes(name)));
  if (user->pw_uid == 0)
    throw std::runtime_error(fmt::format("found {}, expected a user other than root", inQuotes(name)));
  return *user;
}

}  // namespace

OtherUser::OtherUser(const std::string& name, unsigned capability, const std::vector<Directory>& directories)
    : capability_(capability) {
  const passwd& user = userOf(name);
  user_ = user.pw_uid;
  const gid_t group = user.pw_gid;
  for (const Directory& one : directories) {
    bool made = mkdir(one.path.c_str(), one.mode) == 0;
    require(made || errno == EEXIST, one.path);
    if (made) require(lchown(one.path.c_str(), user_, group) == 0, one.path);
  }
  require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "no new privileges");
  require(initgroups(name.c_str(), group) == 0, "groups");
  require(setresgid(group, group, group) == 0, "group");
  // Root stays as the saved user: the capability may be raised, and all of it goes with forGood().
  require(setresuid(user_, user_, 0) == 0, "user");
  onlyCapability(capability_, /*permitted=*/false);
}

void OtherUser::forGood(Keep keep) const {
  bool kept = keep == Keep::capability;
  if (kept) require(prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) == 0, "capabilities");
  require(setresuid(user_, user_, user_) == 0, "user");
  if (kept) onlyCapability(capability_, /*permitted=*/true);
}

}  // namespace Runtime
