#include "host/AnswerSize.h"

#include <dlfcn.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/zavro/Assert.h"
#include "snmp-modules/NetSnmp.h"
// Not among those that it includes.
#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/agent/snmp_vars.h>

namespace Host {
namespace {

constexpr const char* kBuild = "_build_initial_pdu_packet";
using Build = int (*)(session_list* session, netsnmp_pdu* pdu, int bulk);

// The function that the one at the end of this file replaces.
Build netsnmpBuild() {
  static const auto build = reinterpret_cast<Build>(dlsym(RTLD_NEXT, kBuild));
  zavroAssert(build != nullptr);
  return build;
}

// Where the manager's msgMaxSize is kept while its request is processed: in a field that only traps use.
long& statedSize(netsnmp_pdu& pdu) { return pdu.trap_type; }

// A request has arrived. Hides its msgMaxSize: net-snmp would stop gathering values where it guesses that the
// answer is full, in the middle of a row.
int arrived(int /*major*/, int /*minor*/, void* parameters, void* /*argument*/) {
  netsnmp_pdu& pdu = *static_cast<view_parameters*>(parameters)->pdu;
  if (pdu.version != SNMP_VERSION_3 || pdu.msgMaxSize == 0) return 0;
  statedSize(pdu) = pdu.msgMaxSize;
  pdu.msgMaxSize = 0;
  return 0;
}

void saysTooBig(netsnmp_pdu& pdu) {
  pdu.errstat = SNMP_ERR_TOOBIG;
  pdu.errindex = 0;
  // SNMPv1 expects the request's varbinds back.
  if (pdu.version == SNMP_VERSION_1) return;
  snmp_free_varbind(pdu.variables);
  pdu.variables = nullptr;
}

// Encodes as many varbinds as fit. Requires: all of them do not.
int buildFirst(session_list* session, netsnmp_pdu& pdu) {
  std::vector<netsnmp_variable_list*> varbinds;
  for (auto* varbind = pdu.variables; varbind != nullptr; varbind = varbind->next_variable) {
    varbinds.push_back(varbind);
  }
  auto build = [&](size_t count) {
    netsnmp_variable_list* rest = std::exchange(varbinds[count - 1]->next_variable, nullptr);
    int result = netsnmpBuild()(session, &pdu, /*bulk=*/0);
    varbinds[count - 1]->next_variable = rest;
    return result;
  };
  size_t fit = 0;
  for (size_t tooMany = varbinds.size(); tooMany > fit + 1;) {
    size_t count = fit + (tooMany - fit) / 2;
    (build(count) == SNMPERR_SUCCESS ? fit : tooMany) = count;
  }
  return fit == 0 ? SNMPERR_GENERR : build(fit);
}

int buildAnswer(session_list* session, netsnmp_pdu& pdu, bool bulk) {
  netsnmp_session& sender = *snmp_sess_session(session);
  long stated = statedSize(pdu) != 0 ? statedSize(pdu) : pdu.msgMaxSize;
  auto most = static_cast<long>(sender.sndMsgMaxSize);
  pdu.msgMaxSize = stated == 0 ? most : std::min(stated, most);
  if (pdu.errstat == SNMP_ERR_TOOBIG) saysTooBig(pdu);
  auto tooLong = [&](int result) {
    return result != SNMPERR_SUCCESS && sender.s_snmp_errno == SNMPERR_TOO_LONG;
  };
  int result = netsnmpBuild()(session, &pdu, /*bulk=*/0);
  if (tooLong(result) && bulk && pdu.errstat == SNMP_ERR_NOERROR) result = buildFirst(session, pdu);
  // Where there was no error before, the caller makes it a tooBig.
  if (!tooLong(result) || pdu.errstat == SNMP_ERR_NOERROR) return result;
  saysTooBig(pdu);
  return netsnmpBuild()(session, &pdu, /*bulk=*/0);
}

}  // namespace

AnswerSize::AnswerSize() {
  // In a program that does not export the function, net-snmp would go on using its own.
  zavroAssert(dlsym(RTLD_DEFAULT, kBuild) == reinterpret_cast<void*>(&_build_initial_pdu_packet));
  netsnmpBuild();
  snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_ACM_CHECK_INITIAL, &arrived, nullptr);
}

AnswerSize::~AnswerSize() {
  snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_ACM_CHECK_INITIAL, &arrived, nullptr,
                           /*matchargs=*/1);
}

}  // namespace Host

// net-snmp's libraries call this function instead of their own: they look it up by name, and the executable's
// symbols come first. There is no other way: net-snmp has no hook between gathering an answer and encoding
// it, where it loops, and no setting for all sizes. tests/wire/SizeTest.cpp fails with a net-snmp that does
// not look it up.
int _build_initial_pdu_packet(session_list* slp, netsnmp_pdu* pdu, int bulk) {
  bool isAnswer =
      pdu != nullptr && pdu->command == SNMP_MSG_RESPONSE &&
      (pdu->version == SNMP_VERSION_1 || pdu->version == SNMP_VERSION_2c || pdu->version == SNMP_VERSION_3);
  if (!isAnswer) return Host::netsnmpBuild()(slp, pdu, bulk);
  return Host::buildAnswer(slp, *pdu, bulk != 0);
}
