// The published state of a pipeline: which input streams have been scanned, which outputs are ready.
#pragma once

#include <string>
#include <vector>

#include "platform/kor/Notifier.h"
#include "platform/kor/Type.h"

namespace TrelSnmp::Agent {

// A list of named flags that starts all false and notifies of every change.
class Flags {
 public:
  explicit Flags(std::vector<std::string> names) : names_(std::move(names)), flags_(names_.size(), false) {}

  size_t size() const { return flags_.size(); }
  const std::string& name(size_t i) const { return names_[i]; }
  bool get(size_t i) const { return flags_[i]; }
  bool all() const;
  // Notifies when the flag changes.
  void set(size_t i, bool on);
  // Clears every flag and notifies once, so that no subscriber sees some of them cleared.
  void clear();
  [[nodiscard]] Kor::Subscription subscribe(std::function<void()> callback) const {
    return notifier_.subscribe(std::move(callback));
  }

 private:
  std::vector<std::string> names_;
  std::vector<bool> flags_;
  Kor::Notifier<> notifier_;
};

// One flag for each input stream, "<stream>Scan": its scan, with that of every child machine, has completed.
class InputSmScanState final : public Kor::Object {
 public:
  explicit InputSmScanState(const std::vector<std::string>& streams);
  Flags& scans() { return scans_; }
  const Flags& scans() const { return scans_; }
  bool idle() const { return idle_; }
  // The initial scan is done and no stream has anything left to work off.
  void idleIs(bool idle) { idle_ = idle; }
  // Derives idle() anew, by name.
  std::function<void()> handleIdle;
  const Kor::Type& korType() const override { return type_; }

 private:
  Flags scans_;
  bool idle_ = false;
  Kor::Type type_;
};

// One flag for each output, "<output>Ready", and their conjunction.
class OutputState final : public Kor::Object {
 public:
  explicit OutputState(const std::vector<std::string>& outputs);
  Flags& outputs() { return outputs_; }
  const Flags& outputs() const { return outputs_; }
  bool ready() const { return ready_; }
  // Derives ready() from the outputs' flags and notifies when it changes.
  void handleReady();
  [[nodiscard]] Kor::Subscription subscribeReady(std::function<void()> callback) const {
    return notifier_.subscribe(std::move(callback));
  }
  const Kor::Type& korType() const override { return type_; }

 private:
  Flags outputs_;
  bool ready_ = false;
  Kor::Notifier<> notifier_;
  Kor::Type type_;
  Kor::Subscription onOutputs_;
};

}  // namespace TrelSnmp::Agent
