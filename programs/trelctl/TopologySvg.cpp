// The members stand on a circle that is so large that what belongs to one of them (the interface indexes and
// the marks of faults at its ends of links, on a ring around it) touches nothing that belongs to another.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <numbers>

#include "programs/trelctl/Topology.h"
#include "runtime/Text.h"

namespace TrelCtl {
namespace {

// In pixels.
constexpr double kNode = 21;    // the radius of a member
constexpr double kLine = 13;    // the height of a line of text
constexpr double kDigit = 7.4;  // the width of a digit
constexpr double kMark = 8;     // the radius of a mark
constexpr double kGap = 8;
constexpr double kLeastRadius = 150;
constexpr double kLegendWidth = 640;
constexpr double kLegendLine = 20;
constexpr size_t kMostWithIndexes = 24;
constexpr size_t kMostFaults = 12;
constexpr std::array kStates = {"reachable", "degraded", "unreachable", "initializing", "disabled", ""};

struct Point {
  double x = 0;
  double y = 0;
};

std::string escapedXml(const std::string& text) {
  std::string safe;
  for (char c : Runtime::escaped(text)) {
    switch (c) {
      case '&':
        safe += "&amp;";
        break;
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '"':
        safe += "&quot;";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

class Picture final {
 public:
  explicit Picture(const Topology& topology) : topology_(topology), faults_(faultsOf(topology)) {
    size_t i = 0;
    for (int member : topology.members) order_[member] = i++;
    layOut();
  }

  std::string svg() {
    std::string lines, labels, marks, nodes;
    // What is not well is drawn last, so that it is on top.
    for (bool well : {true, false}) {
      for (const LinkEnd& end : topology_.links) {
        if (order_.contains(end.from) && order_.contains(end.to) && well == (end.state == "reachable"))
          lines += line(end);
      }
    }
    for (const LinkEnd& end : topology_.links) {
      if (withIndexes_ && end.ifIndex != 0) labels += index(end);
      if (end.faulty()) marks += mark(end);
    }
    for (const auto& [member, position] : order_) nodes += node(member);
    return head() + lines + labels + marks + nodes + legend() + "</svg>\n";
  }

 private:
  void layOut() {
    double count = std::max<double>(2, static_cast<double>(order_.size()));
    withIndexes_ = order_.size() <= kMostWithIndexes;
    size_t digits = 1;
    for (const LinkEnd& end : topology_.links) digits = std::max(digits, std::to_string(end.ifIndex).size());
    width_ = withIndexes_ ? static_cast<double>(digits) * kDigit : 0;
    // Two neighbouring links of a member are as far apart there as a line of text is high.
    ring_ = kNode + 1.5 * kGap;
    if (withIndexes_) ring_ = std::max(ring_, kLine / (2 * std::sin(std::numbers::pi / (2 * count))));
    double ofMember = ring_ + width_ + 2 * kMark + kGap;
    radius_ = std::max(kLeastRadius, ofMember / std::sin(std::numbers::pi / count));
    double side = 2 * (radius_ + kNode + 2 * kGap);
    size_ = {std::max(side, kLegendWidth), side};
  }

  Point place(int member) const {
    double angle =
        2 * std::numbers::pi * static_cast<double>(order_.at(member)) / static_cast<double>(order_.size()) -
        std::numbers::pi / 2;
    return {size_.x / 2 + radius_ * std::cos(angle), size_.y / 2 + radius_ * std::sin(angle)};
  }
  // The point that is so far from the end's member toward the other one.
  Point along(const LinkEnd& end, double distance) const {
    Point from = place(end.from);
    Point to = place(end.to);
    double length = std::hypot(to.x - from.x, to.y - from.y);
    if (length == 0) return {from.x, from.y + distance};  // a member's to itself
    return {from.x + (to.x - from.x) * distance / length, from.y + (to.y - from.y) * distance / length};
  }

  std::string head() const {
    double faultLines = static_cast<double>(std::min(faults_.size(), kMostFaults + 1));
    double height = size_.y + kLegendLine * (2 + faultLines);
    return fmt::format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0:.0f}\" height=\"{1:.0f}\" viewBox=\"0 0 "
        "{0:.0f} "
        "{1:.0f}\" font-family=\"sans-serif\" font-size=\"11\">\n"
        "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n",
        size_.x, height);
  }

  static std::string sentence(const LinkEnd& end) {
    std::string text =
        fmt::format("{} to {}: {}", end.from, end.to, end.state.empty() ? "no report" : end.state);
    if (!end.interface.empty()) text += ", " + end.interface;
    if (end.ifIndex != 0) text += fmt::format(", ifIndex {}", end.ifIndex);
    return escapedXml(text);
  }

  // From the member to the middle of the link.
  std::string line(const LinkEnd& end) const {
    Point from = place(end.from);
    Point to = place(end.to);
    const char* dashes = end.state == "unreachable" ? " stroke-dasharray=\"7 4\"" : "";
    if (end.state.empty() || end.state == "disabled") dashes = " stroke-dasharray=\"2 4\"";
    return fmt::format(
        "<line x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\" stroke=\"{}\" stroke-width=\"{}\"{}>"
        "<title>{}</title></line>\n",
        from.x, from.y, (from.x + to.x) / 2, (from.y + to.y) / 2, colourOf(end.state),
        end.state == "reachable" ? 1.6 : 2.6, dashes, sentence(end));
  }

  // Along the line, never upside down.
  std::string index(const LinkEnd& end) const {
    Point at = along(end, ring_ + width_ / 2);
    Point from = place(end.from);
    double angle = std::atan2(at.y - from.y, at.x - from.x) * 180 / std::numbers::pi;
    if (angle > 90.1 || angle < -89.9) angle += 180;
    return fmt::format(
        "<text x=\"{0:.1f}\" y=\"{1:.1f}\" transform=\"rotate({2:.1f} {0:.1f} {1:.1f})\" "
        "text-anchor=\"middle\" "
        "dy=\"4\" stroke=\"white\" stroke-width=\"4\" stroke-linejoin=\"round\" "
        "paint-order=\"stroke\">{3}</text>\n",
        at.x, at.y, angle, end.ifIndex);
  }

  std::string mark(const LinkEnd& end) const {
    Point at = along(end, ring_ + width_ + kMark + kGap / 2);
    return fmt::format(
        "<g><title>{} to {}: {}</title><circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"{}\" fill=\"white\" "
        "stroke=\"#d62728\" "
        "stroke-width=\"1.5\"/><text x=\"{:.1f}\" y=\"{:.1f}\" dy=\"4\" text-anchor=\"middle\" "
        "font-weight=\"bold\" "
        "fill=\"#d62728\">!</text></g>\n",
        end.from, end.to, escapedXml(end.verdict), at.x, at.y, kMark - 1, at.x, at.y);
  }

  std::string node(int member) const {
    Point at = place(member);
    bool silent = topology_.silent.contains(member);
    return fmt::format(
        "<g><title>member {0}{1}</title><circle cx=\"{2:.1f}\" cy=\"{3:.1f}\" r=\"{4}\" fill=\"{5}\" "
        "stroke=\"{7}\" "
        "stroke-width=\"2\"{6}/><text x=\"{2:.1f}\" y=\"{3:.1f}\" dy=\"6\" text-anchor=\"middle\" "
        "font-size=\"17\" "
        "font-weight=\"bold\" fill=\"#333\">{0}</text></g>\n",
        member, silent ? ", of which only others say something" : "", at.x, at.y, kNode,
        silent ? "#f4f4f4" : "#e8f0fa", silent ? " stroke-dasharray=\"4 3\"" : "",
        silent ? "#d62728" : "#333");
  }

  std::string legend() const {
    double y = size_.y + kLegendLine / 2;
    double step = size_.x / static_cast<double>(kStates.size());
    std::string text;
    for (size_t i = 0; i < kStates.size(); ++i) {
      double x = step * static_cast<double>(i) + kGap;
      bool none = std::string_view(kStates[i]).empty();
      text += fmt::format(
          "<line x1=\"{:.0f}\" y1=\"{:.0f}\" x2=\"{:.0f}\" y2=\"{:.0f}\" stroke=\"{}\" stroke-width=\"4\"/>"
          "<text x=\"{:.0f}\" y=\"{:.0f}\">{}</text>\n",
          x, y, x + 18, y, colourOf(kStates[i]), x + 24, y + 4, none ? "no report" : kStates[i]);
    }
    return text + faultLines(y + kLegendLine);
  }

  std::string faultLines(double y) const {
    std::string text;
    for (size_t i = 0; i < std::min(faults_.size(), kMostFaults); ++i) text += faultLine(faults_[i], y);
    if (faults_.size() > kMostFaults)
      text += faultLine(fmt::format("and {} more", faults_.size() - kMostFaults), y);
    return text;
  }
  static std::string faultLine(const std::string& fault, double& y) {
    y += kLegendLine;
    return fmt::format("<text x=\"{}\" y=\"{:.0f}\" fill=\"#d62728\">! {}</text>\n", kGap,
                       y - kLegendLine + 4, escapedXml(fault));
  }

  const Topology& topology_;
  const std::vector<std::string> faults_;
  std::map<int, size_t> order_;
  bool withIndexes_ = true;
  double width_ = 0;   // of an index
  double ring_ = 0;    // where indexes begin, from the member
  double radius_ = 0;  // of the circle
  Point size_;         // without the legend
};

}  // namespace

std::string topologySvg(const Topology& topology) { return Picture(topology).svg(); }

}  // namespace TrelCtl
