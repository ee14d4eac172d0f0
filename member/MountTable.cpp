#include "member/MountTable.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <libmount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <memory>
#include <string_view>
#include <tuple>

#include "runtime/Errors.h"
#include "runtime/File.h"

namespace Member {
namespace {

struct Free {
  void operator()(libmnt_table* table) const { mnt_unref_table(table); }
  void operator()(libmnt_iter* iterator) const { mnt_free_iter(iterator); }
};

template <size_t kCount>
bool isOneOf(std::string_view text, const std::array<std::string_view, kCount>& choices) {
  return std::find(choices.begin(), choices.end(), text) != choices.end();
}

std::string_view textOf(const char* text) { return text == nullptr ? "" : text; }

// File systems that hold data, although libmount counts them among the views of the kernel.
constexpr std::array<std::string_view, 3> kHoldsData = {"overlay", "tmpfs", "virtiofs"};
// Of those without a device that the kernel knows: those whose data is on one, or on the host's.
constexpr std::array<std::string_view, 5> kStoresWithoutDevice = {"bcachefs", "btrfs", "ubifs", "virtiofs",
                                                                  "zfs"};
constexpr int kOwnComponents = 2;
constexpr std::array<std::string_view, 2> kCompactDiscs = {"iso9660", "udf"};
constexpr std::array<std::string_view, 3> kFlashMemory = {"jffs2", "ubifs", "yaffs2"};

bool isBelow(std::string_view path, std::string_view directory) {
  return path.starts_with(directory) && (path.size() == directory.size() || path[directory.size()] == '/');
}

// Whether it is the machine's, and no container's or session's.
bool isOwn(libmnt_fs* fs) {
  std::string_view target = textOf(mnt_fs_get_target(fs));
  bool hasStore = major(mnt_fs_get_devno(fs)) != 0 || mnt_fs_is_netfs(fs) != 0 ||
                  isOneOf(textOf(mnt_fs_get_fstype(fs)), kStoresWithoutDevice);
  return hasStore || std::count(target.begin(), target.end(), '/') <= kOwnComponents;
}

bool holdsData(libmnt_fs* fs) {
  std::string_view target = textOf(mnt_fs_get_target(fs));
  std::string_view type = textOf(mnt_fs_get_fstype(fs));
  if (target.empty() || isBelow(target, "/proc") || isBelow(target, "/sys")) return false;
  if (target == "/dev") return false;  // a tmpfs in containers and sandboxes
  return (isOneOf(type, kHoldsData) || mnt_fs_is_pseudofs(fs) == 0) && isOwn(fs);
}

// Such as /etc/resolv.conf in a container. Only a part of a file system can be one. What is asked is in the
// kernel's memory; a server is not asked.
bool isFile(libmnt_fs* fs, const std::string& root) {
  if (textOf(mnt_fs_get_root(fs)) == "/" || mnt_fs_is_netfs(fs) != 0) return false;
  std::string point = root + std::string(textOf(mnt_fs_get_target(fs)));
  struct statx about {};
  int flags = AT_NO_AUTOMOUNT | AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC;
  return statx(AT_FDCWD, point.c_str(), flags, STATX_TYPE, &about) == 0 && !S_ISDIR(about.stx_mode);
}

// What counts once: a device, of which btrfs has one for all its subvolumes, or a pool of zfs.
std::string storeOf(libmnt_fs* fs) {
  dev_t device = mnt_fs_get_devno(fs);
  if (textOf(mnt_fs_get_fstype(fs)) != "zfs") return fmt::format("{}:{}", major(device), minor(device));
  std::string_view dataset = textOf(mnt_fs_get_source(fs));
  return std::string(dataset.substr(0, dataset.find('/')));
}

// Whether the device is removable, or the disk of which it is a partition.
bool isRemovable(dev_t device, const std::string& sys) {
  if (major(device) == 0) return false;
  std::string block = fmt::format("{}/dev/block/{}:{}", sys, major(device), minor(device));
  for (const char* file : {"/removable", "/../removable"}) {
    if (std::ifstream(block + file).get() == '1') return true;
  }
  return false;
}

MountKind kindOf(libmnt_fs* fs, const std::string& sys) {
  std::string_view type = textOf(mnt_fs_get_fstype(fs));
  if (mnt_fs_is_netfs(fs) != 0) return MountKind::networkDisk;
  if (type == "tmpfs") return MountKind::ramDisk;
  if (isOneOf(type, kCompactDiscs)) return MountKind::compactDisc;
  if (isOneOf(type, kFlashMemory)) return MountKind::flashMemory;
  return isRemovable(mnt_fs_get_devno(fs), sys) ? MountKind::removableDisk : MountKind::fixedDisk;
}

// One line of the table.
struct Line {
  Mount mount;
  size_t rootLength;  // of the path that is mounted, within the file system
};

// By mount point: a later mount covers the ones before. Without automounts.
std::map<std::string, libmnt_fs*> topmost(libmnt_table* table) {
  std::map<std::string, libmnt_fs*> byTarget;
  std::vector<std::string_view> triggers;
  std::unique_ptr<libmnt_iter, Free> at(mnt_new_iter(MNT_ITER_FORWARD));
  libmnt_fs* fs = nullptr;
  while (mnt_table_next_fs(table, at.get(), &fs) == 0) {
    std::string_view target = textOf(mnt_fs_get_target(fs));
    if (textOf(mnt_fs_get_fstype(fs)) == "autofs") triggers.push_back(target);
    byTarget[std::string(target)] = fs;
  }
  std::erase_if(byTarget, [&](const auto& entry) {
    return std::any_of(triggers.begin(), triggers.end(),
                       [&](std::string_view trigger) { return isBelow(entry.first, trigger); });
  });
  return byTarget;
}

bool ranksBefore(const Line& a, const Line& b) {
  auto rank = [](const Line& line) {
    return std::tuple(line.mount.point != "/", line.rootLength, line.mount.id);
  };
  return rank(a) < rank(b);
}

// The kernel's id of the mount that an open file is on; 0 if it is not known.
uint64_t mountIdOf(int file) {
  std::ifstream info(fmt::format("/proc/self/fdinfo/{}", file));
  for (std::string name; info >> name;) {
    uint64_t id = 0;
    if (name == "mnt_id:" && info >> id) return id;
  }
  return 0;
}

}  // namespace

absl::StatusOr<std::vector<Mount>> realMounts(const std::string& mountInfo, const std::string& sys,
                                              const std::string& root) {
  std::unique_ptr<libmnt_table, Free> table(mnt_new_table());
  if (!table) return Runtime::errorOf(mountInfo, ENOMEM);
  int result = mnt_table_parse_file(table.get(), mountInfo.c_str());
  if (result != 0) return Runtime::errorOf(mountInfo, -result);
  std::map<std::string, Line> byStore;
  for (const auto& [target, fs] : topmost(table.get())) {
    if (!holdsData(fs) || isFile(fs, root)) continue;
    Line line{{target, kindOf(fs, sys), static_cast<uint64_t>(mnt_fs_get_id(fs))},
              textOf(mnt_fs_get_root(fs)).size()};
    auto [other, first] = byStore.try_emplace(storeOf(fs), line);
    if (!first && ranksBefore(line, other->second)) other->second = line;
  }
  std::vector<Mount> mounts;
  for (auto& [store, line] : byStore) mounts.push_back(std::move(line.mount));
  std::sort(mounts.begin(), mounts.end(), [](const Mount& a, const Mount& b) { return a.point < b.point; });
  return mounts;
}

// By now the mount point may be gone, belong to another file system, or be covered by another mount.
absl::StatusOr<Room> roomOf(const Mount& mount) {
  Runtime::Descriptor file(open(mount.point.c_str(), O_PATH | O_CLOEXEC));
  if (!file.opened() && (errno == ENOENT || errno == ENOTDIR)) return Room();
  if (!file.opened()) return Runtime::errorOf(mount.point, errno);
  struct statvfs figures {};
  int result = fstatvfs(file.get(), &figures);
  int error = errno;
  uint64_t id = mountIdOf(file.get());
  if (id != 0 && id != mount.id) return Room();
  if (result != 0) return Runtime::errorOf(mount.point, error);
  return Room{figures.f_frsize, figures.f_blocks, figures.f_bfree};
}

}  // namespace Member
