// Reads and writes whole files. The calls block, and hang when the file system does; daemons make them off
// the loop.
//
// A path that is no regular file, such as a pipe, is an error and not waited for. An error's message is what
// follows the path in a line: "No such file or directory", "found a directory, expected a file". NotFound:
// there is nothing at the path.
#pragma once

#include <absl/status/statusor.h>
#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace Runtime {

// Owns a file descriptor, or none.
class Descriptor final {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor();

  int get() const { return fd_; }
  bool opened() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// Device, inode, size, times of the last change of content and of status, mode: what differs when a file
// changed or was replaced. Of zeros: no file.
using FileSignature = std::array<uint64_t, 6>;
FileSignature signatureOf(const struct stat& file);

// A regular file that is open for reading.
class File final {
 public:
  static absl::StatusOr<File> open(const std::string& path);

  // Owner, mode, size and times: when it was opened, and now.
  const struct stat& about() const { return about_; }
  absl::StatusOr<struct stat> aboutNow() const;
  // The whole content; OutOfRange when it is larger. To be called once, as it moves the file's position.
  absl::StatusOr<std::string> content(uint64_t maxBytes) const;

 private:
  explicit File(Descriptor descriptor) : descriptor_(std::move(descriptor)) {}

  Descriptor descriptor_;
  struct stat about_ {};
};

// Reads up to the end of the file or pipe, and waits for it; OutOfRange when it is more. `expected` is a hint
// for the first allocation, in bytes.
absl::StatusOr<std::string> readAll(int descriptor, uint64_t maxBytes, uint64_t expected = 0);

// The content of the file at the path; errors begin with the path.
absl::StatusOr<std::string> readFile(const std::string& path, uint64_t maxBytes);

// Makes a file with that mode, whatever the umask, and returns when it would survive a loss of power. An
// error, when there is one already or it cannot be written; it leaves none behind then.
absl::Status writeNewFile(const std::string& path, std::string_view bytes, mode_t mode);

}  // namespace Runtime
