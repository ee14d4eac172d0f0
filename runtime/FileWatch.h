// Reports when a file may have changed, on any file system: by inotify where that works, and by polling. For
// the loop's thread.
//
// The loop never waits for the file system. A thread looks at it; while that one hangs, there is no second.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "runtime/EventLoop.h"
#include "runtime/File.h"
#include "runtime/Io.h"
#include "runtime/OffLoop.h"

namespace Runtime {

class FileWatch final : public Io::Activity {
 public:
  // The polling interval. Polling finds what inotify does not report: a directory that appears or is
  // replaced, a symbolic link to elsewhere, a file system without notifications.
  static constexpr uint64_t kPollMs = 400;

  // Calls `changed` as Io::watch() promises. Loop and io outlive this.
  FileWatch(EventLoop& loop, Io& io, const std::string& path, std::function<void()> changed);
  ~FileWatch() override;

 private:
  class Directory;
  // Differs between two files, and between two states of one; nothing: there is no file.
  using Signature = std::optional<FileSignature>;
  struct Seen {
    Signature directory;
    Signature file;
  };

  static Seen lookAt(Directory& directory, const std::string& path);
  void look();
  void looked(const Seen& seen);
  void notified();
  void tell();

  std::string path_;
  std::string name_;
  std::function<void()> changed_;
  bool looking_ = false;
  bool told_ = false;
  Seen seen_;
  std::shared_ptr<Directory> directory_;  // shared with the thread that looks
  std::optional<ReadWatch> notifications_;
  Timer timer_;
  OffLoop offLoop_;
};

}  // namespace Runtime
