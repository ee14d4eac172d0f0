// A source whose document is part of the program.
#pragma once

#include <string>

#include "kelstore/DocumentLayer.h"

namespace Kelstore {

class EmbeddedSource final : public Source {
 public:
  // Layers and clock outlive the source.
  EmbeddedSource(std::string document, LayeredState& layers, const Zavro::Clock& clock)
      : document_(std::move(document)), layer_("embedded", "embedded", layers, clock) {}

  void start() override { layer_.readingIs(readingOf(document_, *layer_.snapshot(), {})); }
  SourceStatus status() const override { return layer_.status(); }

 private:
  std::string document_;
  DocumentLayer layer_;
};

}  // namespace Kelstore
