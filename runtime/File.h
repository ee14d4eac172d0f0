// Files, read whole, by threads that may wait: each of these calls takes as long as the file's file system.
//
// Anything may stand at a path. What is no regular file is not read, nor waited for, as a pipe would be.
// Errors are what follows the path in a message: "No such file or directory", "found a directory, expected a
// file". NotFound: there is nothing at the path.
#pragma once

#include <absl/status/statusor.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <utility>

namespace Runtime {

// An open file, or none; closed when this goes.
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

// A regular file that is open for reading.
class File final {
 public:
  static absl::StatusOr<File> open(const std::string& path);

  // Its owner, mode, size and times, when it was opened and now.
  const struct stat& about() const { return about_; }
  absl::StatusOr<struct stat> aboutNow() const;
  // All of it, once; an error when it is larger.
  absl::StatusOr<std::string> content(uint64_t maxBytes) const;

 private:
  explicit File(Descriptor descriptor) : descriptor_(std::move(descriptor)) {}

  Descriptor descriptor_;
  struct stat about_ {};
};

// What an open descriptor yields up to its end, as of a pipe, for which this waits; an error when it is more.
// `expected`: about how much that is, so that room for it is made at once.
absl::StatusOr<std::string> readAll(int descriptor, uint64_t maxBytes, uint64_t expected = 0);

// The content of the file at the path; errors begin with the path.
absl::StatusOr<std::string> readFile(const std::string& path, uint64_t maxBytes);

}  // namespace Runtime
