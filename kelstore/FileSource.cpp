#include "kelstore/FileSource.h"

#include <fmt/format.h>

#include "runtime/Errors.h"
#include "runtime/Memory.h"

namespace Kelstore {
namespace {

constexpr uint64_t kNsPerMs = 1'000'000;

absl::StatusOr<std::string> contentOf(const Runtime::File& file, uint64_t maxBytes) try {
  return file.content(maxBytes);
} catch (const std::bad_alloc&) {
  return absl::ResourceExhaustedError("out of memory, what was read before stays");
}

}  // namespace

FileSource::FileSource(std::string path, LayeredState& layers, Runtime::Io& io, const Zavro::Clock& clock,
                       const Limits& limits)
    : path_(std::move(path)),
      limits_(limits),
      io_(io),
      clock_(clock),
      layer_("file:" + path_, path_, layers, clock) {}

void FileSource::start() {
  watch_ = io_.watch(path_, [this] { changed(); });
  read();
}

void FileSource::changed() {
  if (reading_) {
    changedMeanwhile_ = true;
    return;
  }
  uint64_t nowNs = clock_.monotonicNs();
  if (!unreadSinceNs_) unreadSinceNs_ = nowNs;
  if (!timer_ || nowNs - *unreadSinceNs_ < kLongestQuietMs * kNsPerMs) readAfter(kQuietMs);
}

void FileSource::readAfter(uint64_t milliseconds) {
  timer_ = io_.after(milliseconds, [this] { read(); });
}

void FileSource::read() {
  timer_.reset();
  unreadSinceNs_.reset();
  reading_ = true;
  changedMeanwhile_ = false;
  answerBy_ = io_.after(kAnswerMs, [this] { hangs(); });
  offLoop_.run(
      [path = path_, limits = limits_, before = layer_.snapshot()] { return attempt(path, limits, *before); },
      [this](Attempt attempt) { attempted(std::move(attempt)); });
}

// Other sources are not to wait for this one.
void FileSource::hangs() {
  Reading reading;
  reading.error = fmt::format(": not read within {} s, still waiting for it; what was read before stays",
                              kAnswerMs / 1000);
  layer_.readingIs(std::move(reading));
}

void FileSource::attempted(Attempt attempt) {
  reading_ = false;
  answerBy_.reset();
  if (changedMeanwhile_) readAfter(kQuietMs);
  if (attempt.reading.snapshot == nullptr && !failureCounts(attempt)) {
    if (!timer_) readAfter(kConfirmMs);
    return;
  }
  badSinceNs_ = 0;
  auto before = layer_.snapshot();
  layer_.readingIs(std::move(attempt.reading));
  // Freeing a large snapshot takes longer than a slice may. So much was freed since the file was read that it
  // is worth giving back.
  io_.offLoop(
      [before = std::move(before)]() mutable {
        before.reset();
        Runtime::returnFreedMemory();
      },
      [] {});
}

// Takes note of a failure. It counts if the unchanged file fails again after kConfirmMs, or if files fail for
// kPatienceMs: returns whether it does.
bool FileSource::failureCounts(const Attempt& attempt) {
  uint64_t nowNs = clock_.monotonicNs();
  bool first = badSinceNs_ == 0;
  bool same = !first && attempt.signature == badSignature_ && !changedMeanwhile_;
  badSignature_ = attempt.signature;
  if (first) badSinceNs_ = nowNs == 0 ? 1 : nowNs;
  uint64_t lasted = first ? 0 : nowNs - badSinceNs_;
  return (same && lasted >= kConfirmMs * kNsPerMs) || lasted >= kPatienceMs * kNsPerMs;
}

FileSource::Attempt FileSource::attempt(const std::string& path, const Limits& limits,
                                        const Snapshot& before) {
  Attempt result;
  auto failed = [&result](const absl::Status& error) {
    result.reading.error = ": " + Runtime::textOf(error);
    return std::move(result);
  };
  absl::StatusOr<Runtime::File> file = Runtime::File::open(path);
  if (!file.ok()) return failed(file.status());
  result.signature = Runtime::signatureOf(file->about());
  absl::StatusOr<std::string> text = contentOf(*file, limits.documentBytes);
  if (!text.ok()) return failed(text.status());
  absl::StatusOr<struct stat> end = file->aboutNow();
  if (!end.ok()) return failed(end.status());
  // A file that is written meanwhile may be half old and half new, and still parse.
  if (Runtime::signatureOf(*end) != result.signature)
    return failed(absl::AbortedError("changed while it was read"));
  result.reading = readingOf(*std::move(text), before, limits);
  return result;
}

}  // namespace Kelstore
