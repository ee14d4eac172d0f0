// Tells when a file may have changed, whatever file system it is on. For the loop's thread.
//
// Nothing here waits for the file system: it is looked at on a thread, and one that hangs gets no second look
// until the first has come back.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "runtime/EventLoop.h"
#include "runtime/Io.h"
#include "runtime/OffLoop.h"

namespace Runtime {

class FileWatch final : public Io::Activity {
 public:
  // How often the file is looked at, for changes that its directory does not tell of: a directory that was
  // not there or was replaced, a link to elsewhere, a file system without notification.
  static constexpr uint64_t kPollMs = 400;

  // Calls `changed` as Io::watch() promises, for the first time when the file is being watched. Loop and io
  // outlive this.
  FileWatch(EventLoop& loop, Io& io, const std::string& path, std::function<void()> changed);
  ~FileWatch() override;

 private:
  class Directory;
  // What tells one file, or one state of it, from another; nothing for none.
  using Signature = std::optional<std::array<uint64_t, 6>>;
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
