// The source `file:PATH`: a JSON document in a file that is replaced by rename or written in place.
//
// The file is read again once it changed and then was quiet for a moment. A file that cannot be read or
// parsed is tried again before it counts as bad, since a writer may be half-way through. Reading and parsing
// happen off the event loop. A file that is too large, or for which there is no memory, counts as bad; so
// does one whose file system hangs, until it has been read after all.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "kelstore/DocumentLayer.h"
#include "runtime/File.h"
#include "runtime/Io.h"
#include "runtime/OffLoop.h"

namespace Kelstore {

class FileSource final : public Source {
 public:
  static constexpr uint64_t kQuietMs = 40;          // after a change, before the file is read
  static constexpr uint64_t kLongestQuietMs = 500;  // the same for a file that keeps changing
  static constexpr uint64_t kConfirmMs = 250;       // after a failure, before the file is tried again
  static constexpr uint64_t kPatienceMs = 2000;  // how long a file may keep changing before it counts as bad
  static constexpr uint64_t kAnswerMs = 3000;    // how long reading may take before that counts as a failure

  // Layers, io and clock outlive the source.
  FileSource(std::string path, LayeredState& layers, Runtime::Io& io, const Zavro::Clock& clock,
             const Limits& limits = {});

  void start() override;
  SourceStatus status() const override { return layer_.status(); }

 private:
  struct Attempt {
    Reading reading;
    Runtime::FileSignature signature{};  // of zeros: not opened
  };
  static Attempt attempt(const std::string& path, const Limits& limits, const Snapshot& before);

  void changed();
  void readAfter(uint64_t milliseconds);
  void read();
  void attempted(Attempt attempt);
  void hangs();
  bool failureCounts(const Attempt& attempt);

  std::string path_;
  const Limits limits_;
  Runtime::Io& io_;
  const Zavro::Clock& clock_;
  DocumentLayer layer_;
  std::unique_ptr<Runtime::Io::Activity> watch_;
  std::unique_ptr<Runtime::Io::Activity> timer_;
  std::unique_ptr<Runtime::Io::Activity> answerBy_;
  bool reading_ = false;
  bool changedMeanwhile_ = false;
  std::optional<uint64_t> unreadSinceNs_;  // of the first change that waits to be read
  uint64_t badSinceNs_ = 0;                // when the first of the failures in a row was seen; 0: none
  Runtime::FileSignature badSignature_{};  // of the last failure
  Runtime::OffLoop offLoop_{io_};
};

}  // namespace Kelstore
