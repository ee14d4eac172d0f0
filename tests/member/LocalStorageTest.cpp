// This machine's file systems as they are published: figures and rows, of mounts that come, go, fail and
// hang, whatever their names.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "runtime/Text.h"
#include "tests/member/LocalStorageFixture.h"

namespace Member {
namespace {

using Runtime::kSecond;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(LocalStorageTest, EachMountHasFiguresAndARow) {
  mount("/", {4096, 100, 40});
  mount("/var", {512, 10, 1});
  restart();
  EXPECT_EQ(life_->figures(), "/=100/40 /var=10/1");
  EXPECT_EQ(life_->rows(), "/=1001 /var=1002");
  const auto& row = *life_->world.mappings().mountEntries().find("/var");
  EXPECT_EQ(row.type.text(), "1.3.6.1.2.1.25.2.1.4");
  EXPECT_EQ(row.description, "/var");
  EXPECT_THAT(life_->troubles(), IsEmpty());
  EXPECT_THAT(trace_.lines(), IsEmpty());
}

TEST_F(LocalStorageTest, MappingsAreThereBeforeTheFigures) {
  mount("/", {4096, 100, 40});
  restart();
  mount("/var", {4096, 10, 1});
  EXPECT_EQ(look(), "mount[/var] 7.storage[/var]");
}

TEST_F(LocalStorageTest, RoomChanges_OneNewRecord_UnchangedOnesStay) {
  mount("/", {4096, 100, 40});
  mount("/var", {4096, 10, 1});
  restart();
  look();
  machine_->rooms["/"] = Room{4096, 100, 39};
  EXPECT_EQ(look(), "7.storage[/]");
  EXPECT_EQ(life_->figures(), "/=100/39 /var=10/1");
}

TEST_F(LocalStorageTest, NothingIsMounted_TheMemberIsThereWithoutFileSystems) {
  restart();
  EXPECT_EQ(life_->figures(), "");
  EXPECT_EQ(life_->rows(), "");
}

TEST_F(LocalStorageTest, FileSystemWithoutRoom_IsNotShown) {
  mount("/", {4096, 100, 40});
  mount("/portal", {4096, 0, 0});
  restart();
  EXPECT_EQ(life_->figures(), "/=100/40");
  EXPECT_EQ(life_->rows(), "/=1001");
}

// Its mapping used to stay, and with it those of all mounts that ever were.
TEST_F(LocalStorageTest, Unmounted_ItsFiguresAndItsMappingGo_ItsIndexIsKeptForIt) {
  mount("/", {4096, 100, 40});
  mount("/var", {4096, 10, 1});
  restart();
  unmount("/var");
  look();
  EXPECT_EQ(life_->figures(), "/=100/40");
  EXPECT_EQ(life_->rows(), "/=1001");
  mount("/data", {4096, 20, 2});
  mount("/var", {4096, 30, 3});
  look();
  EXPECT_EQ(life_->figures(), "/=100/40 /data=20/2 /var=30/3");
  EXPECT_EQ(life_->rows(), "/=1001 /data=1003 /var=1002");
}

TEST_F(LocalStorageTest, FailsAfterItHadFigures_MappingStays) {
  mount("/net", {4096, 10, 1});
  restart();
  machine_->rooms["/net"] = absl::UnknownError("/net: Stale file handle");
  look();
  EXPECT_EQ(life_->rows(), "/net=1001");
}

TEST_F(LocalStorageTest, AnotherKindIsMountedThere_TheRowSaysSo) {
  mount("/media", {4096, 100, 40});
  restart();
  mount("/media", {2048, 7, 0}, MountKind::compactDisc);
  look();
  EXPECT_EQ(life_->figures(), "/media=7/0");
  EXPECT_EQ(life_->world.mappings().mountEntries().find("/media")->type.text(), "1.3.6.1.2.1.25.2.1.7");
}

TEST_F(LocalStorageTest, MountHangs_ItsFiguresStay_TheOthersGoOn_AndItIsNotAskedAgain) {
  mount("/", {4096, 100, 40});
  mount("/net", {4096, 10, 1}, MountKind::networkDisk);
  restart();
  machine_->hanging = {"mount /net"};
  machine_->rooms["/"] = Room{4096, 100, 30};
  life_->pass(30 * kSecond);
  EXPECT_EQ(life_->figures(), "/=100/30 /net=10/1");
  EXPECT_THAT(life_->troubles(), ElementsAre("mount /net hangs: no answer for 3 s"));
  EXPECT_EQ(machine_->asked["mount /net"], 2);
  machine_->hanging = {};
  machine_->rooms["/net"] = Room{4096, 10, 5};
  life_->io.hungReturn();
  EXPECT_EQ(life_->pass(0), "7.storage[/net]");
  EXPECT_THAT(life_->troubles(), IsEmpty());
}

TEST_F(LocalStorageTest, MountHangsFromTheStart_TheOthersAreServedAfterItsPatience) {
  mount("/", {4096, 100, 40});
  for (const char* point : {"/n1", "/n2", "/n3", "/n4", "/n5"}) {
    mount(point, {4096, 10, 1});
    machine_->hanging.insert(std::string("mount ") + point);
  }
  restart();
  EXPECT_EQ(life_->figures(), "no member");
  life_->pass(Collector::kPatienceMs);
  EXPECT_EQ(life_->figures(), "/=100/40");
  EXPECT_EQ(life_->rows(), "/=1001");
  EXPECT_EQ(life_->troubles().size(), 5u);
}

TEST_F(LocalStorageTest, HundredsOfMounts_FewThreadsAtATime_ThoseThatHangStopNoOthers) {
  for (int i = 0; i < 200; ++i) mount(fmt::format("/m{}", i), {4096, 10, 1});
  restart();
  for (int i = 0; i < 40; ++i) machine_->hanging.insert(fmt::format("mount /m{}", i));
  for (int i = 40; i < 200; ++i) machine_->rooms[fmt::format("/m{}", i)] = Room{4096, 10, 2};
  life_->pass(kSecond + Collector::kPatienceMs - 1);  // the second look comes after a second
  EXPECT_EQ(life_->troubles().size(), 0u) << "nothing was taken for hanging that only waited";
  for (int i = 40; i < 200; ++i) {
    EXPECT_THAT(life_->figures(), HasSubstr(fmt::format("/m{}=10/2", i)));
  }
  life_->pass(60 * kSecond);
  EXPECT_EQ(life_->troubles().size(), 40u);
}

// It used to be shown until it returned, which may be never.
TEST_F(LocalStorageTest, MountHangsAndIsUnmounted_ItGoesAtOnce_AndItsAnswerDoesNotCount) {
  mount("/", {4096, 100, 40});
  mount("/net", {4096, 10, 1});
  restart();
  machine_->hanging = {"mount /net"};
  life_->pass(10 * kSecond);
  unmount("/net");
  look();
  EXPECT_EQ(life_->figures(), "/=100/40");
  EXPECT_THAT(life_->troubles(), IsEmpty());
  machine_->hanging = {};
  life_->io.hungReturn();
  EXPECT_EQ(life_->pass(0), "");
  EXPECT_EQ(life_->figures(), "/=100/40");
}

// It used to wait for the answer of the one before, which may never come.
TEST_F(LocalStorageTest, AnotherIsMountedWhileTheOldOneHangs_ItIsThereAtOnce_TheOldOnesAnswerDoesNotCount) {
  mount("/net", {4096, 10, 1});
  restart();
  machine_->hanging = {"mount /net"};
  life_->pass(10 * kSecond);
  machine_->hanging = {};
  mount("/net", {4096, 77, 7});
  look();
  EXPECT_EQ(life_->figures(), "/net=77/7");
  EXPECT_THAT(life_->troubles(), IsEmpty());
  machine_->rooms["/net"] = Room{4096, 10, 1};
  life_->io.hungReturn();
  EXPECT_EQ(life_->pass(0), "");
  EXPECT_EQ(life_->figures(), "/net=77/7");
}

TEST_F(LocalStorageTest, MountFails_ItsFiguresStay) {
  mount("/net", {4096, 10, 1});
  restart();
  machine_->rooms["/net"] = absl::UnknownError("/net: Stale file handle");
  look();
  EXPECT_EQ(life_->figures(), "/net=10/1");
  EXPECT_THAT(life_->troubles(), ElementsAre("mount /net fails: /net: Stale file handle"));
}

TEST_F(LocalStorageTest, TableOfMountsFails_TheMountsThatAreKnownAreLookedAtAllTheSame) {
  mount("/", {4096, 100, 40});
  restart();
  machine_->mounted = absl::UnknownError("/proc/self/mountinfo: Permission denied");
  machine_->rooms["/"] = Room{4096, 100, 20};
  look();
  EXPECT_EQ(life_->figures(), "/=100/20");
}

TEST_F(LocalStorageTest, NamesWithBlanksPercentSlashesAndUmlauts) {
  const std::string sizes =
      "/gr\xc3\xb6\xc3\x9f"
      "e/100%/my data";
  mount(sizes, {4096, 100, 40});
  restart();
  EXPECT_EQ(life_->figures(), sizes + "=100/40");
  EXPECT_EQ(life_->world.mappings().mountEntries().find(sizes)->description, sizes);
  restart();
  EXPECT_EQ(life_->rows(), sizes + "=1001");
}

TEST_F(LocalStorageTest, LongName_IsDescribedInAtMost255BytesOfUtf8) {
  std::string name = "/x";
  while (name.size() < 600) name += "\xc3\xb6";
  mount(name, {4096, 100, 40});
  restart();
  std::string description = life_->world.mappings().mountEntries().find(name)->description;
  EXPECT_LE(description.size(), 255u);
  EXPECT_GE(description.size(), 250u);
  EXPECT_TRUE(Runtime::isUtf8(description));
  EXPECT_THAT(description, testing::EndsWith("\xc3\xb6..."));
}

TEST_F(LocalStorageTest, NameOfAsManyBytesAsADescriptionHas_IsWhole) {
  std::string name = "/" + std::string(254, 'x');
  mount(name, {4096, 100, 40});
  mount(name + "y", {4096, 100, 40});
  restart();
  EXPECT_EQ(life_->world.mappings().mountEntries().find(name)->description, name);
  EXPECT_EQ(life_->world.mappings().mountEntries().find(name + "y")->description,
            name.substr(0, 252) + "...");
}

TEST_F(LocalStorageTest, NameThatIsTooLong_IsLeftOut_WithItsLength) {
  mount("/" + std::string(4096, 'x'), {4096, 100, 40});
  mount("/" + std::string(4095, 'x'), {4096, 100, 40});
  restart();
  EXPECT_EQ(life_->rows(), "/" + std::string(4095, 'x') + "=1001");
  EXPECT_THAT(
      trace_.lines(),
      ElementsAre(testing::EndsWith("xxx...\" is left out: found 4097 bytes, expected at most 4096")));
}

TEST_F(LocalStorageTest, NamesThatTheStateCannotHold_AreLeftOutWithOneLine) {
  mount("/latin1/\xf6", {4096, 100, 40});
  mount("/new\nline", {4096, 100, 40});
  mount("/", {4096, 100, 40});
  restart();
  look();
  EXPECT_EQ(life_->figures(), "/=100/40");
  EXPECT_THAT(trace_.lines(),
              ElementsAre(HasSubstr("is left out"), HasSubstr("\"/new\\x0aline\" is left out")));
}

}  // namespace
}  // namespace Member
