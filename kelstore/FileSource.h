// The source `file:PATH`: a JSON document in a file that is replaced by rename or written in place.
//
// The file is read again when it may have changed and has been quiet for a moment. What cannot be read or
// parsed is tried again before it counts as bad, since a writer may be half-way through. A file of any size
// is read and parsed off the event loop; one larger than the limit is refused, and one for which there is no
// memory.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "kelstore/DocumentLayer.h"
#include "runtime/Io.h"
#include "runtime/OffLoop.h"

namespace Kelstore {

class FileSource final : public Source {
 public:
  static constexpr uint64_t kQuietMs = 40;       // after a change, before the file is read
  static constexpr uint64_t kConfirmMs = 250;    // after a failure, before the file is tried again
  static constexpr uint64_t kPatienceMs = 2000;  // a file that keeps changing and is bad so long is bad

  // Layers, io and clock outlive the source.
  FileSource(std::string path, LayeredState& layers, Runtime::Io& io, const Zavro::Clock& clock,
             const Limits& limits = {});

  void start() override;
  SourceStatus status() const override { return layer_.status(); }

 private:
  // What tells one state of a file from the next: inode, size, times of change, or why it cannot be read.
  using Signature = std::array<uint64_t, 6>;
  struct Attempt {
    Reading reading;
    Signature signature{};
  };
  static Attempt attempt(const std::string& path, const Limits& limits, const Snapshot& before);

  void changed();
  void readAfter(uint64_t milliseconds);
  void read();
  void attempted(Attempt attempt);
  bool isFinal(const Attempt& attempt);

  std::string path_;
  const Limits limits_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  DocumentLayer layer_;
  std::unique_ptr<Runtime::Io::Activity> watch_;
  std::unique_ptr<Runtime::Io::Activity> timer_;
  bool reading_ = false;
  bool changedMeanwhile_ = false;
  uint64_t badSinceNs_ = 0;   // when the first of the failures in a row was seen; 0: none
  Signature badSignature_{};  // of the last failure
  Runtime::OffLoop offLoop_{io_};
};

}  // namespace Kelstore
