// From the text of a trace to the event that it tells of.
#include <fmt/format.h>

#include <charconv>

#include "tests/simulation/Observer.h"

namespace Simulation {
namespace {

PipelineId pipelineOf(Stream stream) {
  switch (stream) {
    case Stream::link:
      return PipelineId::ifTable;
    case Stream::reachability:
      return PipelineId::reachability;
    case Stream::system:
    case Stream::processor:
      return PipelineId::host;
    default:
      return PipelineId::storage;
  }
}

template <class Number>
Number numberIn(std::string_view text) {
  Number number{};
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

// What follows "<name>=" where that stands last, cut off from the text with it.
std::string_view takeLast(std::string_view& text, std::string_view name) {
  size_t at = text.rfind(name);
  if (at == std::string_view::npos) return {};
  std::string_view value = text.substr(at + name.size());
  text = text.substr(0, at);
  return value;
}

// The text of what an optional holds; nothing for "None".
std::optional<std::string_view> optionalIn(std::string_view text) {
  constexpr std::string_view kBefore = "Optional( ";
  constexpr std::string_view kAfter = " )";
  if (!text.starts_with(kBefore)) return std::nullopt;
  return text.substr(kBefore.size(), text.size() - kBefore.size() - kAfter.size());
}

uint64_t memorySerialIn(std::string_view text) {
  HostResources::MemInfo::Amounts amounts;
  for (auto* amount :
       {&amounts.total, &amounts.free, &amounts.available, &amounts.nonBuffer, &amounts.nonCache}) {
    text.remove_prefix(text.find('=') + 1);
    if (auto number = optionalIn(text)) *amount = numberIn<uint32_t>(*number);
  }
  HostResources::MemInfo record(amounts);
  return serial(&record);
}

// The serial of the record that such a text is of.
uint64_t serialIn(Stream stream, std::string_view text) {
  auto after = [&text](std::string_view name) { return text.substr(text.find(name) + name.size()); };
  switch (stream) {
    case Stream::reachability:
      return numberIn<uint64_t>(after("lastChange="));
    case Stream::system:
      return numberIn<uint64_t>(after("#"));
    case Stream::processor:
      return static_cast<uint16_t>(numberIn<int16_t>(after("load=")));
    case Stream::mount:
      return numberIn<uint64_t>(after("size="));
    default:
      return memorySerialIn(text);
  }
}

// A statement of a pipeline: how its trace begins, and what its values are called.
struct Statement {
  Stream stream;
  std::string_view begin;
  std::string_view item;  // empty: the stream has one element for each directory key
  std::string_view value;
};
constexpr std::array<Statement, 5> kStatements = {{
    {Stream::reachability,
     "reachabilityStatusStream = from( reachabilityDir.entityPtr< ReachabilityStatus "
     ">[].reachabilityStatus[] "
     "): dirKey=",
     " nbr=", " reachabilityStateOpt="},
    {Stream::system,
     "hrSystemTableStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[] ): dirKey=",
     "", " hrOpt="},
    {Stream::processor,
     "processorTableStream = from( hostResourcesDir.entityPtr< HostResources::HostResources "
     ">[].processorTable[] ): dirKey=",
     " processorIndex=", " processorOpt="},
    {Stream::mount,
     "mountStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[].storageInfoTable[] ): "
     "dirKey=",
     " mountpt=", " storageOpt="},
    {Stream::memory,
     "memStream = from( hostResourcesDir.entityPtr< HostResources::HostResources >[].memInfo ): dirKey=", "",
     " memInfoOpt="},
}};
constexpr std::string_view kLinkStatement =
    "trelIfTableStream = merge( topoConfigStream, ifMibIfIndexStream ): localMemberId=";

}  // namespace

void Observer::trace(const Lumalog::Line& line) {
  auto [handle, level, text, format, about] = line;
  note(handle);
  note(text);
  if (log_) log_(fmt::format("  {}/{} {}", handle, level, text));
  if (level != kStatementLevel || !failure_.empty()) return;
  if (text.starts_with(kLinkStatement)) {
    std::string_view remote = takeLast(text, " remoteMemberId=");
    linkEvent(numberIn<uint32_t>(text.substr(kLinkStatement.size())), numberIn<uint32_t>(remote));
    return;
  }
  for (const Statement& statement : kStatements) {
    if (!text.starts_with(statement.begin)) continue;
    std::string_view value = takeLast(text, statement.value);
    Element element{.stream = statement.stream, .key = 0, .item = 0};
    if (!statement.item.empty()) {
      std::string_view item = takeLast(text, statement.item);
      element.item = statement.stream == Stream::mount ? mountPlaces_.at(item) : numberIn<uint32_t>(item);
    }
    element.key = keyPlaces_.at(text.substr(statement.begin.size()));
    auto record = optionalIn(value);
    Life* life = lifeFor(pipelineOf(statement.stream));
    if (life == nullptr) return fail(fmt::format("nobody is there to say: {}", text));
    event({life, element, record ? std::optional(serialIn(statement.stream, *record)) : std::nullopt});
    return;
  }
}

}  // namespace Simulation
