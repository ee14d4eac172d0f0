#include "tests/snmp-modules/InProcessAgent.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <span>

#include "platform/lumalog/Lumalog.h"
#include "platform/zavro/Assert.h"
#include "tests/support/Network.h"

namespace SnmpTest {
namespace {

constexpr long kTimeoutMicros = 10'000'000;

// What names are relative to, by what they begin with.
struct Prefix {
  std::string_view text;
  std::vector<oid> numbers;
};
const std::vector<Prefix>& prefixes() {
  static const std::vector<Prefix> all = {{".", {}},
                                          {"hr", {1, 3, 6, 1, 4, 1, TREL_ENTERPRISE_NUMBER, 3, 41, 1}},
                                          {"", {1, 3, 6, 1, 4, 1, TREL_ENTERPRISE_NUMBER, 3, 40, 1}}};
  return all;
}

bool startsWith(const std::vector<oid>& name, const std::vector<oid>& prefix) {
  return name.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), name.begin());
}

std::string nameOf(const std::vector<oid>& name) {
  // The last that fits is the shortest way to write it.
  auto prefix = std::find_if(prefixes().rbegin(), prefixes().rend(), [&name](const Prefix& candidate) {
    return startsWith(name, candidate.numbers);
  });
  auto rest = name.begin() + static_cast<long>(prefix->numbers.size());
  const char* separator = prefix->text == "hr" ? "." : "";
  return fmt::format("{}{}{}", prefix->text, separator, fmt::join(rest, name.end(), "."));
}

std::string octetsText(std::span<const u_char> octets) {
  bool isText = std::none_of(octets.begin(), octets.end(), [](u_char octet) { return octet < ' '; });
  return isText ? "s:" + std::string(octets.begin(), octets.end())
                : fmt::format("x:{:02x}", fmt::join(octets, ""));
}

std::string textOf(const netsnmp_pdu& answer) {
  if (answer.errstat == SNMP_ERR_GENERR) return fmt::format("genErr({})", answer.errindex);
  if (answer.errstat == SNMP_ERR_NOCREATION) return fmt::format("noCreation({})", answer.errindex);
  if (answer.errstat == SNMP_ERR_NOTWRITABLE) return fmt::format("notWritable({})", answer.errindex);
  if (answer.errstat != SNMP_ERR_NOERROR) return fmt::format("error {}({})", answer.errstat, answer.errindex);
  std::vector<std::string> varbinds;
  for (const auto* varbind = answer.variables; varbind != nullptr; varbind = varbind->next_variable) {
    varbinds.push_back(fmt::format("{}={}", nameIn(*varbind), valueIn(*varbind)));
  }
  return fmt::format("{}", fmt::join(varbinds, " "));
}

int answered(int operation, netsnmp_session* /*session*/, int /*id*/, netsnmp_pdu* pdu, void* answer) {
  auto& text = *static_cast<std::optional<std::string>*>(answer);
  text = operation == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE ? textOf(*pdu) : "timeout";
  return 1;
}

}  // namespace

std::vector<oid> oidOf(std::string_view name) {
  auto prefix = std::find_if(prefixes().begin(), prefixes().end(),
                             [name](const Prefix& candidate) { return name.starts_with(candidate.text); });
  std::vector<oid> numbers = prefix->numbers;
  std::string_view rest = name.substr(prefix->text.size());
  if (rest.starts_with('.')) rest.remove_prefix(1);
  while (!rest.empty()) {
    oid number = 0;
    auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
    zavroAssertWith(error == std::errc(), "name={}", name);
    numbers.push_back(number);
    rest.remove_prefix(static_cast<size_t>(end - rest.data()));
    if (!rest.empty()) rest.remove_prefix(1);
  }
  return numbers;
}

std::string nameIn(const netsnmp_variable_list& varbind) {
  return nameOf({varbind.name, varbind.name + varbind.name_length});
}

std::string valueIn(const netsnmp_variable_list& varbind) {
  switch (varbind.type) {
    case ASN_INTEGER:
      return fmt::format("i:{}", *varbind.val.integer);
    case ASN_TIMETICKS:
      return fmt::format("t:{}", static_cast<unsigned long>(*varbind.val.integer));
    case ASN_UNSIGNED:
      return fmt::format("u:{}", static_cast<unsigned long>(*varbind.val.integer));
    case ASN_OCTET_STR:
      return octetsText({varbind.val.string, varbind.val_len});
    case ASN_OBJECT_ID:
      return fmt::format(
          "o:{}", fmt::join(varbind.val.objid, varbind.val.objid + varbind.val_len / sizeof(oid), "."));
    case SNMP_NOSUCHOBJECT:
      return "noSuchObject";
    case SNMP_NOSUCHINSTANCE:
      return "noSuchInstance";
    case SNMP_ENDOFMIBVIEW:
      return "endOfMibView";
    default:
      return fmt::format("type {}", varbind.type);
  }
}

InProcessAgent& InProcessAgent::instance() {
  static InProcessAgent agent;
  return agent;
}

InProcessAgent::InProcessAgent() {
  Lumalog::sinkIs(nullptr);  // but for the traces that a test looks at
  std::string address = fmt::format("udp:127.0.0.1:{}", Support::freeUdpPort());
  setenv("MIBS", "", 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
  netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_DONT_LOG_TCPWRAPPERS_CONNECTS, 1);
  netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_OID_OUTPUT_FORMAT, NETSNMP_OID_OUTPUT_NUMERIC);
  netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS, address.c_str());
  snmp_enable_stderrlog();
  zavroAssert(init_agent("snmp-modules-test") == 0);
  std::string access = "rwcommunity public 127.0.0.1";
  netsnmp_config_remember(access.data());
  init_snmp("snmp-modules-test");
  zavroAssertWith(init_master_agent() == 0, "address={}", address);

  netsnmp_session session;
  snmp_sess_init(&session);
  session.version = SNMP_VERSION_2c;
  session.timeout = kTimeoutMicros;
  session.retries = 0;
  session.peername = address.data();
  std::string community = "public";
  session.community = reinterpret_cast<u_char*>(community.data());
  session.community_len = community.size();
  manager_ = snmp_open(&session);
  zavroAssert(manager_);
}

netsnmp_pdu* InProcessAgent::request(int command, const Names& names) {
  netsnmp_pdu* pdu = snmp_pdu_create(command);
  for (const std::string& name : names) {
    std::vector<oid> numbers = oidOf(name);
    snmp_add_null_var(pdu, numbers.data(), numbers.size());
  }
  return pdu;
}

std::string InProcessAgent::getBulk(int nonRepeaters, int maxRepetitions, const Names& names) {
  netsnmp_pdu* pdu = request(SNMP_MSG_GETBULK, names);
  pdu->non_repeaters = nonRepeaters;
  pdu->max_repetitions = maxRepetitions;
  return ask(pdu);
}

std::string InProcessAgent::set(const std::string& name, long value) {
  return set(name, ASN_INTEGER, &value, sizeof value);
}

std::string InProcessAgent::set(const std::string& name, const std::string& octets) {
  return set(name, ASN_OCTET_STR, octets.data(), octets.size());
}

std::string InProcessAgent::set(const std::string& name, u_char type, const void* value, size_t size) {
  netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_SET);
  std::vector<oid> numbers = oidOf(name);
  snmp_pdu_add_variable(pdu, numbers.data(), numbers.size(), type, value, size);
  return ask(pdu);
}

std::string InProcessAgent::ask(netsnmp_pdu* pdu) {
  std::optional<std::string> answer;
  if (snmp_async_send(manager_, pdu, &answered, &answer) == 0) {
    snmp_free_pdu(pdu);
    return "not sent";
  }
  // net-snmp reports the end of the timeout as well, so that this ends.
  while (!answer) agent_check_and_process(0);
  return *answer;
}

std::vector<std::string> InProcessAgent::walk(const std::string& subtree,
                                              const std::function<void(const std::string&)>& step) {
  std::vector<std::string> found;
  std::vector<oid> root = oidOf(subtree);
  std::string at = subtree;
  while (true) {
    std::string answer = getNext({at});
    std::string next = answer.substr(0, answer.find('='));
    if (next == answer || answer.ends_with("endOfMibView") || !startsWith(oidOf(next), root)) return found;
    if (!(oidOf(at) < oidOf(next))) {
      found.push_back("endless");
      return found;
    }
    found.push_back(answer);
    if (step) step(answer);
    at = next;
  }
}

}  // namespace SnmpTest
