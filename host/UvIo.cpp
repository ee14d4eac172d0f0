#include "UvIo.h"

#include <filesystem>
#include <optional>

namespace Host {
namespace {

// The callback is held by value while it runs, since it may destroy the activity.
class OneShot final : public Kelstore::Io::Activity {
 public:
  OneShot(EventLoop& loop, uint64_t milliseconds, std::function<void()> elapsed)
      : timer_(loop, [elapsed = std::move(elapsed)] {
          auto call = elapsed;
          call();
        }) {
    timer_.start(milliseconds);
  }

 private:
  Timer timer_;
};

class Watch final : public Kelstore::Io::Activity {
 public:
  Watch(EventLoop& loop, const std::string& path, std::function<void()> changed)
      : loop_(loop),
        directory_(std::filesystem::path(path).parent_path()),
        name_(std::filesystem::path(path).filename()),
        changed_(std::move(changed)),
        poll_([&](uv_fs_poll_t* poll) { return uv_fs_poll_init(loop.uv(), poll); }),
        rearm_(loop, [this] {
          // In another directory there is another file, whatever was noticed of the exchange.
          if (watchDirectory()) changed_();
        }) {
    if (directory_.empty()) directory_ = ".";
    poll_->data = this;
    uv_fs_poll_start(
        poll_.get(), [](uv_fs_poll_t* poll, int, const uv_stat_t*, const uv_stat_t*) { polled(poll); },
        path.c_str(), static_cast<unsigned>(UvIo::kPollMs));
    watchDirectory();
    rearm_.start(UvIo::kPollMs, UvIo::kPollMs);
  }

 private:
  static void polled(uv_fs_poll_t* poll) { static_cast<Watch*>(poll->data)->changed_(); }

  static void directoryChanged(uv_fs_event_t* event, const char* file, int, int) {
    auto* watch = static_cast<Watch*>(event->data);
    // Without a name it may be any file.
    if (file == nullptr || watch->name_ == file) watch->changed_();
  }

  // The directory may come, go and be replaced: it is watched as what stands there now. Returns whether it is
  // another than before.
  bool watchDirectory() {
    struct stat now {};
    bool there = ::stat(directory_.c_str(), &now) == 0;
    ino_t inode = there ? now.st_ino : 0;
    if (inode == inode_) return false;
    inode_ = inode;
    event_.reset();
    if (!there) return true;
    event_.emplace([this](uv_fs_event_t* event) { return uv_fs_event_init(loop_.uv(), event); });
    event_->get()->data = this;
    if (uv_fs_event_start(event_->get(), directoryChanged, directory_.c_str(), 0) != 0) event_.reset();
    return true;
  }

  EventLoop& loop_;
  std::string directory_;
  std::string name_;
  std::function<void()> changed_;
  UvHandle<uv_fs_poll_t> poll_;
  std::optional<UvHandle<uv_fs_event_t>> event_;
  ino_t inode_ = 0;
  Timer rearm_;
};

struct Work {
  std::function<void()> work;
  std::function<void()> done;
  uv_work_t request{};
};

}  // namespace

std::unique_ptr<Kelstore::Io::Activity> UvIo::watch(const std::string& path, std::function<void()> changed) {
  return std::make_unique<Watch>(loop_, path, std::move(changed));
}

std::unique_ptr<Kelstore::Io::Activity> UvIo::after(uint64_t milliseconds, std::function<void()> elapsed) {
  return std::make_unique<OneShot>(loop_, milliseconds, std::move(elapsed));
}

void UvIo::offLoop(std::function<void()> work, std::function<void()> done) {
  auto* job = new Work{std::move(work), std::move(done), {}};
  job->request.data = job;
  auto run = [](uv_work_t* request) { static_cast<Work*>(request->data)->work(); };
  auto finish = [](uv_work_t* request, int) {
    std::unique_ptr<Work> finished(static_cast<Work*>(request->data));
    finished->done();
  };
  int result = uv_queue_work(loop_.uv(), &job->request, run, finish);
  zavroAssertWith(result == 0, "{}", uv_strerror(result));
}

}  // namespace Host
