// How the modules come and go: registration, withdrawal, and what ends the process.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>

#include "tests/snmp-modules/ModuleTest.h"

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

std::string oidText(const TableCase& table) {
  return fmt::format(".1.3.6.1.4.1.{}.{}", TREL_ENTERPRISE_NUMBER, table.arc);
}

class RegistrationTest : public ::testing::TestWithParam<ModuleCase> {
 protected:
  RegistrationTest() { InProcessAgent::instance(); }
  InProcessAgent& agent() { return InProcessAgent::instance(); }

  static const ModuleCase& module() { return GetParam(); }
  static const std::vector<TableCase>& tables() { return GetParam().tables; }
  // A value of the row that add() puts into the first table.
  static std::string firstName(const RowParts& row) {
    return tables().front().instance(tables().front().columns.front().number, row);
  }
  std::string firstValue(const RowParts& row) {
    std::string answer = agent().get({firstName(row)});
    return answer.substr(answer.find('=') + 1);
  }
  static std::string firstExpected() { return tables().front().columns.front().value; }
  static void addToAll(TrelSnmp::TrelMib& mib, const RowParts& row) {
    for (const TableCase& table : tables()) table.add(mib, row);
  }
  // How many of its tables net-snmp knows.
  static long served() {
    return std::count_if(tables().begin(), tables().end(),
                         [](const TableCase& table) { return registrationAt(table.at) != nullptr; });
  }
  static long all() { return static_cast<long>(tables().size()); }

  // A golden trace, a line for each table.
  static std::string line(int level, const std::string& text) {
    return fmt::format("{}/{} {}\n", module().name, level, text);
  }
  static std::string initializingLine(const TableCase& table, const char* context) {
    return line(1, fmt::format("initialize_table_{} initializing oid {} in context \"{}\"", table.name,
                               oidText(table), context));
  }
  static std::string unregisteringLine(const char* context) {
    return line(2, fmt::format("Unregistering {} in context \"{}\"", module().name, context));
  }
};
INSTANTIATE_TEST_SUITE_P(All, RegistrationTest, testing::ValuesIn(allModules()),
                         [](const auto& module) { return module.param.name; });

TEST_P(RegistrationTest, Init_RegistersItsTablesInOrder) {
  Database database;
  TraceLog log({module().name});
  std::string expected;
  for (const TableCase& table : tables()) {
    expected += initializingLine(table, "") +
                line(8, fmt::format("Initialized table {} in context \"\"", table.name));
  }
  module().init("");
  EXPECT_EQ(golden(log), expected);
  EXPECT_TRUE(Snmp::mibContextRegistered("", module().name));
  EXPECT_EQ(served(), all());

  module().unregister("");
  EXPECT_EQ(golden(log), unregisteringLine(""));
  EXPECT_FALSE(Snmp::mibContextRegistered("", module().name));
  EXPECT_EQ(served(), 0);
  EXPECT_EQ(Snmp::RegVoidCollByContext::singleton()->size(), 0u);
}

TEST_P(RegistrationTest, Registration_IsWhatNetSnmpIsMeantToSee) {
  Database database;
  module().init("");
  for (const TableCase& table : tables()) {
    SCOPED_TRACE(table.name);
    const netsnmp_handler_registration* registration = registrationAt(table.at);
    EXPECT_EQ(oidOf(table.at), oidOf(oidText(table)));
    EXPECT_EQ(registration->handlerName, std::string(table.name) + "_");
    EXPECT_EQ(registration->contextName, nullptr);
    EXPECT_EQ(registration->rootoid_len, 11u);
    EXPECT_EQ(registration->modes & HANDLER_CAN_RWRITE, table.modes);
    EXPECT_EQ(registration->my_reg_void, recordOf(table.name));
    EXPECT_EQ(recordOf(table.name)->object().get(), &database.mib());

    std::string chain;
    for (const auto* handler = registration->handler; handler != nullptr; handler = handler->next) {
      chain += std::string(" ") + handler->handler_name;
    }
    EXPECT_NE(
        chain.find(fmt::format(
            " unsigned_names direct_answers serialize bulk_to_next table table_iterator {}_", table.name)),
        std::string::npos)
        << chain;

    const netsnmp_iterator_info* iterator = iteratorInfoOf(registration);
    EXPECT_EQ(iterator->flags, 0x01 | 0x02);
    EXPECT_EQ(iterator->myvoid, registration->my_reg_void);
    EXPECT_EQ(iterator->free_loop_context, nullptr);

    const netsnmp_table_registration_info* info = iterator->table_reginfo;
    std::vector<u_char> types;
    for (const auto* index = info->indexes; index != nullptr; index = index->next_variable) {
      types.push_back(index->type);
    }
    std::vector<u_char> expectedTypes;
    for (const IndexCase& index : table.index) expectedTypes.push_back(index.type);
    EXPECT_EQ(types, expectedTypes);
    EXPECT_EQ(info->number_indexes, expectedTypes.size());

    const netsnmp_column_info* columns = info->valid_columns;
    std::vector<unsigned> expectedColumns;
    for (const ColumnCase& column : table.columns) expectedColumns.push_back(column.number);
    EXPECT_EQ(columns->isRange, 0);
    EXPECT_EQ(std::vector<unsigned>(columns->details.list, columns->details.list + columns->list_count),
              expectedColumns);
    EXPECT_EQ(info->min_column, expectedColumns.front());
    EXPECT_EQ(info->max_column, expectedColumns.back());
  }
  module().unregister("");
}

TEST_P(RegistrationTest, OtherContext_GetsNoTableButIsAnnounced) {
  Database database;
  TraceLog log({module().name});
  std::string expected;
  for (const TableCase& table : tables()) {
    expected += initializingLine(table, "blue") +
                line(2, fmt::format("initialize_table_{} in context \"blue\" kelstorePathWithContext not "
                                    "specified ",
                                    table.name));
  }
  module().init("blue");
  EXPECT_EQ(golden(log), expected);
  EXPECT_EQ(served(), 0);
  EXPECT_TRUE(Snmp::mibContextRegistered("blue", module().name));
  EXPECT_EQ(Snmp::RegVoidCollByContext::singleton()->size(), 0u);
  module().unregister("blue");
  EXPECT_EQ(golden(log), unregisteringLine("blue"));
  EXPECT_FALSE(Snmp::mibContextRegistered("blue", module().name));
}

TEST_P(RegistrationTest, OtherContext_NeedsNoServedObject) {
  Database database(nullptr);
  module().init("blue");
  module().unregister("blue");
  EXPECT_EQ(served(), 0);
}

TEST_P(RegistrationTest, ContextNeverInitialised_IsUnregisteredAllTheSame) {
  Database database;
  Snmp::registerMibContext("green", module().name);
  module().unregister("green");
  EXPECT_FALSE(Snmp::mibContextRegistered("green", module().name));
  module().unregister("");
  module().unregister("");
}

TEST_P(RegistrationTest, OtherContextComesAndGoes_TheDefaultOneStays) {
  Database database;
  addToAll(database.mib(), {5, 6});
  module().init("");
  module().init("blue");
  module().unregister("blue");
  EXPECT_EQ(firstValue({5, 6}), firstExpected());
  EXPECT_TRUE(Snmp::mibContextRegistered("", module().name));
  module().unregister("");
  EXPECT_EQ(firstValue({5, 6}), "noSuchObject");
}

TEST_P(RegistrationTest, InitAgain_ServesTheObjectThatIsThereThen) {
  {
    Database database;
    addToAll(database.mib(), {5, 6});
    module().init("");
    EXPECT_EQ(firstValue({5, 6}), firstExpected());
    module().unregister("");
  }
  Database database;
  addToAll(database.mib(), {7, 8});
  module().init("");
  EXPECT_EQ(firstValue({5, 6}), "noSuchInstance");
  EXPECT_EQ(firstValue({7, 8}), firstExpected());
  EXPECT_EQ(recordOf(tables().front().name)->counters().directAnswers(), 2u);
  module().unregister("");
}

TEST_P(RegistrationTest, ServedObject_OutlivesItsPlaceInTheDatabase) {
  {
    Database database;
    addToAll(database.mib(), {5, 6});
    module().init("");
    Snmp::KelstoreUtil::rootIs(nullptr, nullptr);
    EXPECT_EQ(firstValue({5, 6}), firstExpected());
  }
  module().unregister("");
}

TEST_P(RegistrationTest, ThousandTimes_NothingIsLeftBehind) {
  Database database;
  Zavro::Ptr<const TrelSnmp::TrelIfEntry> row = database.mib().trelIfTableIs(5, 11, 12);
  addToAll(database.mib(), {5, 6});
  // Asks for every column and row, so that every kind of context is made and freed.
  auto round = [this] {
    module().init("");
    module().init("blue");
    for (const TableCase& table : tables()) {
      agent().walk(table.at);
      agent().get({table.instance(table.columns.back().number, {9, 9}), firstName({5, 6})});
    }
    module().unregister("");
    module().unregister("blue");
  };
  TraceLog silence({});
  Lumalog::levelIs(module().name, -1);
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

TEST_P(RegistrationTest, IndexThatCannotBeSetUp_IsTracedAndTheRestGoesOn) {
  Database database;
  TraceLog log({module().name});
  std::string expected;
  for (const TableCase& table : tables()) {
    expected += initializingLine(table, "");
    for (const IndexCase& index : table.index) {
      ++failingVarbindAdditions;
      expected +=
          line(0, fmt::format("Failed to set up {} in netsnmp table_info in context \"\"", index.column));
    }
    expected += line(8, fmt::format("Initialized table {} in context \"\"", table.name));
  }
  module().init("");
  EXPECT_EQ(failingVarbindAdditions, 0);
  EXPECT_EQ(golden(log), expected);
  module().unregister("");
}

TEST_P(RegistrationTest, NetSnmpDebugging_SeesTheInitialisation) {
  Database database;
  std::string name = module().name;
  ::testing::internal::CaptureStderr();
  debug_register_tokens((name + ",trace").data());
  snmp_set_do_debugging(1);
  module().init("blue");
  snmp_set_do_debugging(0);
  debug_disable_token_logs(name.c_str());
  debug_disable_token_logs("trace");
  std::string output = ::testing::internal::GetCapturedStderr();
  size_t trace = output.find(fmt::format("trace: init_{0}(): snmp-modules/{0}.cpp, ", name));
  size_t message = output.find(name + ": Initializing in context \"blue\"\n");
  EXPECT_NE(trace, std::string::npos) << output;
  EXPECT_NE(message, std::string::npos) << output;
  EXPECT_LT(trace, message);
  module().unregister("blue");
}

TEST_P(RegistrationTest, WithoutDebugging_NetSnmpSaysNothing) {
  Database database;
  ::testing::internal::CaptureStderr();
  module().init("blue");
  EXPECT_EQ(::testing::internal::GetCapturedStderr().find("Initializing in context"), std::string::npos);
  module().unregister("blue");
}

// --- what ends the process

class RegistrationDeathTest : public RegistrationTest {
 protected:
  // What is printed when a check fails while a table is initialised.
  static std::string failedCheck(const TableCase& table, const char* expression) {
    return fmt::format(
        ": void initialize_table_{}\\(Snmp::Config::PtrConst, Kor::String\\): Assertion `{}' failed\\.",
        table.name, expression);
  }
  static std::string notFound(const TableCase& table) {
    return fmt::format(
        "Can not getEntityRelative\\( snmp/trel/trelMib \\) for table {}\\. Is this path "
        "correct\\?\n.*{}",
        table.name, failedCheck(table, "e"));
  }
};
INSTANTIATE_TEST_SUITE_P(All, RegistrationDeathTest, testing::ValuesIn(allModules()),
                         [](const auto& module) { return module.param.name; });

TEST_P(RegistrationDeathTest, NoServedObject_EndsTheProcess) {
  Database database(nullptr);
  EXPECT_DEATH(module().init(""), notFound(tables().front()));
  for (const TableCase& table : tables()) {
    EXPECT_DEATH(table.served().initialize(""), notFound(table));
  }
}

TEST_P(RegistrationDeathTest, NoDatabaseAtAll_EndsTheProcess) {
  EXPECT_DEATH(module().init(""), notFound(tables().front()));
}

TEST_P(RegistrationDeathTest, ServedObjectOfAnotherType_EndsTheProcess) {
  Database database(Zavro::makePtr<Kor::Dir>("trelMib"));
  for (const TableCase& table : tables()) {
    EXPECT_DEATH(table.served().initialize(""),
                 "snmp/trel/trelMib does not appear to be of type TrelSnmp::TrelMib\\.\n.*" +
                     failedCheck(table, "ptr"));
  }
}

TEST_P(RegistrationDeathTest, TableRegisteredTwice_EndsTheProcess) {
  Database database;
  module().init("");
  EXPECT_DEATH(module().init(""), failedCheck(tables().front(), "result == MIB_REGISTERED_OK"));
  for (const TableCase& table : tables()) {
    EXPECT_DEATH(table.served().initialize(""), failedCheck(table, "result == MIB_REGISTERED_OK"));
  }
  module().unregister("");
}

TEST_P(RegistrationDeathTest, HandlerThatCannotBeInjected_EndsTheProcess) {
  Database database;
  failingInjection = true;
  EXPECT_DEATH(module().init(""), failedCheck(tables().front(), "injected == SNMPERR_SUCCESS"));
  failingInjection = false;
}

}  // namespace
}  // namespace SnmpTest
