#include "runtime/FileWatch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace Runtime {
namespace {

constexpr uint32_t kAnyChange = IN_ATTRIB | IN_CREATE | IN_MODIFY | IN_DELETE | IN_DELETE_SELF |
                                IN_MOVE_SELF | IN_MOVED_FROM | IN_MOVED_TO;

}  // namespace

// Notifications from the file's directory. When the system has none left, polling has to do.
class FileWatch::Directory {
 public:
  explicit Directory(const std::filesystem::path& file)
      : path_(file.parent_path().empty() ? "." : file.parent_path().string()),
        notifications_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

  // None when the system has none left.
  const Descriptor& notifications() const { return notifications_; }

  // Finds the directory that is at the path now, and takes notifications from that one. May hang. For one
  // thread at a time.
  Signature follow() {
    struct stat now {};
    Signature found;
    if (stat(path_.c_str(), &now) == 0) found = {now.st_dev, now.st_ino};
    if (found == followed_) return found;
    if (notifier_ >= 0) inotify_rm_watch(notifications_.get(), notifier_);
    notifier_ = found ? inotify_add_watch(notifications_.get(), path_.c_str(), kAnyChange) : -1;
    followed_ = found;
    return found;
  }

 private:
  const std::string path_;
  const Descriptor notifications_;
  int notifier_ = -1;
  Signature followed_;
};

FileWatch::FileWatch(EventLoop& loop, Io& io, const std::string& path, std::function<void()> changed)
    : path_(path),
      name_(std::filesystem::path(path).filename()),
      changed_(std::move(changed)),
      directory_(std::make_shared<Directory>(path)),
      timer_(loop, [this] { look(); }),
      offLoop_(io) {
  const Descriptor& notifications = directory_->notifications();
  if (notifications.opened()) notifications_.emplace(loop, notifications.get(), [this] { notified(); });
  timer_.start(kPollMs, kPollMs);
  look();
}

FileWatch::~FileWatch() = default;

FileWatch::Seen FileWatch::lookAt(Directory& directory, const std::string& path) {
  // The directory first, so that a change after stat() is notified.
  Seen seen{directory.follow(), {}};
  struct stat file {};
  if (stat(path.c_str(), &file) == 0) seen.file = signatureOf(file);
  return seen;
}

void FileWatch::look() {
  if (looking_) return;
  looking_ = true;
  offLoop_.run([directory = directory_, path = path_] { return lookAt(*directory, path); },
               [this](const Seen& seen) { looked(seen); });
}

void FileWatch::looked(const Seen& seen) {
  looking_ = false;
  bool changed = !told_ || seen.directory != seen_.directory || seen.file != seen_.file;
  seen_ = seen;
  told_ = true;
  if (changed) tell();
}

// Reads once. If more is left, the loop calls again.
void FileWatch::notified() {
  alignas(inotify_event) std::array<char, 4096> bytes{};
  ssize_t count = read(directory_->notifications().get(), bytes.data(), bytes.size());
  bool mine = false;
  for (ssize_t at = 0; at < count;) {
    const auto* event = reinterpret_cast<const inotify_event*>(bytes.data() + at);
    // No name: it is about the directory itself, or notifications were lost.
    mine = mine || event->len == 0 || name_ == event->name;
    at += static_cast<ssize_t>(sizeof *event + event->len);
  }
  if (mine) tell();
}

// Copies the callback, as it may destroy this.
void FileWatch::tell() {
  auto call = changed_;
  call();
}

}  // namespace Runtime
