// The layer of a source that reads one document: keeps the last good values, and logs each problem once. On
// the event loop's thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kelstore/LayeredState.h"
#include "kelstore/Limits.h"
#include "kelstore/Source.h"
#include "platform/zavro/Clock.h"

namespace Kelstore {

// The result of reading a document.
struct Reading {
  std::shared_ptr<const Snapshot> snapshot;  // null: unusable, and error says why
  std::vector<Path> changed;                 // at which the snapshot differs from the one before, sorted
  std::string error;                         // of an unusable document: what follows its name
  std::vector<std::string> faults;           // values that cannot be used, or are too many
  size_t setAside = 0;                       // how many values these are
  std::vector<std::string> warnings;
};

// Parses the text and compares it with `before`. On any thread. Without enough memory for that, and for what
// the mirror makes of it, the reading is unusable.
Reading readingOf(std::string text, const Snapshot& before, const Limits& limits);

class DocumentLayer {
 public:
  // name: in the status. subject: what messages begin with, such as the file's path. Layers and clock outlive
  // this.
  DocumentLayer(std::string name, std::string subject, LayeredState& layers, const Zavro::Clock& clock);

  const std::shared_ptr<const Snapshot>& snapshot() const { return layers_.snapshot(layer_); }
  // Takes over what was read; an unusable reading changes no value. Settles the layer.
  void readingIs(Reading reading);
  SourceStatus status() const { return status_; }

 private:
  void tellNews(int level, const std::vector<std::string>& before, const std::vector<std::string>& now) const;

  std::string subject_;
  LayeredState& layers_;
  const Zavro::Clock& clock_;
  LayeredState::Layer layer_;
  SourceStatus status_;
  std::vector<std::string> faults_;
  std::vector<std::string> warnings_;
};

}  // namespace Kelstore
