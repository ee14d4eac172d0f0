#include "pipelines/framework/States.h"

#include <algorithm>

namespace TrelSnmp::Agent {
namespace {

std::vector<std::string> withSuffix(const std::vector<std::string>& names, const char* suffix) {
  std::vector<std::string> result;
  for (const std::string& name : names) result.push_back(name + suffix);
  return result;
}

// Makes each flag an attribute of the object that owns them.
template <class Owner>
void describeFlags(Kor::Type& type, const Flags& flags, const Flags& (Owner::*accessor)() const) {
  for (size_t i = 0; i < flags.size(); ++i) {
    type.attributeIs({flags.name(i),
                      [accessor, i](const Kor::Object& object) {
                        return Kor::toText((static_cast<const Owner&>(object).*accessor)().get(i));
                      },
                      {}});
  }
}

}  // namespace

bool Flags::all() const {
  return std::all_of(flags_.begin(), flags_.end(), [](bool on) { return on; });
}

void Flags::set(size_t i, bool on) {
  if (flags_[i] == on) return;
  flags_[i] = on;
  notifier_.notify();
}

void Flags::clear() {
  if (std::none_of(flags_.begin(), flags_.end(), [](bool on) { return on; })) return;
  flags_.assign(flags_.size(), false);
  notifier_.notify();
}

InputSmScanState::InputSmScanState(const std::vector<std::string>& streams)
    : scans_(withSuffix(streams, "Scan")),
      type_(Kor::TypeBuilder<InputSmScanState>("InputSmScanState")
                .attribute("idle", &InputSmScanState::idle)
                .operation("handleIdle", [](InputSmScanState& s) { s.handleIdle(); })
                .build()) {
  describeFlags<InputSmScanState>(type_, scans_, &InputSmScanState::scans);
}

OutputState::OutputState(const std::vector<std::string>& outputs)
    : outputs_(withSuffix(outputs, "Ready")),
      type_(Kor::TypeBuilder<OutputState>("OutputState")
                .attribute("ready", &OutputState::ready)
                .operation("handleReady", &OutputState::handleReady)
                .build()),
      onOutputs_(outputs_.subscribe([this] { handleReady(); })) {
  describeFlags<OutputState>(type_, outputs_, &OutputState::outputs);
}

void OutputState::handleReady() {
  bool ready = outputs_.all();
  if (ready == ready_) return;
  ready_ = ready;
  notifier_.notify();
}

}  // namespace TrelSnmp::Agent
