// Which mounts count, out of tables that the test made, and how much room this machine's have.
#include "member/MountTable.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/statvfs.h>

#include <filesystem>

#include "tests/support/TempDir.h"

namespace Member {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char* nameOf(MountKind kind) {
  switch (kind) {
    case MountKind::fixedDisk:
      return "fixed";
    case MountKind::removableDisk:
      return "removable";
    case MountKind::compactDisc:
      return "disc";
    case MountKind::ramDisk:
      return "ram";
    case MountKind::flashMemory:
      return "flash";
    case MountKind::networkDisk:
      break;
  }
  return "network";
}

class MountTableTest : public testing::Test {
 public:
  // A mount of the whole of a device, or a part of it, in the form of /proc/self/mountinfo.
  MountTableTest& has(const std::string& device, const std::string& target, const std::string& type,
                      const std::string& root = "/", const std::string& source = "source") {
    table_ += fmt::format("{} 1 {} {} {} rw,relatime shared:1 - {} {} rw\n", ++lastId_, device, root, target,
                          type, source);
    return *this;
  }
  void removable(const std::string& directory) const {
    std::filesystem::create_directories(dir_.file(directory));
    dir_.write(directory + "/removable", "1\n");
  }
  // "/data=fixed", in order.
  std::vector<std::string> mounts() {
    auto result = realMounts(dir_.write("mountinfo", table_), dir_.path(), dir_.path());
    if (!result.ok()) return {std::string(result.status().message())};
    std::vector<std::string> all;
    for (const Mount& mount : *result) {
      all.push_back(mount.point + "=" + nameOf(mount.kind));
    }
    return all;
  }

  Support::TempDir dir_;
  std::string table_;
  int lastId_ = 20;
};

TEST_F(MountTableTest, FileSystemsThatHoldData_WithTheirKinds) {
  has("254:0", "/", "ext4")
      .has("0:40", "/run", "tmpfs")
      .has("0:41", "/net", "nfs4")
      .has("0:42", "/win", "cifs");
  has("11:0", "/media/cd", "iso9660").has("31:0", "/flash", "jffs2").has("0:43", "/merged", "overlay");
  has("0:44", "/host", "virtiofs").has("0:45", "/pool", "zfs").has("0:46", "/remote", "fuse.sshfs");
  EXPECT_THAT(mounts(),
              ElementsAre("/=fixed", "/flash=flash", "/host=fixed", "/media/cd=disc", "/merged=fixed",
                          "/net=network", "/pool=fixed", "/remote=network", "/run=ram", "/win=network"));
}

TEST_F(MountTableTest, ViewsOfTheKernel_DoNotCount) {
  for (const char* type :
       {"proc",    "sysfs",   "devtmpfs",    "devpts",    "cgroup",   "cgroup2",   "securityfs",
        "debugfs", "tracefs", "mqueue",      "hugetlbfs", "pstore",   "bpf",       "configfs",
        "fusectl", "nsfs",    "binfmt_misc", "autofs",    "efivarfs", "rpc_pipefs"}) {
    has("0:" + std::to_string(lastId_), std::string("/somewhere/") + type, type);
  }
  has("0:90", "/proc/fs/nfsd", "tmpfs").has("0:91", "/sys/fs/cgroup", "tmpfs").has("0:94", "/dev", "tmpfs");
  has("0:92", "/system", "tmpfs").has("0:93", "/processes", "tmpfs");
  EXPECT_THAT(mounts(), ElementsAre("/processes=ram", "/system=ram"));
}

TEST_F(MountTableTest, NamesWithBlanksPercentSlashesAndUmlauts_AreWhatTheyAre) {
  has("8:1", "/my\\040data", "ext4")
      .has("8:2", "/100%/tab\\011x", "ext4")
      .has("8:3",
           "/gr\xc3\xb6\xc3\x9f"
           "e",
           "ext4");
  has("8:4", "/back\\134slash", "ext4");
  EXPECT_THAT(mounts(), ElementsAre("/100%/tab\tx=fixed", "/back\\slash=fixed",
                                    "/gr\xc3\xb6\xc3\x9f"
                                    "e=fixed",
                                    "/my data=fixed"));
}

TEST_F(MountTableTest, MountedOverOneAnother_TheTopmostCounts) {
  has("8:1", "/mnt", "ext4")
      .has("0:50", "/mnt", "tmpfs")
      .has("8:2", "/opt", "ext4")
      .has("0:51", "/opt", "proc");
  EXPECT_THAT(mounts(), ElementsAre("/mnt=ram"));
}

TEST_F(MountTableTest, OneFileSystemAtSeveralPlaces_CountsOnce_TheWholeBeforeAPart_TheOldestFirst) {
  has("8:1", "/etc/hosts", "ext4", "/containers/1/hosts")
      .has("8:1", "/data", "ext4")
      .has("8:1", "/again", "ext4");
  has("8:2", "/b", "ext4", "/sub").has("8:2", "/a", "ext4", "/sub");
  EXPECT_THAT(mounts(), ElementsAre("/b=fixed", "/data=fixed"));
}

// Each used to be a row, a key in the store and a thread.
// As in a container whose / is a directory of the host's, with a longer name than that of a volume.
TEST_F(MountTableTest, OneFileSystemAtSeveralPlaces_TheMachinesRootIsTheNameThatCounts) {
  has("8:1", "/volume", "ext4", "/v").has("8:1", "/", "ext4", "/machines/one").has("8:1", "/whole", "ext4");
  EXPECT_THAT(mounts(), ElementsAre("/=fixed"));
}

TEST_F(MountTableTest, ContainersAndSessions_DoNotCount_TheMachinesOwnWithoutADeviceDo) {
  has("0:30", "/", "overlay")
      .has("0:31", "/run", "tmpfs")
      .has("0:32", "/dev/shm", "tmpfs")
      .has("0:33", "/var/log", "tmpfs");
  for (int i = 0; i < 100; ++i) {
    std::string id = std::to_string(i);
    has("0:1" + id, "/var/lib/containers/" + id + "/merged", "overlay");
    has("0:2" + id, "/var/lib/containers/" + id + "/mounts/shm", "tmpfs");
    has("0:3" + id, "/run/user/" + id, "tmpfs");
    has("0:4" + id, "/run/user/" + id + "/doc", "fuse.portal");
  }
  has("8:1", "/var/lib/containers/data", "ext4").has("0:34", "/var/lib/containers/net", "nfs4");
  has("0:35", "/srv/backup/old/tree", "btrfs").has("0:36", "/mnt/a/b", "virtiofs");
  EXPECT_THAT(mounts(), ElementsAre("/=fixed", "/dev/shm=ram", "/mnt/a/b=fixed", "/run=ram",
                                    "/srv/backup/old/tree=fixed", "/var/lib/containers/data=fixed",
                                    "/var/lib/containers/net=network", "/var/log=ram"));
}

TEST_F(MountTableTest, FilesMountedOverFilesInAContainer_AreNoFileSystems) {
  std::filesystem::create_directories(dir_.file("etc"));
  std::filesystem::create_directories(dir_.file("data"));
  for (const char* name : {"etc/hosts", "etc/resolv.conf"}) dir_.write(name, "");
  has("0:30", "/", "overlay")
      .has("8:1", "/etc/hosts", "ext4", "/c/hosts")
      .has("8:1", "/etc/resolv.conf", "ext4", "/c/r");
  EXPECT_THAT(mounts(), ElementsAre("/=fixed"));
  has("8:1", "/data", "ext4", "/volumes/longer/than/the/files");
  EXPECT_THAT(mounts(), ElementsAre("/=fixed", "/data=fixed"));
}

TEST_F(MountTableTest, DatasetsOfAPoolAndSubvolumes_CountOnce) {
  has("0:30", "/", "zfs", "/", "rpool/ROOT/debian").has("0:31", "/home", "zfs", "/", "rpool/home");
  has("0:32", "/tank", "zfs", "/", "tank").has("0:33", "/tank/a", "zfs", "/", "tank/a");
  has("0:34", "/srv", "btrfs", "/@srv")
      .has("0:34", "/srv/www", "btrfs", "/@srv/www")
      .has("0:35", "/old", "btrfs");
  EXPECT_THAT(mounts(), ElementsAre("/=fixed", "/old=fixed", "/srv=fixed", "/tank=fixed"));
}

// Looking at it would mount it, or keep it from expiring.
TEST_F(MountTableTest, Automounts_AreNotLookedAt) {
  has("8:1", "/", "ext4").has("0:40", "/boot", "autofs").has("0:41", "/net", "autofs");
  EXPECT_THAT(mounts(), ElementsAre("/=fixed"));
  has("8:2", "/boot", "vfat").has("0:42", "/net/server", "nfs4").has("8:3", "/network", "ext4");
  EXPECT_THAT(mounts(), ElementsAre("/=fixed", "/network=fixed"));
}

TEST_F(MountTableTest, RemovableDisks_AsADiskAndAsAPartitionOfOne) {
  // As in sysfs, a device's directory is a link, and a partition's is within its disk's.
  removable("devices/sdb");
  std::filesystem::create_directories(dir_.file("devices/sdb/sdb1"));
  std::filesystem::create_directories(dir_.file("devices/sda/sda1"));
  dir_.write("devices/sda/removable", "0\n");
  std::filesystem::create_directories(dir_.file("dev/block"));
  for (const char* link : {"8:16", "8:17", "8:1"}) {
    std::string target = std::string(link) == "8:1"    ? "sda/sda1"
                         : std::string(link) == "8:16" ? "sdb"
                                                       : "sdb/sdb1";
    std::filesystem::create_directory_symlink(dir_.file("devices/" + target), dir_.file("dev/block/") + link);
  }
  has("8:16", "/whole", "vfat").has("8:1", "/fixed", "ext4");
  EXPECT_THAT(mounts(), ElementsAre("/fixed=fixed", "/whole=removable"));
  has("8:17", "/part", "vfat");
  EXPECT_THAT(mounts(), ElementsAre("/fixed=fixed", "/part=removable", "/whole=removable"));
}

TEST_F(MountTableTest, NoTable_IsAFailureWithItsName) {
  auto result = realMounts("/nonexistent/mountinfo", "/sys");
  EXPECT_EQ(result.status().message(), "/nonexistent/mountinfo: No such file or directory");
}

TEST_F(MountTableTest, EmptyTable_NoMounts) { EXPECT_THAT(mounts(), IsEmpty()); }

// This machine's own.
std::vector<Mount> ownMounts() {
  auto result = realMounts("/proc/self/mountinfo", "/sys");
  return result.ok() ? *result : std::vector<Mount>();
}

TEST_F(MountTableTest, RoomOfThisMachinesMounts_IsWhatTheFileSystemsSay) {
  std::vector<Mount> all = ownMounts();
  ASSERT_FALSE(all.empty());
  bool some = false;
  for (const Mount& mount : all) {
    auto result = roomOf(mount);
    if (!result.ok()) continue;  // not for this user
    Room room = *result;
    struct statvfs figures {};
    ASSERT_EQ(statvfs(mount.point.c_str(), &figures), 0) << mount.point;
    EXPECT_EQ(room.size, figures.f_blocks) << mount.point;
    EXPECT_EQ(room.unitBytes, figures.f_frsize) << mount.point;
    EXPECT_LE(room.free, room.size) << mount.point;
    some = some || room.size > 0;
  }
  EXPECT_TRUE(some);
}

TEST_F(MountTableTest, SomethingElseIsReachedUnderTheName_ThereIsNoRoomToTell) {
  Mount gone = ownMounts().at(0);
  gone.id += 1'000'000;
  auto result = roomOf(gone);
  ASSERT_TRUE(result.ok()) << result.status();
  EXPECT_EQ(result->size, 0u);
}

// As between the unmounting and the next look at the table; it used to be told as a failure.
TEST_F(MountTableTest, MountPointIsGone_ThereIsNoRoomToTell) {
  dir_.write("file", "");
  for (const std::string& point : {dir_.file("gone"), dir_.file("file/gone")}) {
    auto result = roomOf({point, MountKind::fixedDisk, 1});
    ASSERT_TRUE(result.ok()) << result.status();
    EXPECT_EQ(result->size, 0u);
  }
}

TEST_F(MountTableTest, MountPointCannotBeReached_IsAFailureWithItsName) {
  std::filesystem::create_symlink("loop", dir_.file("loop"));
  auto result = roomOf({dir_.file("loop/mount"), MountKind::fixedDisk, 1});
  EXPECT_EQ(result.status().message(), dir_.file("loop/mount") + ": Too many levels of symbolic links");
}

}  // namespace
}  // namespace Member
