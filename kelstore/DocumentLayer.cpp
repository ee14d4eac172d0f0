#include "kelstore/DocumentLayer.h"

#include <algorithm>
#include <new>
#include <set>

#include "kelstore/Document.h"
#include "kelstore/Trace.h"
#include "runtime/Memory.h"

namespace Kelstore {
namespace {

using Lumalog::kErrorLevel;
using Lumalog::kWarningLevel;
// Lines that are logged for one reading, at most.
constexpr size_t kMaxLines = 20;
// What a value's entities and rows take, roughly.
constexpr size_t kMirroredBytes = 200;

}  // namespace

Reading readingOf(std::string text, const Snapshot& before, const Limits& limits) try {
  Reading reading;
  Document document = parseDocument(text, limits);
  if (document.unusable) {
    reading.error = *document.unusable;
    return reading;
  }
  text = {};
  for (Document::Fault& fault : document.faults) reading.faults.push_back(std::move(fault.text));
  reading.setAside = document.faults.size();
  for (Document::Surplus& surplus : document.surplus) {
    reading.faults.push_back(std::move(surplus.text));
    reading.setAside += surplus.values;
  }
  reading.warnings = std::move(document.warnings);
  reading.snapshot = std::make_shared<const Snapshot>(withLastGood(std::move(document), before));
  reading.changed = differences(before, *reading.snapshot);
  Runtime::needMemoryFor(reading.changed.size() * kMirroredBytes);
  return reading;
} catch (const std::bad_alloc&) {
  Reading reading;
  reading.error = ": out of memory, what was read before stays";
  return reading;
}

DocumentLayer::DocumentLayer(std::string name, std::string subject, LayeredState& layers,
                             const Zavro::Clock& clock)
    : subject_(std::move(subject)), layers_(layers), clock_(clock), layer_(layers.addLayer()) {
  status_.name = std::move(name);
}

void DocumentLayer::readingIs(Reading reading) {
  bool usable = reading.snapshot != nullptr;
  if (usable) {
    tellNews(kErrorLevel, faults_, reading.faults);
    tellNews(kWarningLevel, warnings_, reading.warnings);
    faults_ = std::move(reading.faults);
    warnings_ = std::move(reading.warnings);
    status_.state = faults_.empty() ? SourceStatus::State::current : SourceStatus::State::partial;
    status_.error = faults_.empty() ? "" : fmt::format("{}: {}", subject_, faults_.front());
    status_.staleSinceUtcNs = 0;
    status_.paths = reading.snapshot->size();
    status_.setAside = reading.setAside;
    if (!reading.changed.empty()) status_.lastChangeUtcNs = clock_.utcNs();
    layers_.snapshotIs(layer_, std::move(reading.snapshot), std::move(reading.changed));
  } else {
    std::string error = subject_ + reading.error;
    if (error != status_.error) traceHandle.trace({subject_, ""}, kErrorLevel, "{}", error);
    if (status_.staleSinceUtcNs == 0) status_.staleSinceUtcNs = clock_.utcNs();
    status_.state = SourceStatus::State::stale;
    status_.error = std::move(error);
  }
  layers_.settledIs(layer_);
}

// Logs the lines that are new, so that a lasting problem is not logged again with every change.
void DocumentLayer::tellNews(int level, const std::vector<std::string>& before,
                             const std::vector<std::string>& now) const {
  std::set<std::string_view> known(before.begin(), before.end());
  size_t told = 0;
  size_t untold = 0;
  for (const std::string& line : now) {
    if (known.contains(line)) continue;
    if (told == kMaxLines) {
      ++untold;
      continue;
    }
    // A line begins with the path.
    traceHandle.trace({subject_, line.substr(0, line.find(": "))}, level, "{}: {}", subject_, line);
    ++told;
  }
  if (untold != 0) traceHandle.trace({subject_, ""}, level, "{}: {} more like these", subject_, untold);
}

}  // namespace Kelstore
