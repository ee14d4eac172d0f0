#include "host/ValueReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace Host {
namespace {

using Json = nlohmann::ordered_json;

// Values that are looked at for one line of the answer.
constexpr size_t kLookedAt = 256;

class ValueReply final : public Reply {
 public:
  ValueReply(const Kelstore::LayeredState& layers, std::vector<std::string> sources,
             std::vector<std::string> below)
      : layers_(layers), sources_(std::move(sources)), below_(std::move(below)) {
    for (size_t layer = 0; layer < sources_.size(); ++layer) snapshots_.push_back(layers.snapshot(layer));
    begin();
  }

  bool next(std::string& line) override {
    if (done_) return false;
    done_ = layer_ == snapshots_.size();
    Json answer{{"ok", true}};
    if (done_) {
      answer["done"] = true;
    } else {
      answer["values"] = values();
    }
    line = answer.dump(-1, ' ', false, Json::error_handler_t::replace);
    return true;
  }

 private:
  void begin() {
    if (layer_ < snapshots_.size()) at_ = snapshots_[layer_]->begin();
  }

  Json values() {
    Json all = Json::array();
    const Kelstore::Snapshot& snapshot = *snapshots_[layer_];
    for (size_t i = 0; i < kLookedAt && at_ != snapshot.end(); ++i, ++at_) add(at_->first, at_->second, all);
    if (at_ == snapshot.end()) {
      ++layer_;
      begin();
    }
    return all;
  }

  void add(const Kelstore::Path& path, const Kelstore::Value& value, Json& all) const {
    std::vector<std::string> segments = path.segments();
    bool wanted =
        segments.size() >= below_.size() && std::equal(below_.begin(), below_.end(), segments.begin());
    if (!wanted || value.is<Kelstore::Present>()) return;
    all.push_back({{"path", std::move(segments)},
                   {"source", sources_[layer_]},
                   {"counts", layers_.deciding(path) == layer_},
                   {"value", Kelstore::encode(value)}});
  }

  const Kelstore::LayeredState& layers_;
  std::vector<std::string> sources_;
  std::vector<std::string> below_;
  std::vector<std::shared_ptr<const Kelstore::Snapshot>> snapshots_;  // by layer
  size_t layer_ = 0;
  Kelstore::Snapshot::const_iterator at_;
  bool done_ = false;
};

}  // namespace

std::unique_ptr<Reply> valueReport(const Kelstore::LayeredState& layers, std::vector<std::string> sources,
                                   std::vector<std::string> below) {
  return std::make_unique<ValueReply>(layers, std::move(sources), std::move(below));
}

}  // namespace Host
