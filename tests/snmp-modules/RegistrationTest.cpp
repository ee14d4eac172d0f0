// How the module comes and goes: registration, withdrawal, and what ends the process.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstring>

#include "Callbacks.h"
#include "ModuleTest.h"

namespace {

// Functions of net-snmp that the linker leads through here, so that a test can make them fail.
int failingVarbindAdditions = 0;
bool failingInjection = false;

}  // namespace

extern "C" {
netsnmp_variable_list* __real_snmp_varlist_add_variable(netsnmp_variable_list** list, const oid* name,
                                                        size_t length, u_char type, const void* value,
                                                        size_t valueLength);
netsnmp_variable_list* __wrap_snmp_varlist_add_variable(netsnmp_variable_list** list, const oid* name,
                                                        size_t length, u_char type, const void* value,
                                                        size_t valueLength) {
  if (failingVarbindAdditions > 0) {
    --failingVarbindAdditions;
    return nullptr;
  }
  return __real_snmp_varlist_add_variable(list, name, length, type, value, valueLength);
}
int __real_netsnmp_inject_handler(netsnmp_handler_registration* registration, netsnmp_mib_handler* handler);
int __wrap_netsnmp_inject_handler(netsnmp_handler_registration* registration, netsnmp_mib_handler* handler) {
  return failingInjection ? SNMPERR_GENERR : __real_netsnmp_inject_handler(registration, handler);
}
}

namespace SnmpTest {
namespace {

constexpr const char* kModule = "veldaTrelMIB";

class RegistrationTest : public ::testing::Test {
 protected:
  RegistrationTest() { InProcessAgent::instance(); }
  InProcessAgent& agent() { return InProcessAgent::instance(); }
};

bool served(const char* name) { return registrationAt(name) != nullptr; }

TEST_F(RegistrationTest, Init_RegistersBothTablesInOrder) {
  Database database;
  TraceLog log({kModule});
  init_veldaTrelMIB("");
  EXPECT_EQ(golden(log),
            fmt::format("veldaTrelMIB/1 initialize_table_veldaTrelBaIfTable initializing oid "
                        ".1.3.6.1.4.1.{0}.3.40.1.1 in context \"\"\n"
                        "veldaTrelMIB/8 Initialized table veldaTrelBaIfTable in context \"\"\n"
                        "veldaTrelMIB/1 initialize_table_veldaTrelReachabilityTable initializing oid "
                        ".1.3.6.1.4.1.{0}.3.40.1.2 in context \"\"\n"
                        "veldaTrelMIB/8 Initialized table veldaTrelReachabilityTable in context \"\"\n",
                        TREL_ENTERPRISE_NUMBER));
  EXPECT_TRUE(Snmp::mibContextRegistered("", kModule));
  EXPECT_TRUE(served("1"));
  EXPECT_TRUE(served("2"));

  unregister_veldaTrelMIB("");
  EXPECT_EQ(golden(log), "veldaTrelMIB/2 Unregistering veldaTrelMIB in context \"\"\n");
  EXPECT_FALSE(Snmp::mibContextRegistered("", kModule));
  EXPECT_FALSE(served("1"));
  EXPECT_FALSE(served("2"));
  EXPECT_EQ(Snmp::RegVoidCollByContext::singleton()->size(), 0u);
}

TEST_F(RegistrationTest, Registration_IsWhatNetSnmpIsMeantToSee) {
  Database database;
  init_veldaTrelMIB("");
  const netsnmp_handler_registration* registration = registrationAt("2");
  EXPECT_STREQ(registrationAt("1")->handlerName, "veldaTrelBaIfTable_");
  EXPECT_STREQ(registration->handlerName, "veldaTrelReachabilityTable_");
  EXPECT_EQ(registration->contextName, nullptr);
  EXPECT_EQ(registration->rootoid_len, 11u);
  EXPECT_EQ(registration->modes & HANDLER_CAN_RWRITE, HANDLER_CAN_GETANDGETNEXT);
  EXPECT_EQ(registration->my_reg_void, recordOf(kReachability));
  EXPECT_EQ(recordOf(kReachability)->object().get(), &database.mib());

  std::string chain;
  for (const auto* handler = registration->handler; handler != nullptr; handler = handler->next) {
    chain += std::string(" ") + handler->handler_name;
  }
  EXPECT_NE(chain.find(" serialize bulk_to_next table table_iterator veldaTrelReachabilityTable_"),
            std::string::npos)
      << chain;

  const netsnmp_iterator_info* iterator = iteratorInfoOf(registration);
  EXPECT_EQ(iterator->flags, 0x01 | 0x02);
  EXPECT_EQ(iterator->myvoid, registration->my_reg_void);
  EXPECT_EQ(iterator->free_loop_context, nullptr);
  const netsnmp_table_registration_info* table = iterator->table_reginfo;
  EXPECT_EQ(table->number_indexes, 2u);
  EXPECT_EQ(table->indexes->type, ASN_INTEGER);
  EXPECT_EQ(table->indexes->next_variable->type, ASN_INTEGER);
  EXPECT_EQ(table->min_column, 3u);
  EXPECT_EQ(table->max_column, 5u);
  const netsnmp_column_info* columns = table->valid_columns;
  EXPECT_EQ(columns->isRange, 0);
  EXPECT_EQ(std::vector<unsigned>(columns->details.list, columns->details.list + columns->list_count),
            (std::vector<unsigned>{3, 4, 5}));
  unregister_veldaTrelMIB("");
}

TEST_F(RegistrationTest, OtherContext_GetsNoTableButIsAnnounced) {
  Database database;
  TraceLog log({kModule});
  init_veldaTrelMIB("blue");
  EXPECT_EQ(golden(log),
            fmt::format("veldaTrelMIB/1 initialize_table_veldaTrelBaIfTable initializing oid "
                        ".1.3.6.1.4.1.{0}.3.40.1.1 in context \"blue\"\n"
                        "veldaTrelMIB/2 initialize_table_veldaTrelBaIfTable in context \"blue\" "
                        "kelstorePathWithContext not specified \n"
                        "veldaTrelMIB/1 initialize_table_veldaTrelReachabilityTable initializing oid "
                        ".1.3.6.1.4.1.{0}.3.40.1.2 in context \"blue\"\n"
                        "veldaTrelMIB/2 initialize_table_veldaTrelReachabilityTable in context \"blue\" "
                        "kelstorePathWithContext not specified \n",
                        TREL_ENTERPRISE_NUMBER));
  EXPECT_FALSE(served("1"));
  EXPECT_TRUE(Snmp::mibContextRegistered("blue", kModule));
  EXPECT_EQ(Snmp::RegVoidCollByContext::singleton()->size(), 0u);
  unregister_veldaTrelMIB("blue");
  EXPECT_EQ(golden(log), "veldaTrelMIB/2 Unregistering veldaTrelMIB in context \"blue\"\n");
  EXPECT_FALSE(Snmp::mibContextRegistered("blue", kModule));
}

TEST_F(RegistrationTest, OtherContext_NeedsNoServedObject) {
  Database database(nullptr);
  init_veldaTrelMIB("blue");
  unregister_veldaTrelMIB("blue");
  EXPECT_FALSE(served("1"));
}

TEST_F(RegistrationTest, ContextNeverInitialised_IsUnregisteredAllTheSame) {
  Database database;
  Snmp::registerMibContext("green", kModule);
  unregister_veldaTrelMIB("green");
  EXPECT_FALSE(Snmp::mibContextRegistered("green", kModule));
  unregister_veldaTrelMIB("");
  unregister_veldaTrelMIB("");
}

TEST_F(RegistrationTest, OtherContextComesAndGoes_TheDefaultOneStays) {
  Database database;
  database.mib().trelIfTableIs(5, 1, 2);
  init_veldaTrelMIB("");
  init_veldaTrelMIB("blue");
  unregister_veldaTrelMIB("blue");
  EXPECT_EQ(agent().get({"1.1.3.5"}), "1.1.3.5=i:2");
  EXPECT_TRUE(Snmp::mibContextRegistered("", kModule));
  unregister_veldaTrelMIB("");
  EXPECT_EQ(agent().get({"1.1.3.5"}), "1.1.3.5=noSuchObject");
}

TEST_F(RegistrationTest, InitAgain_ServesTheObjectThatIsThereThen) {
  {
    Database database;
    database.mib().trelIfTableIs(5, 1, 2);
    init_veldaTrelMIB("");
    agent().get({"1.1.3.5"});
    unregister_veldaTrelMIB("");
  }
  Database database;
  database.mib().trelIfTableIs(6, 1, 3);
  init_veldaTrelMIB("");
  EXPECT_EQ(lines(agent().walk("")), lines({"1.1.2.6=i:1", "1.1.3.6=i:3"}));
  EXPECT_EQ(recordOf(kBaIf)->counters().orderedIterCntr(Snmp::OrderedTableIteratorCounterTypes::hintMatched),
            2u);
  unregister_veldaTrelMIB("");
}

TEST_F(RegistrationTest, ServedObject_OutlivesItsPlaceInTheDatabase) {
  {
    Database database;
    database.mib().trelIfTableIs(5, 1, 2);
    init_veldaTrelMIB("");
    Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
    EXPECT_EQ(agent().get({"1.1.3.5"}), "1.1.3.5=i:2");
  }
  unregister_veldaTrelMIB("");
}

// Asks for every column and row, so that every kind of context is made and freed.
void useTables(InProcessAgent& agent) {
  agent.walk("");
  agent.get({"2.1.4.1.2", "2.1.4.9.9", "1.1.2.5"});
}

TEST_F(RegistrationTest, ThousandTimes_NothingIsLeftBehind) {
  Database database;
  database.mib().trelIfTableIs(5, 1, 2);
  database.mib().trelReachabilityTableIs({1, 2}, nullptr, nullptr);
  Zavro::Ptr<const TrelSnmp::TrelIfEntry> row = database.mib().trelIfTable(5);
  auto round = [this] {
    init_veldaTrelMIB("");
    init_veldaTrelMIB("blue");
    useTables(agent());
    unregister_veldaTrelMIB("");
    unregister_veldaTrelMIB("blue");
  };
  TraceLog silence({});
  Lumalog::levelIs(kModule, -1);
  for (int i = 0; i < 20; ++i) round();
  constexpr size_t kRounds = 1000;
  size_t before = mallinfo2().uordblks;
  for (size_t i = 0; i < kRounds; ++i) round();
  size_t after = mallinfo2().uordblks;
  // The allocator's own caches fill a little; the smallest block lost in each round would be 32 bytes.
  EXPECT_LT(after, before + 16 * kRounds);
  EXPECT_EQ(row->useCount(), 2u);
  EXPECT_EQ(database.mib().useCount(), 2u);
  EXPECT_EQ(Snmp::RegVoidCollByContext::singleton()->size(), 0u);
}

TEST_F(RegistrationTest, IndexThatCannotBeSetUp_IsTracedAndTheRestGoesOn) {
  Database database;
  database.mib().trelReachabilityTableIs({1, 2}, nullptr, nullptr);
  TraceLog log({kModule});
  failingVarbindAdditions = 3;
  init_veldaTrelMIB("");
  EXPECT_EQ(failingVarbindAdditions, 0);
  for (const char* column :
       {"veldaTrelBaIfIndex", "veldaTrelReachabilitySrcId", "veldaTrelReachabilityDestId"}) {
    EXPECT_TRUE(log.contains(
        fmt::format("veldaTrelMIB/0 Failed to set up {} in netsnmp table_info in context \"\"", column)));
  }
  EXPECT_TRUE(log.contains("veldaTrelMIB/8 Initialized table veldaTrelBaIfTable in context \"\""));
  EXPECT_TRUE(log.contains("veldaTrelMIB/8 Initialized table veldaTrelReachabilityTable in context \"\""));
  unregister_veldaTrelMIB("");
}

TEST_F(RegistrationTest, NetSnmpDebugging_SeesTheInitialisation) {
  Database database;
  ::testing::internal::CaptureStderr();
  debug_register_tokens("veldaTrelMIB,trace");
  snmp_set_do_debugging(1);
  init_veldaTrelMIB("blue");
  snmp_set_do_debugging(0);
  debug_disable_token_logs("veldaTrelMIB");
  debug_disable_token_logs("trace");
  std::string output = ::testing::internal::GetCapturedStderr();
  size_t trace = output.find("trace: init_veldaTrelMIB(): snmp-modules/veldaTrelMIB.cpp, ");
  size_t message = output.find("veldaTrelMIB: Initializing in context \"blue\"\n");
  EXPECT_NE(trace, std::string::npos) << output;
  EXPECT_NE(message, std::string::npos) << output;
  EXPECT_LT(trace, message);
  unregister_veldaTrelMIB("blue");
}

TEST_F(RegistrationTest, WithoutDebugging_NetSnmpSaysNothing) {
  Database database;
  ::testing::internal::CaptureStderr();
  init_veldaTrelMIB("blue");
  EXPECT_EQ(::testing::internal::GetCapturedStderr().find("Initializing in context"), std::string::npos);
  unregister_veldaTrelMIB("blue");
}

// --- what ends the process

using RegistrationDeathTest = RegistrationTest;

TEST_F(RegistrationDeathTest, NoServedObject_EndsTheProcess) {
  Database database(nullptr);
  EXPECT_DEATH(
      init_veldaTrelMIB(""),
      "Can not getEntityRelative\\( snmp/trel/trelMib \\) for table veldaTrelBaIfTable\\. Is this path "
      "correct\\?\n"
      ".*: void initialize_table_veldaTrelBaIfTable\\(Snmp::Config::PtrConst, Kor::String\\): Assertion "
      "`e' failed\\.");
  EXPECT_DEATH(
      initialize_table_veldaTrelReachabilityTable(Snmp::KelstoreUtil::getSnmpConfig(), ""),
      "Can not getEntityRelative\\( snmp/trel/trelMib \\) for table veldaTrelReachabilityTable\\. Is "
      "this path correct\\?\n"
      ".*: void initialize_table_veldaTrelReachabilityTable\\(Snmp::Config::PtrConst, Kor::String\\): "
      "Assertion `e' failed\\.");
}

TEST_F(RegistrationDeathTest, NoDatabaseAtAll_EndsTheProcess) {
  EXPECT_DEATH(init_veldaTrelMIB(""), "Can not getEntityRelative\\( snmp/trel/trelMib \\)");
}

TEST_F(RegistrationDeathTest, ServedObjectOfAnotherType_EndsTheProcess) {
  Database database(Zavro::makePtr<Kor::Dir>("trelMib"));
  EXPECT_DEATH(
      init_veldaTrelMIB(""),
      "snmp/trel/trelMib does not appear to be of type TrelSnmp::TrelMib\\.\n"
      ".*: void initialize_table_veldaTrelBaIfTable\\(Snmp::Config::PtrConst, Kor::String\\): Assertion "
      "`ptr' failed\\.");
}

TEST_F(RegistrationDeathTest, TableRegisteredTwice_EndsTheProcess) {
  Database database;
  init_veldaTrelMIB("");
  EXPECT_DEATH(
      init_veldaTrelMIB(""),
      ": void initialize_table_veldaTrelBaIfTable\\(Snmp::Config::PtrConst, Kor::String\\): Assertion "
      "`result == MIB_REGISTERED_OK' failed\\.");
  EXPECT_DEATH(initialize_table_veldaTrelReachabilityTable(nullptr, ""),
               ": void initialize_table_veldaTrelReachabilityTable\\(Snmp::Config::PtrConst, Kor::String\\): "
               "Assertion `result == MIB_REGISTERED_OK' failed\\.");
  unregister_veldaTrelMIB("");
}

TEST_F(RegistrationDeathTest, HandlerThatCannotBeInjected_EndsTheProcess) {
  Database database;
  failingInjection = true;
  EXPECT_DEATH(
      init_veldaTrelMIB(""),
      ": void initialize_table_veldaTrelBaIfTable\\(Snmp::Config::PtrConst, Kor::String\\): Assertion "
      "`injected == SNMPERR_SUCCESS' failed\\.");
  failingInjection = false;
}

}  // namespace
}  // namespace SnmpTest
