#include "platform/rvx/Registry.h"

namespace Rvx {

RegistryKey RegistryKey::make(Zavro::Ptr<const Kor::Object> source, std::string sourcePath,
                              Zavro::Ptr<const Kor::Object> target, std::string targetPath) {
  RegistryKey key;
  key.source_ = std::move(source);
  key.sourcePath_ = std::move(sourcePath);
  key.target_ = std::move(target);
  key.targetPath_ = std::move(targetPath);
  return key;
}

GlobalState& GlobalState::get() {
  static auto* state = new GlobalState;
  return *state;
}

void GlobalState::delFromRegistry(const RegistryKey& key) {
  auto found = keys_.find(key);
  if (found != keys_.end() && --found->second == 0) keys_.erase(found);
}

}  // namespace Rvx
