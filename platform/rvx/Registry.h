// The registry of declared derivations: which collection is derived from which. For inspection only; it
// schedules nothing.
#pragma once

#include <map>
#include <string>
#include <tuple>

#include "platform/kor/Type.h"

namespace Rvx {

// "targetPath of target is derived from sourcePath of source". Keeps both objects alive.
class RegistryKey {
 public:
  static RegistryKey make(Zavro::Ptr<const Kor::Object> source, std::string sourcePath,
                          Zavro::Ptr<const Kor::Object> target, std::string targetPath);

  const std::string& sourcePath() const { return sourcePath_; }
  const std::string& targetPath() const { return targetPath_; }
  const Zavro::Ptr<const Kor::Object>& source() const { return source_; }
  const Zavro::Ptr<const Kor::Object>& target() const { return target_; }

  bool operator==(const RegistryKey& other) const = default;
  bool operator<(const RegistryKey& other) const {
    return std::tie(source_, sourcePath_, target_, targetPath_) <
           std::tie(other.source_, other.sourcePath_, other.target_, other.targetPath_);
  }

 private:
  RegistryKey() = default;
  Zavro::Ptr<const Kor::Object> source_;
  std::string sourcePath_;
  Zavro::Ptr<const Kor::Object> target_;
  std::string targetPath_;
};

class GlobalState {
 public:
  // The process's one registry.
  static GlobalState& get();

  // A key stays until it has been deleted as often as it was added.
  void addToRegistry(const RegistryKey& key) { ++keys_[key]; }
  void delFromRegistry(const RegistryKey& key);
  bool checkRegistry(const RegistryKey& key) const { return keys_.contains(key); }
  // The keys, and how often each was added.
  const std::map<RegistryKey, size_t>& registry() const { return keys_; }

 private:
  std::map<RegistryKey, size_t> keys_;
};

}  // namespace Rvx
