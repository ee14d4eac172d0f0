// The links of a cluster, and their picture.
#include "programs/trelctl/Topology.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <numbers>
#include <regex>

namespace TrelCtl {
namespace {

using testing::HasSubstr;

// A cluster as a daemon tells of it.
class Cluster {
 public:
  Cluster& link(int from, int to, const std::string& intf) {
    end(from, to)["interface"] = intf.empty() ? Json(nullptr) : Json(intf);
    return *this;
  }
  Cluster& index(int from, int to, uint32_t ifIndex) {
    end(from, to)["ifIndex"] = ifIndex == 0 ? Json(nullptr) : Json(ifIndex);
    return *this;
  }
  Cluster& state(int from, int to, const std::string& name) {
    reachability_.rows.push_back({{"srcId", from}, {"destId", to}, {"state", 3}, {"stateName", name}});
    end(from, to)["state"] = name;
    return *this;
  }
  Cluster& verdict(int low, int high, const std::string& name) {
    end(low, high);
    links_[{low, high}]["verdict"] = name;
    return *this;
  }
  Cluster& all(int from, int to, const std::string& name = "reachable") {
    std::string intf = "Backplane" + std::to_string(from) + "/" + std::to_string(to);
    return link(from, to, intf)
        .index(from, to, static_cast<uint32_t>(from * 1000 + to))
        .state(from, to, name);
  }
  Topology topology() const {
    Json links = Json::array();
    for (const auto& [pair, link] : links_) links.push_back(link);
    return topologyOf({reachability_}, links);
  }

 private:
  Json& end(int from, int to) {
    std::pair<int, int> pair = std::minmax(from, to);
    if (!links_.contains(pair)) {
      const Json unknown = {{"interface", nullptr}, {"ifIndex", nullptr}, {"state", nullptr}};
      links_[pair] = {{"low", std::to_string(pair.first)},
                      {"high", std::to_string(pair.second)},
                      {"verdict", "ok"},
                      {"ends", Json::array({unknown, unknown})}};
    }
    return links_[pair]["ends"][from < to ? 0 : 1];
  }

  std::map<std::pair<int, int>, Json> links_;
  ShownTable reachability_{"veldaTrelReachabilityTable", 2, {}};
};

Cluster fullMesh(int members) {
  Cluster cluster;
  for (int from = 1; from <= members; ++from) {
    for (int to = 1; to <= members; ++to) {
      if (from != to) cluster.all(from, to);
    }
  }
  return cluster;
}

std::string faultsOf(const Cluster& cluster) {
  std::string text;
  for (const std::string& fault : faultsOf(cluster.topology())) text += fault + "\n";
  return text;
}

TEST(TopologyTest, LinksWithInterfaceIndexAndState) {
  Cluster cluster;
  cluster.all(1, 2).all(2, 1, "degraded");
  EXPECT_EQ(topologyText(cluster.topology()),
            "2 members, 2 ends of links, 0 faults\n"
            "\n"
            "  from  to  interface     ifIndex  state\n"
            "     1   2  Backplane1/2     1002  reachable\n"
            "     2   1  Backplane2/1     2001  degraded\n");
}

TEST(TopologyTest, VerdictOfALink_IsOneFault) {
  Cluster cluster = fullMesh(3);
  cluster.verdict(1, 2, "noIndex").verdict(2, 3, "down");
  EXPECT_EQ(faultsOf(cluster), "link 1-2: noIndex\nlink 2-3: down\n");
}

TEST(TopologyTest, SharedIndex_WhoseItIs_AndOverWhichInterfaces) {
  Cluster cluster;
  cluster.all(1, 2).all(2, 1).index(2, 1, 1002).verdict(1, 2, "sharedIndex");
  EXPECT_EQ(faultsOf(cluster),
            "link 1-2: sharedIndex\n"
            "ifIndex 1002 is given to 1 to 2 (Backplane1/2), 2 to 1 (Backplane2/1); "
            "each needs an interface and an index of its own\n");
}

TEST(TopologyTest, IndexThatManyShare_IsOneLineThatShowsSome) {
  Cluster cluster;
  for (int to = 2; to <= 12; ++to) cluster.link(1, to, "Backplane1").index(1, to, 7).all(to, 1);
  EXPECT_THAT(faultsOf(cluster), HasSubstr("1 to 9 (Backplane1) and 3 more; each needs"));
}

TEST(TopologyTest, MemberOfWhichOnlyOthersSpeak_IsOneFault) {
  Cluster cluster = fullMesh(3);
  cluster.link(4, 1, "Backplane4/1").all(1, 4).verdict(1, 4, "oneSided");
  EXPECT_EQ(faultsOf(cluster), "member 4: only others name it\nlink 1-4: oneSided\n");
}

TEST(TopologyTest, EndOfWhichNothingIsKnown_IsNotShown) {
  Cluster cluster;
  cluster.all(1, 2).verdict(1, 2, "oneSided");
  EXPECT_EQ(topologyText(cluster.topology()),
            "2 members, 1 ends of links, 2 faults\n"
            "  ! member 2: only others name it\n"
            "  ! link 1-2: oneSided\n"
            "\n"
            "  from  to  interface     ifIndex  state\n"
            "     1   2  Backplane1/2     1002  reachable\n");
}

TEST(TopologyTest, AsJson_NullForWhatIsMissing) {
  Cluster cluster;
  cluster.all(1, 2).state(2, 1, "degraded").verdict(1, 2, "noIndex");
  EXPECT_EQ(
      topologyJson(cluster.topology()).dump(),
      R"({"members":[{"member":1,"silent":false},{"member":2,"silent":false}],"links":[)"
      R"({"from":1,"to":2,"interface":"Backplane1/2","ifIndex":1002,"state":"reachable","verdict":"noIndex","faults":["noIndex"]},)"
      R"({"from":2,"to":1,"interface":null,"ifIndex":null,"state":"degraded","verdict":"noIndex","faults":["noIndex"]}]})");
}

TEST(TopologyTest, AsDot_OneEdgeForBothDirections) {
  Cluster cluster;
  cluster.all(1, 2).all(2, 1, "unreachable").link(3, 1, "Backplane3/1");
  std::string dot = topologyDot(cluster.topology());
  EXPECT_THAT(dot, HasSubstr("  3 [style=dashed];\n"));
  EXPECT_THAT(dot,
              HasSubstr(R"(  1 -- 2 [color="#2e9e4f;0.5:#d62728", taillabel="1002", headlabel="2001"];)"));
  EXPECT_THAT(dot, HasSubstr("  3 -- 1 ["));
  EXPECT_EQ(dot.find("2 -- 1"), std::string::npos);
}

struct Box {
  double x, y, width, height, degrees;
};

// Where the indexes and marks of a picture are, as wide as a common font makes them.
std::vector<Box> boxesOf(const std::string& svg) {
  std::vector<Box> boxes;
  static const std::regex text(
      R"re(<text x="([0-9.]+)" y="([0-9.]+)" transform="rotate\(([-0-9.]+) [^>]*>([0-9]+)</text>)re");
  for (std::sregex_iterator at(svg.begin(), svg.end(), text), end; at != end; ++at) {
    boxes.push_back({std::stod((*at)[1]), std::stod((*at)[2]), 7.0 * static_cast<double>((*at)[4].length()),
                     9, std::stod((*at)[3])});
  }
  static const std::regex circle(R"re(<circle cx="([0-9.]+)" cy="([0-9.]+)" r="([0-9.]+)")re");
  for (std::sregex_iterator at(svg.begin(), svg.end(), circle), end; at != end; ++at) {
    double side = 2 * std::stod((*at)[3]) * 0.9;  // the corners of a circle's box are empty
    boxes.push_back({std::stod((*at)[1]), std::stod((*at)[2]), side, side, 0});
  }
  return boxes;
}

// Whether a line parallel to a side of either lies between the two rectangles.
bool apart(const Box& a, const Box& b) {
  auto separates = [](const Box& of, double degrees, const Box& other) {
    double angle = degrees * std::numbers::pi / 180;
    double distance = std::abs((other.x - of.x) * std::cos(angle) + (other.y - of.y) * std::sin(angle));
    auto reach = [&](const Box& box) {
      double turned = angle - box.degrees * std::numbers::pi / 180;
      return (box.width * std::abs(std::cos(turned)) + box.height * std::abs(std::sin(turned))) / 2;
    };
    return distance >= reach(of) + reach(other);
  };
  for (const Box* box : {&a, &b}) {
    for (double side : {0.0, 90.0}) {
      if (separates(a, box->degrees + side, b)) return true;
    }
  }
  return false;
}

class PictureTest : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Members, PictureTest, testing::Values(2, 3, 5, 16, 24));

TEST_P(PictureTest, NothingOverlaps) {
  Cluster cluster = fullMesh(GetParam());
  // Marks, and an index of many digits.
  cluster.verdict(1, 2, "noIndex").link(1, 2, "").index(2, 3, 4294967295);
  std::string svg = topologySvg(cluster.topology());
  std::vector<Box> boxes = boxesOf(svg);
  int members = GetParam();
  EXPECT_GE(boxes.size(), static_cast<size_t>(members * members - 1));
  for (size_t i = 0; i < boxes.size(); ++i) {
    for (size_t j = i + 1; j < boxes.size(); ++j) {
      EXPECT_TRUE(apart(boxes[i], boxes[j]))
          << boxes[i].x << "," << boxes[i].y << " and " << boxes[j].x << "," << boxes[j].y;
    }
  }
}

TEST(PictureTest, ManyMembers_WithoutIndexes) {
  EXPECT_THAT(topologySvg(fullMesh(24).topology()), HasSubstr(">1002</text>"));
  EXPECT_EQ(topologySvg(fullMesh(25).topology()).find(">1002</text>"), std::string::npos);
}

TEST(PictureTest, StatesAreColours_FaultsAreMarkedAndListed_NamesAreEscaped) {
  Cluster cluster;
  cluster.all(1, 2, "unreachable")
      .link(2, 1, "Backplane<&\"")
      .state(2, 1, "degraded")
      .verdict(1, 2, "noIndex");
  std::string svg = topologySvg(cluster.topology());
  EXPECT_THAT(svg, HasSubstr("stroke=\"#d62728\" stroke-width=\"2.6\" stroke-dasharray=\"7 4\">"
                             "<title>1 to 2: unreachable, Backplane1/2, ifIndex 1002</title>"));
  EXPECT_THAT(svg, HasSubstr("<title>2 to 1: degraded, Backplane&lt;&amp;&quot;</title>"));
  EXPECT_THAT(svg, HasSubstr("<g><title>2 to 1: noIndex</title>"));
  EXPECT_THAT(svg, HasSubstr(">! link 1-2: noIndex</text>"));
}

TEST(PictureTest, NoMembersOrOneAlone_IsAPicture) {
  EXPECT_THAT(topologySvg({}), testing::EndsWith("</svg>\n"));
  Topology one;
  one.members = {7};
  EXPECT_THAT(topologySvg(one), HasSubstr(">7</text>"));
  EXPECT_EQ(topologySvg(one).find("nan"), std::string::npos);
}

}  // namespace
}  // namespace TrelCtl
