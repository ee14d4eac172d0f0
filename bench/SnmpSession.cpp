#include "bench/SnmpSession.h"

#include <memory>
#include <stdexcept>

#include "platform/snmp/ObjectIdentifier.h"

namespace Bench {

Oid oidOf(const std::string& dotted) {
  auto ids = Snmp::ObjectIdentifier(dotted).subIds();
  if (!ids) throw std::runtime_error(dotted + " is no object identifier");
  return {ids->begin(), ids->end()};
}

const Oid& upTime() {
  static const Oid name = oidOf("1.3.6.1.2.1.1.3.0");
  return name;
}

SnmpSession::SnmpSession(std::string address) {
  static const bool initialised = [] {
    setenv("MIBS", "", 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    init_snmp("bench");
    return true;
  }();
  static_cast<void>(initialised);
  std::string community = "public";
  netsnmp_session settings;
  snmp_sess_init(&settings);
  settings.version = SNMP_VERSION_2c;
  settings.peername = address.data();
  settings.community = reinterpret_cast<u_char*>(community.data());
  settings.community_len = community.size();
  session_ = snmp_open(&settings);
  if (session_ == nullptr) throw std::runtime_error("no session with " + address);
}

SnmpSession::~SnmpSession() { snmp_close(session_); }

template <class Take>
void SnmpSession::exchange(int command, const Oid& name, long maxRepetitions, Take take) {
  netsnmp_pdu* request = snmp_pdu_create(command);
  if (command == SNMP_MSG_GETBULK) {
    request->non_repeaters = 0;
    request->max_repetitions = maxRepetitions;
  }
  snmp_add_null_var(request, name.data(), name.size());
  netsnmp_pdu* answer = nullptr;
  int status = snmp_synch_response(session_, request, &answer);
  std::unique_ptr<netsnmp_pdu, decltype(&snmp_free_pdu)> response(answer, &snmp_free_pdu);
  if (status != STAT_SUCCESS || response->errstat != SNMP_ERR_NOERROR) {
    throw std::runtime_error("the agent did not answer");
  }
  for (auto* var = response->variables; var != nullptr; var = var->next_variable) take(*var);
}

std::vector<Oid> SnmpSession::ask(int command, const Oid& name, long maxRepetitions) {
  std::vector<Oid> names;
  exchange(command, name, maxRepetitions, [&names](const netsnmp_variable_list& var) {
    if (var.type >= SNMP_NOSUCHOBJECT && var.type <= SNMP_ENDOFMIBVIEW) {
      throw std::runtime_error("the agent has no value");
    }
    names.emplace_back(var.name, var.name + var.name_length);
  });
  return names;
}

long SnmpSession::integer(const Oid& name) {
  long value = -1;
  exchange(SNMP_MSG_GET, name, 0, [&value](const netsnmp_variable_list& var) {
    if (var.type == ASN_INTEGER) value = *var.val.integer;
  });
  return value;
}

}  // namespace Bench
