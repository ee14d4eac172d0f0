#include "runtime/File.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>

#include "runtime/Errors.h"

namespace Runtime {
namespace {

uint64_t nanoseconds(const timespec& time) {
  return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

absl::Status notAFile(mode_t mode) {
  const char* found = S_ISDIR(mode) ? "a directory" : S_ISFIFO(mode) ? "a pipe" : "no regular file";
  return absl::FailedPreconditionError(fmt::format("found {}, expected a file", found));
}

absl::Status tooLarge(uint64_t bytes, uint64_t maxBytes) {
  return absl::OutOfRangeError(fmt::format("found {} bytes, expected at most {}", bytes, maxBytes));
}

}  // namespace

FileSignature signatureOf(const struct stat& file) {
  return {file.st_dev,
          file.st_ino,
          static_cast<uint64_t>(file.st_size),
          nanoseconds(file.st_mtim),
          nanoseconds(file.st_ctim),
          file.st_mode};
}

Descriptor::~Descriptor() {
  if (opened()) ::close(fd_);
}

absl::StatusOr<File> File::open(const std::string& path) {
  File file(Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)));
  if (!file.descriptor_.opened()) return systemError(errno);
  absl::StatusOr<struct stat> about = file.aboutNow();
  if (!about.ok()) return about.status();
  file.about_ = *about;
  if (!S_ISREG(about->st_mode)) return notAFile(about->st_mode);
  return file;
}

absl::StatusOr<struct stat> File::aboutNow() const {
  struct stat about {};
  if (::fstat(descriptor_.get(), &about) != 0) return systemError(errno);
  return about;
}

absl::StatusOr<std::string> File::content(uint64_t maxBytes) const {
  auto size = static_cast<uint64_t>(about_.st_size);
  if (size > maxBytes) return tooLarge(size, maxBytes);
  return readAll(descriptor_.get(), maxBytes, size);
}

// Asks for one byte more than expected, so that the end shows without enlarging the buffer.
absl::StatusOr<std::string> readAll(int descriptor, uint64_t maxBytes, uint64_t expected) {
  std::string text(expected + 1, '\0');
  size_t filled = 0;
  while (filled <= maxBytes) {
    ssize_t count = ::read(descriptor, text.data() + filled, text.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return systemError(errno);
    if (count == 0) break;
    filled += static_cast<size_t>(count);
    if (filled == text.size()) text.resize(text.size() * 2);
  }
  text.resize(filled);
  if (filled > maxBytes) return tooLarge(filled, maxBytes);
  return text;
}

absl::StatusOr<std::string> readFile(const std::string& path, uint64_t maxBytes) {
  absl::StatusOr<File> file = File::open(path);
  if (!file.ok()) return errorOf(path, file.status());
  absl::StatusOr<std::string> text = file->content(maxBytes);
  return text.ok() ? text : errorOf(path, text.status());
}

absl::Status writeNewFile(const std::string& path, std::string_view bytes, mode_t mode) {
  Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (!file.opened()) return systemError(errno);
  bool written = fchmod(file.get(), mode) == 0;
  while (written && !bytes.empty()) {
    ssize_t count = ::write(file.get(), bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    written = count >= 0;
    if (written) bytes.remove_prefix(static_cast<size_t>(count));
  }
  if (written && fsync(file.get()) == 0) return absl::OkStatus();
  absl::Status error = systemError(errno);
  unlink(path.c_str());
  return error;
}

}  // namespace Runtime
