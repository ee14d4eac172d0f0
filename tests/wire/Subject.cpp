#include "tests/wire/Subject.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <fstream>

#include "tests/support/Network.h"
#include "tests/support/WaitUntil.h"

namespace Wire {
namespace {

Value valueOr(const Tree& tree, const Oid& name) {
  auto found = tree.find(name);
  return found == tree.end() ? Value{Tag::noSuchInstance, {}} : found->second;
}

uint64_t nowNs() {
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::nanoseconds(since).count());
}

}  // namespace

Subject::Subject(const std::string& configuration, E2e::By by) : exchange_(port()) {
  daemon_.answersBy(by).with({"--conf", daemon_.dir().write("wire.conf", configuration)});
  learnStart();
}

uint16_t Subject::port() const { return Support::portOf(daemon_.address()); }

// The agent starts at some time between the start of the process and the first answer.
void Subject::learnStart() {
  daemon_.stateIs(AgentClock::question(0).dump()).start();
  // What is before the start, or in its first tick, reads 0, and what is to come reads as now.
  constexpr uint64_t kTwoTicksNs = 20'000'000;
  uint64_t aroundNs = nowNs() + kTwoTicksNs;
  nlohmann::json question = AgentClock::question(aroundNs);
  uint64_t lastNs = AgentClock::lastNs(aroundNs);
  if (!Support::waitUntil([&] { return nowNs() > lastNs; })) throw std::runtime_error("time stands still");
  daemon_.dir().replace(E2e::Daemon::kStateName, question.dump());
  std::vector<uint32_t> ticks;
  bool told = Support::waitUntil([&] { return std::ranges::count((ticks = changes()), 0u) == 0; });
  if (!told) throw std::runtime_error("the times of last changes are not served");
  clock_ = AgentClock::answer(aroundNs, ticks);
  model_ = std::make_unique<Model>(treeOf(question, clock_));
}

std::vector<uint32_t> Subject::changes() {
  std::vector<uint32_t> ticks;
  for (const auto& [name, value] : walk()) {
    if (value.tag == Tag::timeTicks && tableOf(name) == &tableShapes()[1]) {
      ticks.push_back(static_cast<uint32_t>(integerOf(value.content)));
    }
  }
  return ticks;
}

void Subject::becomes(const nlohmann::json& document) {
  model_ = std::make_unique<Model>(treeOf(document, clock_));
  daemon_.dir().replace(E2e::Daemon::kStateName, document.dump());
  Tree served;
  auto isThere = [&] { return (served = walk()) == model_->tree(); };
  bool became = Support::waitUntil(isThere, Support::Millis(20'000));
  // Nothing that is under way any more may take it away again.
  if (became) daemon_.waitUntilReady();
  if (became && isThere()) return;
  throw std::runtime_error(fmt::format("not served as it should be:\n{}state: {}\nerrors: {}",
                                       difference(model_->tree(), served), document.dump(),
                                       daemon_.sourceError()));
}

Tree Subject::walk() {
  try {
    return treeServed(exchange_, kReader);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(fmt::format("{} {}", error.what(), complaint()));
  }
}

size_t Subject::residentKiB() {
  std::ifstream status(fmt::format("/proc/{}/status", daemon_.process().pid()));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stoul(line.substr(line.find_first_of("0123456789")));
  }
  throw std::runtime_error("no VmRSS");
}

std::string Subject::reports() {
  std::string log = daemon_.process().err();
  for (const char* sign : {"Sanitizer", "runtime error:"}) {
    size_t at = log.find(sign);
    if (at != std::string::npos) return log.substr(log.rfind('\n', at) + 1, 20'000);
  }
  return {};
}

std::string Subject::complaint() {
  std::string found = reports();
  if (std::optional<int> status = daemon_.process().wait(Support::Millis(0))) {
    std::string log = daemon_.process().err();
    found = fmt::format("the daemon ended with {}\n{}", *status,
                        found.empty() ? log.substr(log.size() - std::min<size_t>(log.size(), 2000)) : found);
  }
  return found;
}

std::string Subject::end() {
  std::optional<int> status = daemon_.process().stop(SIGTERM, Support::Millis(60'000));
  if (status == 0) return reports();
  return status ? complaint() : "the daemon does not end";
}

Tree treeServed(Exchange& exchange, const Bytes& community) {
  constexpr int64_t kRepetitions = 60;
  Tree tree;
  Message request;
  request.community = community;
  request.pdu = {PduType::getBulk, 1, 0, kRepetitions, {{{1, 3}, {}}}};
  while (true) {
    ++request.pdu.requestId;
    std::optional<Bytes> answer = exchange.ask(request);
    if (!answer) throw std::runtime_error("no answer to a walk.");
    for (const Varbind& varbind : decode(*answer).pdu.varbinds) {
      if (varbind.value.tag == Tag::endOfMibView) return tree;
      if (!tree.empty() && varbind.name <= tree.rbegin()->first) {
        throw std::runtime_error("the walk turns back to " + text(varbind.name));
      }
      tree[varbind.name] = varbind.value;
    }
    if (tree.empty()) throw std::runtime_error("a walk finds nothing: " + text(decode(*answer)));
    request.pdu.varbinds[0].name = tree.rbegin()->first;
  }
}

std::string difference(const Tree& expected, const Tree& served) {
  constexpr size_t kMaxLines = 20;
  std::string lines;
  size_t count = 0;
  auto add = [&](const Oid& name) {
    Pdu pdu{PduType::response, 0, 0, 0, {{name, valueOr(expected, name)}, {name, valueOr(served, name)}}};
    if (pdu.varbinds[0] != pdu.varbinds[1] && ++count <= kMaxLines) lines += "expected, served: " + text(pdu);
  };
  for (const auto& [name, value] : expected) add(name);
  for (const auto& [name, value] : served) {
    if (!expected.contains(name)) add(name);
  }
  return fmt::format("{}{} instances differ\n", lines, count);
}

}  // namespace Wire
