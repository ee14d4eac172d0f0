#include "kelstore/FileSource.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/lumalog/Lumalog.h"

namespace Kelstore {
namespace {

constexpr uint64_t kNsPerMs = 1'000'000;

class Descriptor {
 public:
  // Not blocking, since anything may stand at the path, a pipe without a writer among them.
  explicit Descriptor(const std::string& path)
      : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

uint64_t nanoseconds(const timespec& time) {
  return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

std::array<uint64_t, 6> signatureOf(const struct stat& file) {
  return {file.st_dev,
          file.st_ino,
          static_cast<uint64_t>(file.st_size),
          nanoseconds(file.st_mtim),
          nanoseconds(file.st_ctim),
          file.st_mode};
}

std::string notAFile(mode_t mode) {
  const char* found = S_ISDIR(mode) ? "a directory" : S_ISFIFO(mode) ? "a pipe" : "no regular file";
  return fmt::format("found {}, expected a file", found);
}

std::string tooLarge(uint64_t size, uint64_t maxBytes) {
  return fmt::format("found {} bytes, expected at most {}", size, maxBytes);
}

// The rest of the file, or nothing with errno set.
bool readAll(int fd, uint64_t sizeHint, uint64_t maxBytes, std::string& text) {
  text.resize(sizeHint + 1);
  size_t filled = 0;
  while (filled <= maxBytes) {
    ssize_t count = ::read(fd, text.data() + filled, text.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    if (count == 0) break;
    filled += static_cast<size_t>(count);
    if (filled == text.size()) text.resize(text.size() * 2);
  }
  text.resize(filled);
  return true;
}

}  // namespace

FileSource::FileSource(std::string path, Store& store, Runtime::Io& io, const Zavro::Clock& clock,
                       uint64_t maxBytes)
    : path_(std::move(path)),
      maxBytes_(maxBytes),
      io_(io),
      clock_(clock),
      layer_("file:" + path_, path_, store, clock) {}

void FileSource::start() {
  watch_ = io_.watch(path_, [this] { changed(); });
  read();
}

void FileSource::changed() {
  if (reading_) {
    changedMeanwhile_ = true;
  } else {
    readAfter(kQuietMs);
  }
}

void FileSource::readAfter(uint64_t milliseconds) {
  timer_ = io_.after(milliseconds, [this] { read(); });
}

void FileSource::read() {
  timer_.reset();
  reading_ = true;
  changedMeanwhile_ = false;
  offLoop_.run([path = path_, maxBytes = maxBytes_,
                before = layer_.snapshot()] { return attempt(path, maxBytes, *before); },
               [this](Attempt attempt) { attempted(std::move(attempt)); });
}

void FileSource::attempted(Attempt attempt) {
  reading_ = false;
  if (changedMeanwhile_) readAfter(kQuietMs);
  if (attempt.reading.snapshot == nullptr && !isFinal(attempt)) {
    if (!timer_) readAfter(kConfirmMs);
    return;
  }
  badSinceNs_ = 0;
  auto before = layer_.snapshot();
  layer_.readingIs(std::move(attempt.reading));
  // A large snapshot takes as long to free as many slices last.
  io_.offLoop([before = std::move(before)]() mutable { before.reset(); }, [] {});
}

// A failure counts when the same file failed twice, the second time after it had time to be completed.
bool FileSource::isFinal(const Attempt& attempt) {
  uint64_t nowNs = clock_.monotonicNs();
  bool first = badSinceNs_ == 0;
  bool same = !first && attempt.signature == badSignature_ && !changedMeanwhile_;
  badSignature_ = attempt.signature;
  if (first) badSinceNs_ = nowNs == 0 ? 1 : nowNs;
  uint64_t lasted = first ? 0 : nowNs - badSinceNs_;
  return (same && lasted >= kConfirmMs * kNsPerMs) || lasted >= kPatienceMs * kNsPerMs;
}

FileSource::Attempt FileSource::attempt(const std::string& path, uint64_t maxBytes, const Snapshot& before) {
  Attempt result;
  auto failed = [&result](const std::string& error) {
    result.reading.error = ": " + error;
    return std::move(result);
  };
  Descriptor file(path);
  struct stat start {};
  if (file.fd() < 0 || ::fstat(file.fd(), &start) != 0) return failed(std::strerror(errno));
  result.signature = signatureOf(start);
  if (!S_ISREG(start.st_mode)) return failed(notAFile(start.st_mode));
  auto size = static_cast<uint64_t>(start.st_size);
  if (size > maxBytes) return failed(tooLarge(size, maxBytes));
  std::string text;
  if (!readAll(file.fd(), size, maxBytes, text)) return failed(std::strerror(errno));
  if (text.size() > maxBytes) return failed(tooLarge(text.size(), maxBytes));
  struct stat end {};
  if (::fstat(file.fd(), &end) != 0) return failed(std::strerror(errno));
  // What was read while it was written may be half of one state and half of the next, and still parse.
  if (signatureOf(end) != result.signature) return failed("changed while it was read");
  result.reading = readingOf(text, before);
  return result;
}

}  // namespace Kelstore
