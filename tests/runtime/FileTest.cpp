// Files, read whole: what is taken, and what is said of anything else.
#include "runtime/File.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "runtime/Errors.h"
#include "tests/support/TempDir.h"

namespace Runtime {
namespace {

class FileTest : public testing::Test {
 protected:
  std::string content(const std::string& name, uint64_t maxBytes = 100) const {
    absl::StatusOr<std::string> text = readFile(dir_.file(name), maxBytes);
    if (text.ok()) return *text;
    std::string error = textOf(text.status());
    return error.substr(dir_.path().string().size() + 1);
  }
  Support::TempDir dir_;
};

TEST_F(FileTest, AllOfIt) {
  dir_.write("empty", "");
  EXPECT_EQ(content("empty"), "");
  std::string text = std::string("a\0b\n", 4) + std::string(96, 'x');
  dir_.write("full", text);
  EXPECT_EQ(content("full"), text);
}

TEST_F(FileTest, Larger_IsNotRead) {
  dir_.write("large", std::string(101, 'x'));
  EXPECT_EQ(content("large"), "large: found 101 bytes, expected at most 100");
}

// As in /proc, where a file's size is 0 whatever it holds.
TEST_F(FileTest, SizeIsNotWhatItSays_ItIsReadToItsEnd) {
  EXPECT_GT(readFile("/proc/self/status", 1 << 20)->size(), 500u);
  EXPECT_TRUE(absl::IsOutOfRange(readFile("/proc/self/status", 100).status()));
}

TEST_F(FileTest, Pipe_IsReadToItsEnd_ByThoseWhoWaitForIt) {
  auto pipeWith = [](std::string_view text) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    EXPECT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(ends[1]);
    return Descriptor(ends[0]);
  };
  std::string text(100, 'x');
  EXPECT_EQ(*readAll(pipeWith(text).get(), 100), text);
  EXPECT_EQ(*readAll(pipeWith("").get(), 100), "");
  EXPECT_TRUE(absl::IsOutOfRange(readAll(pipeWith(text).get(), 99).status()));
}

TEST_F(FileTest, NotThere_HasACodeOfItsOwn) {
  EXPECT_EQ(content("absent"), "absent: No such file or directory");
  EXPECT_TRUE(absl::IsNotFound(File::open(dir_.file("absent")).status()));
}

TEST_F(FileTest, NoRegularFile_IsNamed_AndNotWaitedFor) {
  std::filesystem::create_directory(dir_.file("directory"));
  EXPECT_EQ(content("directory"), "directory: found a directory, expected a file");
  ASSERT_EQ(mkfifo(dir_.file("pipe").c_str(), 0600), 0);
  EXPECT_EQ(content("pipe"), "pipe: found a pipe, expected a file");
  EXPECT_EQ(textOf(readFile("/dev/null", 1).status()), "/dev/null: found no regular file, expected a file");
  EXPECT_FALSE(absl::IsNotFound(File::open(dir_.file("pipe")).status()));
}

// Opening a socket fails with ENXIO, which is not the same as nothing being there.
TEST_F(FileTest, Socket_IsNotTakenForNothing) {
  int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  dir_.file("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  absl::Status status = File::open(dir_.file("socket")).status();
  EXPECT_FALSE(status.ok());
  EXPECT_FALSE(absl::IsNotFound(status));
  Descriptor closes(socket);
}

TEST_F(FileTest, ChangesWhileItIsOpen_ThatShows) {
  std::string path = dir_.write("file", "old");
  absl::StatusOr<File> file = File::open(path);
  ASSERT_TRUE(file.ok());
  EXPECT_EQ(file->aboutNow()->st_size, file->about().st_size);
  dir_.write("file", "longer");
  EXPECT_EQ(file->about().st_size, 3);
  EXPECT_EQ(file->aboutNow()->st_size, 6);
}

TEST_F(FileTest, NewFile_HasItsModeWhateverTheUmask) {
  mode_t before = umask(0077);
  EXPECT_EQ(writeNewFile(dir_.file("new"), "text", 0644), absl::OkStatus());
  umask(before);
  EXPECT_EQ(content("new"), "text");
  struct stat made {};
  ASSERT_EQ(stat(dir_.file("new").c_str(), &made), 0);
  EXPECT_EQ(made.st_mode & 0777U, 0644U);
}

TEST_F(FileTest, NewFileThatIsThereAlready_StaysAsItIs) {
  dir_.write("there", "before");
  EXPECT_EQ(textOf(writeNewFile(dir_.file("there"), "text", 0600)), "File exists");
  EXPECT_EQ(content("there"), "before");
  EXPECT_EQ(textOf(writeNewFile(dir_.file("none/new"), "text", 0600)), "No such file or directory");
}

TEST_F(FileTest, NewFileThatCannotBeWrittenWhole_IsNotLeftBehind) {
  auto written = [this] {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{100, 100};
    setrlimit(RLIMIT_FSIZE, &limit);
    exit(textOf(writeNewFile(dir_.file("new"), std::string(200, 'x'), 0600)) == "File too large" ? 0 : 1);
  };
  EXPECT_EXIT(written(), testing::ExitedWithCode(0), "");
  EXPECT_EQ(content("new"), "new: No such file or directory");
}

}  // namespace
}  // namespace Runtime
