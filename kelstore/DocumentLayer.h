// The layer of a source whose state is one document: keeps the last good values, tells what is wrong and
// remembers it until the input is good again.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kelstore/LayeredState.h"
#include "kelstore/Limits.h"
#include "kelstore/Source.h"
#include "platform/zavro/Clock.h"

namespace Kelstore {

// What reading the document came to. Made on any thread.
struct Reading {
  std::shared_ptr<const Snapshot> snapshot;  // null: unusable, and error says why
  std::vector<Path> changed;
  std::string error;                // of an unusable document: what follows its name
  std::vector<std::string> faults;  // values that cannot be used, or are too many
  size_t setAside = 0;              // how many values these are
  std::vector<std::string> warnings;
};

// Parses the text and holds it against what was there before. On any thread. Where the memory for that, or
// for what becomes of it, is not to be had, the document is unusable.
Reading readingOf(std::string text, const Snapshot& before, const Limits& limits);

class DocumentLayer {
 public:
  // `subject` is what messages begin with, such as the file's path. Layers and clock outlive the layer.
  DocumentLayer(std::string name, std::string subject, LayeredState& layers, const Zavro::Clock& clock);

  const std::shared_ptr<const Snapshot>& snapshot() const { return layers_.snapshot(layer_); }
  // Takes over what was read, or keeps what is there when it is unusable. Settles the layer.
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
