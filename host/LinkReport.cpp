#include "host/LinkReport.h"

#include <nlohmann/json.hpp>
#include <optional>

#include "host/StatusReport.h"

namespace Host {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kLinksPerLine = 64;

// Null for what is not known.
Json endOf(const Health::LinkEnd& end) {
  const Lanix::IntfId* interface = end.interface();
  auto state = end.state();
  return {{"interface", interface == nullptr ? Json(nullptr) : Json(interface->name())},
          {"ifIndex", end.ifIndex == 0 ? Json(nullptr) : Json(end.ifIndex)},
          {"state", state ? Json(Kor::nameOf(*state)) : Json(nullptr)},
          {"lastChange", utcTime(end.report == nullptr ? 0 : end.report->lastChangeNs())},
          {"changes", end.changes}};
}

class LinkReply final : public Reply {
 public:
  explicit LinkReply(const Health::Links& links) : links_(links) {}

  bool next(std::string& line) override {
    if (done_) return false;
    Json answer{{"ok", true}};
    Json all = Json::array();
    auto at = last_ ? links_.all().upper_bound(*last_) : links_.all().begin();
    for (; all.size() < kLinksPerLine && at != links_.all().end(); ++at) {
      last_ = at->first;
      if (at->second.sinceUtcNs != 0) all.push_back(linkOf(at->first, at->second));
    }
    done_ = all.empty();
    if (done_) {
      answer["done"] = true;
    } else {
      answer["links"] = std::move(all);
    }
    line = answer.dump(-1, ' ', false, Json::error_handler_t::replace);
    return true;
  }

 private:
  static Json linkOf(const Health::MemberPair& pair, const Health::Link& link) {
    return {{"low", pair.first.text()},
            {"high", pair.second.text()},
            {"verdict", Kor::nameOf(link.verdict)},
            {"since", utcTime(link.sinceUtcNs)},
            {"changes", link.changes},
            {"ends", {endOf(link.low), endOf(link.high)}}};
  }

  const Health::Links& links_;
  std::optional<Health::MemberPair> last_;
  bool done_ = false;
};

}  // namespace

std::unique_ptr<Reply> linkReport(const Health::Links& links) { return std::make_unique<LinkReply>(links); }

}  // namespace Host
