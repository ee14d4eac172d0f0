// trelctl put, del, get, import and export against a real etcd server.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "kelstore/Document.h"
#include "tests/kelstore-etcd/BrokenOff.h"
#include "tests/kelstore-etcd/SilentServer.h"
#include "tests/support/Etcd.h"
#include "tests/support/LargeState.h"
#include "tests/support/Network.h"
#include "tests/support/TempDir.h"

namespace {

using nlohmann::json;
using Support::Argv;
using Support::Result;
using testing::HasSubstr;
using testing::StartsWith;

// One server for all tests, each with a prefix of its own.
class StoreCommandsTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { server = std::make_unique<Support::EtcdCluster>(); }
  static void TearDownTestSuite() { server.reset(); }

  StoreCommandsTest() : prefix(testing::UnitTest::GetInstance()->current_test_info()->name()) {}

  std::string store() const { return fmt::format("etcd:{}/{}", endpoints, prefix); }

  Result tryCtl(const Argv& arguments) const {
    Argv argv = {TRELCTL};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    argv.insert(argv.end(), {"--store", store()});
    return Support::run(argv, {}, Support::Millis(120'000));
  }
  // Standard output of a command that is to succeed, without a word on standard error.
  std::string ctl(const Argv& arguments) const {
    Result result = tryCtl(arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    return result.out;
  }
  // What a command that is to fail so writes, after "trelctl: ".
  std::string fault(int status, const Argv& arguments) const {
    Result result = tryCtl(arguments);
    EXPECT_EQ(result.status, status) << result.err;
    EXPECT_THAT(result.err, StartsWith("trelctl: "));
    return result.err.substr(std::min<size_t>(9, result.err.size()));
  }
  json all() const { return json::parse(ctl({"export"})); }
  void putRaw(const std::string& key, const std::string& value) const {
    server->ctl({"put", prefix + "/" + key, value});
  }
  void putUnderLease(const std::string& key, const std::string& value) const {
    std::string granted = server->ctl({"lease", "grant", "600"});  // "lease ID granted with ..."
    std::string lease = granted.substr(6, granted.find(' ', 6) - 6);
    server->ctl({"put", "--lease=" + lease, prefix + "/" + key, value});
  }
  std::string rawKeys() const { return server->ctl({"get", "--prefix", "--keys-only", prefix + "/"}); }
  std::string revisionLine() const {
    std::string text = server->ctl({"get", "x", "--write-out", "fields"});
    size_t at = text.find("\"Revision\"");
    return text.substr(at, text.find('\n', at) - at);
  }

  static std::unique_ptr<Support::EtcdCluster> server;
  Support::TempDir directory;
  std::string prefix;
  std::string endpoints = server->endpoint();
};

std::unique_ptr<Support::EtcdCluster> StoreCommandsTest::server;

TEST_F(StoreCommandsTest, PutGetDel_OneValue) {
  EXPECT_EQ(ctl({"put", "members/1/storage/%2Fvar%2Flog", R"({"allocationUnits": 1, "size": 2, "free": 3})"}),
            "");
  EXPECT_EQ(ctl({"put", "sysname", R"("alpha")"}), "");
  EXPECT_EQ(rawKeys(), prefix + "/members/1/storage/%2Fvar%2Flog\n\n" + prefix + "/sysname\n\n");
  EXPECT_EQ(
      json::parse(ctl({"get", "members/1/storage/%2Fvar%2Flog"})),
      json::parse(
          R"({"members": {"1": {"storage": {"/var/log": {"allocationUnits": 1, "size": 2, "free": 3}}}}})"));
  EXPECT_EQ(json::parse(ctl({"get", "sysname"})), json::parse(R"({"sysname": "alpha"})"));
  ctl({"put", "sysname", R"("beta")"});
  EXPECT_EQ(ctl({"del", "members/1/storage/%2Fvar%2Flog"}), "");
  EXPECT_EQ(json::parse(ctl({"get"})), json::parse(R"({"sysname": "beta"})"));
}

TEST_F(StoreCommandsTest, GetAndDel_WhatIsBelow) {
  for (const char* path : {"members/1/processors/1", "members/1/processors/2", "members/10/processors/1"}) {
    ctl({"put", path, R"({"load": 5})"});
  }
  EXPECT_EQ(json::parse(ctl({"get", "members/1"})),
            json::parse(R"({"members": {"1": {"processors": {"1": {"load": 5}, "2": {"load": 5}}}}})"));
  EXPECT_EQ(json::parse(ctl({"get", "members/1/processors"})), json::parse(ctl({"get", "members/1"})));
  ctl({"del", "members/1"});
  EXPECT_EQ(all(), json::parse(R"({"members": {"10": {"processors": {"1": {"load": 5}}}}})"));
  EXPECT_EQ(fault(1, {"del", "members/1"}), "members/1: nothing there\n");
  EXPECT_EQ(fault(1, {"get", "members/1"}), "members/1: nothing there\n");
}

TEST_F(StoreCommandsTest, PackedForm_IsPutAsItIs_AndReadAsItsValues) {
  ctl({"put", "members/1/figures",
       R"({"bootTime": 1, "clock": 11, "users": 2, "processes": 3, "memorySize": 4,
                                      "loads": {"1": 5}})"});
  ctl({"put", "members/1/processors/1", R"({"load": 9})"});
  json system = json::parse(R"({"uptime": 10, "currentTimeUtc": 11, "users": 2, "processes": 3,
                                "memorySize": 4})");
  json all = {{"members", {{"1", {{"system", system}, {"processors", {{"1", {{"load", 5}}}}}}}}}};
  EXPECT_EQ(rawKeys(), prefix + "/members/1/figures\n\n" + prefix + "/members/1/processors/1\n\n");
  for (const char* path : {"", "members/1", "members/1/figures"}) {
    EXPECT_EQ(json::parse(ctl({"get", path})), all) << path;
  }
  EXPECT_EQ(json::parse(ctl({"get", "members/1/system"})),
            (json{{"members", {{"1", {{"system", system}}}}}}));
  EXPECT_EQ(json::parse(ctl({"get", "members/1/processors"})),
            json::parse(R"({"members": {"1": {"processors": {"1": {"load": 5}}}}})"))
      << "the packed form counts";
  EXPECT_EQ(fault(1, {"get", "members/1/memory"}), "members/1/memory: nothing there\n");
  EXPECT_EQ(fault(2, {"put", "members/1/figures", R"({"clock": 1, "users": 1, "processes": 1,
                                                     "memorySize": 1, "loads": {"1": "x"}})"}),
            "members/1/figures/loads/1: found \"x\", expected an integer from -32768 to 32767\n");
}

TEST_F(StoreCommandsTest, DocumentInThePackedForm_IsImported) {
  std::string file = directory.write(
      "packed.json",
      R"({"members": {"1": {"figures": {"clock": 1, "users": 2, "processes": 3, "memorySize": 4,
                         "loads": {"1": 5}}, "filesystems": {"/": {"allocationUnits": 1, "size": 2, "free": 1}}}}})");
  EXPECT_EQ(ctl({"import", "--force", file}), "3 written, 0 deleted, 0 unchanged\n");
  EXPECT_EQ(
      json::parse(ctl({"get", "members/1/storage"})),
      json::parse(R"({"members": {"1": {"storage": {"/": {"allocationUnits": 1, "size": 2, "free": 1}}}}})"));
  EXPECT_EQ(ctl({"import", "--force", file}), "0 written, 0 deleted, 3 unchanged\n");
}

// The server that is asked first deletes it and cannot say so; the next one finds nothing any more.
TEST_F(StoreCommandsTest, DelIsRepeatedAtTheNextServer_ThatNothingIsLeftIsNoFault) {
  ctl({"put", "sysname", R"("alpha")"});
  Kelstore::Etcd::BrokenOff first(server->endpoint());
  endpoints = first.endpoint() + "," + server->endpoint();
  EXPECT_EQ(ctl({"del", "sysname"}), "");
  EXPECT_EQ(rawKeys(), "");
}

TEST_F(StoreCommandsTest, DelFindsNothing_AndTheFirstServerCannotHaveDeletedIt) {
  endpoints = fmt::format("127.0.0.1:{},{}", Support::freeTcpPort(), server->endpoint());
  EXPECT_EQ(fault(1, {"del", "sysname"}), "sysname: nothing there\n");
  Kelstore::Etcd::SilentServer silent;
  endpoints = silent.endpoint() + "," + server->endpoint();
  EXPECT_EQ(fault(1, {"del", "sysname"}), "sysname: nothing there\n");
}

TEST_F(StoreCommandsTest, EmptyStore_EmptyDocument) {
  EXPECT_EQ(ctl({"get"}), "{}\n");
  EXPECT_EQ(ctl({"export"}), "{}\n");
}

TEST_F(StoreCommandsTest, PutRefusesWhatIsNoValue_NothingIsWritten) {
  EXPECT_EQ(fault(2, {"put", "members/1/processors/1", R"({"load": 70000})"}),
            "members/1/processors/1/load: found 70000, expected an integer from -32768 to 32767\n");
  EXPECT_EQ(fault(2, {"put", "interfaces/a", "{}"}),
            "interfaces/a/ifIndex: found nothing, expected an integer from 0 to 4294967295\n");
  EXPECT_THAT(fault(2, {"put", "interfaces/a", "{"}), StartsWith("interfaces/a:1:2: "));
  EXPECT_EQ(
      fault(2, {"put", "members/1/storage/%2F", R"({"size": -1, "free": 1})"}),
      "members/1/storage/\"/\"/allocationUnits: found nothing, expected an integer from 0 to 4294967295\n"
      "trelctl: members/1/storage/\"/\"/size: found -1, expected an integer from 0 to "
      "18446744073709551615\n");
  EXPECT_EQ(ctl({"export"}), "{}\n");
}

TEST_F(StoreCommandsTest, PutWarnsOfMembersThatAreIgnored) {
  Result result = tryCtl({"put", "interfaces/a", R"({"ifIndex": 1, "colour": "red"})"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "trelctl: interfaces/a/colour: unknown member, ignored\n");
  EXPECT_EQ(all(), json::parse(R"({"interfaces": {"a": {"ifIndex": 1}}})"));
}

TEST_F(StoreCommandsTest, PathsThatAreNone) {
  constexpr const char* kHint =
      ": expected a path of the state, such as members/1/system; a \"/\" within a name is spelt %2F\n";
  for (const char* path : {"nothing", "members/1/fans", "interfaces/Backplane1/1", "sysname/x", "/sysname"}) {
    EXPECT_EQ(fault(2, {"get", path}), std::string(path) + kHint);
    EXPECT_EQ(fault(2, {"del", path}), std::string(path) + kHint);
    EXPECT_EQ(fault(2, {"put", path, "{}"}), std::string(path) + kHint);
  }
  EXPECT_EQ(fault(2, {"get", "members/256"}), "members/256: found \"256\", expected a member id, 0 to 255\n");
  EXPECT_EQ(fault(2, {"get", "interfaces/a b"}), "interfaces/a b: found \"a b\", expected \"a%20b\"\n");
  EXPECT_EQ(fault(2, {"put", "members/1", "{}"}),
            "members/1: expected the path of a value, such as members/1/system\n");
  EXPECT_EQ(fault(2, {"del", ""}), "found no path, expected a path of the state, such as members/1/system\n");
}

TEST_F(StoreCommandsTest, ImportThenExport_TheSameState) {
  EXPECT_EQ(ctl({"import", "--force", TREL_EXAMPLE}), "44 written, 0 deleted, 0 unchanged\n");
  std::string file = directory.file("out.json");
  EXPECT_EQ(ctl({"export", file}), "");
  auto before = Kelstore::parseDocument(Support::readFile(TREL_EXAMPLE));
  auto after = Kelstore::parseDocument(Support::readFile(file));
  EXPECT_EQ(std::map(after.values.begin(), after.values.end()),
            std::map(before.values.begin(), before.values.end()));
  EXPECT_TRUE(after.faults.empty());
  EXPECT_TRUE(after.warnings.empty());
  // Nothing else is left beside it.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1);

  // What is there already is not written again.
  std::string revision = revisionLine();
  EXPECT_EQ(ctl({"import", "--force", file}), "0 written, 0 deleted, 44 unchanged\n");
  EXPECT_EQ(revisionLine(), revision);
}

TEST_F(StoreCommandsTest, ImportWritesDifferences_ReplaceDeletesTheRest) {
  ctl({"import", "--force",
       directory.write("a.json", R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": 2}}})")});
  putRaw("notes", "none of our business");
  putRaw("interfaces/%61", "another spelling");
  std::string changed =
      directory.write("b.json", R"({"interfaces": {"b": {"ifIndex": 3}, "c": {"ifIndex": 4}}})");
  EXPECT_EQ(ctl({"import", "--force", changed}), "2 written, 0 deleted, 0 unchanged\n");
  EXPECT_EQ(ctl({"import", "--force", changed, "--replace"}), "0 written, 2 deleted, 2 unchanged\n");
  EXPECT_EQ(rawKeys(), fmt::format("{0}/interfaces/b\n\n{0}/interfaces/c\n\n{0}/notes\n\n", prefix));
}

TEST_F(StoreCommandsTest, ImportListsEveryFault_NothingIsWritten) {
  std::string file =
      directory.write("bad.json", R"({"interfaces": {"a": {"ifIndex": 1}, "b": {"ifIndex": -1}},
      "members": {"x": {}}})");
  EXPECT_EQ(fault(2, {"import", file}),
            fmt::format("{0}: interfaces/b/ifIndex: found -1, expected an integer from 0 to 4294967295\n"
                        "trelctl: {0}: members/x: found \"x\", expected a member id, 0 to 255\n",
                        file));
  EXPECT_THAT(fault(2, {"import", directory.write("bad.json", "{\n  x")}), StartsWith(file + ":2:3: "));
  EXPECT_EQ(fault(2, {"import", directory.file("absent.json")}),
            directory.file("absent.json") + ": No such file or directory\n");
  EXPECT_EQ(fault(2, {"del", "members/x"}), "members/x: found \"x\", expected a member id, 0 to 255\n");
  EXPECT_EQ(fault(2, {"import", directory.path()}), directory.path().string() + ": Is a directory\n");
  EXPECT_EQ(ctl({"export"}), "{}\n");
}

TEST_F(StoreCommandsTest, ImportSaysWhatAStoreDoesNotKeep) {
  std::string file = directory.write(
      "in.json",
      R"({"members": {"1": {"reachability": {}, "processors": {"1": {"load": 1}}}}, "colour": 1})");
  Result result = tryCtl({"import", "--force", file});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(
      result.err,
      fmt::format("trelctl: {0}: colour: unknown member, ignored\n"
                  "trelctl: {0}: members/1/reachability: found an empty object, which a store does not keep; "
                  "ignored\n",
                  file));
  EXPECT_EQ(all(), json::parse(R"({"members": {"1": {"processors": {"1": {"load": 1}}}}})"));
}

// Such rows used to stay for ever, as they have no lease.
TEST_F(StoreCommandsTest, ImportOfWhatMembersPublish_IsRefused_NothingIsWritten) {
  for (const char* own : {R"("members": {"2": {"processors": {"1": {"load": 7}}}})",
                          R"("topology": {"2": {"3": {"intf": "Backplane1/3"}}})",
                          R"("interfaces": {"Backplane1/3": {"ifIndex": 3}})"}) {
    std::string file = directory.write("in.json", fmt::format(R"({{"sysname": "alpha", {}}})", own));
    EXPECT_THAT(
        fault(2, {"import", file}),
        testing::MatchesRegex(
            file + ": found 1 values that members publish themselves, such as "
                   "(members/2/processors/1|topology/2/3|\"?interfaces/.*): written by hand they have "
                   "no lease, and stay when the member is gone; leave them out with "
                   "--without-members, or write them with --force\n"));
  }
  EXPECT_EQ(ctl({"export"}), "{}\n");
}

TEST_F(StoreCommandsTest,
       ExportIsImportedWithoutMembers_TheClustersValuesAreBack_ThoseOfMembersAreLeftAlone) {
  std::string file = directory.file("export.json");
  ctl({"import", "--force", TREL_EXAMPLE});
  ctl({"export", file});
  ctl({"del", "storageMappings"});
  ctl({"del", "members/3"});
  ctl({"put", "members/9/processors/1", R"({"load": 9})"});
  putRaw("members/%39/system", "another spelling");
  putRaw("storageMappings/memory/%31", "another spelling");
  json now = json::parse(tryCtl({"export"}).out);
  EXPECT_EQ(ctl({"import", "--without-members", "--replace", file}), "6 written, 1 deleted, 1 unchanged\n");
  now["storageMappings"] = json::parse(Support::readFile(file))["storageMappings"];
  EXPECT_EQ(json::parse(tryCtl({"export"}).out), now);
  EXPECT_THAT(rawKeys(), HasSubstr("members/%39/system"));
}

TEST_F(StoreCommandsTest, ImportFromStandardInput) {
  std::string file = directory.write("in.json", R"({"sysname": "alpha"})");
  Result result =
      Support::run({"sh", "-c", fmt::format("{} import - --store {} <{}", TRELCTL, store(), file)});
  EXPECT_EQ(result.out, "1 written, 0 deleted, 0 unchanged\n") << result.err;
}

TEST_F(StoreCommandsTest, ExportSetsAsideWhatItCannotRead) {
  ctl({"put", "interfaces/a", R"({"ifIndex": 1})"});
  putRaw("interfaces/b", R"({"ifIndex": "two"})");
  putRaw("members/01/system", "{}");
  putRaw("notes", "none of our business");
  std::string file = directory.file("out.json");
  EXPECT_EQ(fault(1, {"export", file}),
            "notes: unknown, ignored\n"
            "trelctl: interfaces/b/ifIndex: found \"two\", expected an integer from 0 to 4294967295\n"
            "trelctl: members/01: found \"01\", expected a member id, 0 to 255\n"
            "trelctl: 2 of 3 values cannot be read and are left out\n");
  EXPECT_EQ(json::parse(Support::readFile(file)), json::parse(R"({"interfaces": {"a": {"ifIndex": 1}}})"));
  Result shown = tryCtl({"get"});
  EXPECT_EQ(shown.status, 1);
  EXPECT_EQ(json::parse(shown.out), json::parse(Support::readFile(file)));
}

TEST_F(StoreCommandsTest, ExportToWhereNothingCanBeWritten) {
  std::string file = directory.file("absent/out.json");
  EXPECT_EQ(fault(1, {"export", file}), file + ": No such file or directory\n");
  EXPECT_EQ(fault(1, {"export", "/dev/full"}), "/dev/full: No space left on device\n");
}

TEST_F(StoreCommandsTest, AwkwardNamesComeBack) {
  json names = json::object();
  for (const char* name : {"/", "/var/log", "/mnt/a b", "/mnt/100%", "/mnt/%2F", "/mnt/caf\xc3\xa9",
                           "/mnt/\"q\"", "/mnt/a\\b", "..", "~"}) {
    names[name] = {{"allocationUnits", 4096}, {"size", 18446744073709551615u}, {"free", 0}};
  }
  json document = {{"members", {{"255", {{"storage", names}}}}}};
  ctl({"import", "--force", directory.write("in.json", document.dump())});
  EXPECT_EQ(all(), document);
  EXPECT_EQ(ctl({"import", "--force", directory.write("in.json", document.dump())}),
            "0 written, 0 deleted, 10 unchanged\n");
}

TEST_F(StoreCommandsTest, HundredThousandKeysThereAndBack) {
  json document = Support::hundredThousandProcessors(0);
  EXPECT_EQ(ctl({"import", "--force", directory.write("in.json", document.dump())}),
            "100000 written, 0 deleted, 0 unchanged\n");
  EXPECT_TRUE(all() == document);
  document["members"]["50"]["processors"]["500"]["load"] = -1;
  EXPECT_EQ(ctl({"import", "--force", directory.write("in.json", document.dump())}),
            "1 written, 0 deleted, 99999 unchanged\n");
  EXPECT_TRUE(all() == document);
  ctl({"del", "members"});
  EXPECT_EQ(ctl({"export"}), "{}\n");
}

TEST_F(StoreCommandsTest, StoreThatIsNotThere_OneLineAndStatus1) {
  std::string endpoint = fmt::format("127.0.0.1:{}", Support::freeTcpPort());
  for (const Argv& command : {Argv{"put", "sysname", "\"a\""}, Argv{"del", "sysname"}, Argv{"get"},
                              Argv{"export"}, Argv{"import", "--force", TREL_EXAMPLE}}) {
    Argv argv = {TRELCTL};
    argv.insert(argv.end(), command.begin(), command.end());
    argv.insert(argv.end(), {"--store", "etcd:" + endpoint + "/trel"});
    Result result = Support::run(argv);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, StartsWith("trelctl: " + endpoint + ": "));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(StoreCommandsTest, UnusableArguments_OneLineAndStatus2) {
  auto unusable = [](const Argv& arguments) {
    Argv argv = {TRELCTL};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    Result result = Support::run(argv);
    EXPECT_EQ(result.status, 2) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    return result.err;
  };
  EXPECT_THAT(unusable({"get", "--config", directory.path()}), HasSubstr("--store is required, as no "));
  EXPECT_THAT(unusable({"get", "--store", "h:1/p"}),
              HasSubstr("--store: found \"h:1/p\", expected etcd:HOST:PORT[,HOST:PORT...]/PREFIX"));
  EXPECT_THAT(unusable({"get", "--store", "etcd:h/p"}), HasSubstr("found \"h\", expected HOST:PORT"));
  EXPECT_THAT(unusable({"put", "sysname", "--store", "etcd:h:1/p"}), HasSubstr("JSON is required"));
  EXPECT_THAT(unusable({"import", "--store", "etcd:h:1/p"}), HasSubstr("FILE is required"));
  EXPECT_THAT(unusable({"import", TREL_EXAMPLE, "--force", "--without-members", "--store", "etcd:h:1/p"}),
              HasSubstr("--without-members excludes --force"));
  EXPECT_EQ(unusable({"get", "--store", "etcd:h:1/p", "--etcd-ca", "/absent"}),
            "trelctl: /absent: No such file or directory\n");
  EXPECT_EQ(unusable({"get", "--store", "etcd:h:1/p", "--etcd-cert", "/absent"}),
            "trelctl: certificate /absent: found no key for it\n");
  EXPECT_EQ(unusable({"get", "--store", "etcd:h:1/p", "--etcd-credentials", "/absent"}),
            "trelctl: /absent: No such file or directory\n");
}

constexpr const char* kLoad = R"({"load": 7})";

TEST_F(StoreCommandsTest, PutBelowAMemberUnderALease_IsRefusedUnlessForced) {
  putUnderLease("members/1/system", "{}");
  putUnderLease("interfaces/Backplane1%2F1", R"({"ifIndex": 7})");
  EXPECT_EQ(fault(2, {"put", "members/1/processors/1", kLoad}),
            "members/1/processors/1: what member 1 publishes is published under a lease, and a value that is "
            "written "
            "by hand has none and stays when the member is gone; write it all the same with --force\n");
  EXPECT_THAT(fault(2, {"put", "topology/1/2", R"({"intf": "a"})"}), HasSubstr("what member 1 publishes is"));
  EXPECT_THAT(fault(2, {"put", "interfaces/Backplane1%2F1", R"({"ifIndex": 8})"}),
              HasSubstr(": it is published"));
  ctl({"put", "members/2/processors/1", kLoad});
  ctl({"put", "interfaces/Backplane2%2F1", R"({"ifIndex": 8})"});
  ctl({"put", "sysname", R"("a")"});
  ctl({"put", "members/1/processors/1", kLoad, "--force"});
}

TEST_F(StoreCommandsTest, DryRun_SaysWhatItWouldDo_AndDoesNothing) {
  ctl({"put", "members/1/processors/1", kLoad});
  std::string key = prefix + "/members/1/processors/1";
  EXPECT_EQ(ctl({"del", "members/1", "--dry-run"}), "delete " + key + "\n");
  EXPECT_EQ(ctl({"forget", "1", "--dry-run"}), "delete " + key + "\n");
  std::string document = directory.write("document", R"({"sysname": "a"})");
  EXPECT_EQ(ctl({"import", document, "--replace", "--force", "--dry-run"}),
            "put " + prefix + "/sysname \"a\"\ndelete " + key + "\n");
  EXPECT_THAT(rawKeys(), HasSubstr(key));
}

TEST_F(StoreCommandsTest, Forget_DeletesWhatIsTheMembersAlone_OnceSomebodyAgrees) {
  for (const char* path : {"members/1/processors/1", "members/11/processors/1"}) ctl({"put", path, kLoad});
  ctl({"put", "topology/1/2", R"({"intf": "Backplane1/2"})"});
  ctl({"put", "interfaces/Backplane1%2F2", R"({"ifIndex": 7})"});
  ctl({"put", "interfaces/Backplane2%2F1", R"({"ifIndex": 8})"});
  for (const char* path : {"expected/1", "expected/11"}) ctl({"put", path, "{}"});
  EXPECT_THAT(fault(2, {"forget", "1"}),
              StartsWith("nobody can be asked: to delete these 4 keys of member 1, add --yes"));
  EXPECT_THAT(ctl({"forget", "1", "--yes"}), testing::EndsWith("\n4 deleted\n"));
  EXPECT_EQ(all().dump(), R"({"expected":{"11":{}},"interfaces":{"Backplane2/1":{"ifIndex":8}},)"
                          R"("members":{"11":{"processors":{"1":{"load":7}}}}})");
  EXPECT_EQ(fault(1, {"forget", "1", "--yes"}), "the store has nothing of member 1\n");
  EXPECT_EQ(tryCtl({"forget", "256", "--yes"}).status, 2);
}

TEST_F(StoreCommandsTest, ForgetAMemberThatLives_IsRefusedUnlessForced) {
  putUnderLease("members/1/processors/1", kLoad);
  EXPECT_THAT(fault(2, {"forget", "1", "--yes"}),
              StartsWith("member 1 publishes under a lease that lives, "));
  EXPECT_THAT(ctl({"forget", "1", "--yes", "--force"}), testing::EndsWith("1 deleted\n"));
}

// What a member that started while the terminal was asked had published used to be deleted, too.
TEST_F(StoreCommandsTest, MemberPublishesWhileSomebodyIsAsked_ItKeepsItsKeys) {
  ctl({"put", "members/1/processors/1", kLoad});
  std::string to = store();
  int terminal = -1;
  pid_t asking = forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(asking, 0);
  if (asking == 0) {
    execl(TRELCTL, TRELCTL, "forget", "1", "--store", to.c_str(), nullptr);
    _exit(127);
  }
  std::string said;
  auto readUntil = [&](const std::string& text) {
    char c = 0;
    while (said.find(text) == std::string::npos && read(terminal, &c, 1) == 1) said += c;
  };
  readUntil("[y/N] ");
  putUnderLease("members/1/processors/1", kLoad);
  ASSERT_EQ(write(terminal, "y\n", 2), 2);
  readUntil("forget it again for the rest");
  int status = 0;
  ASSERT_EQ(waitpid(asking, &status, 0), asking);
  close(terminal);
  EXPECT_EQ(WEXITSTATUS(status), 1) << said;
  EXPECT_THAT(said, HasSubstr("what was listed has changed meanwhile; 0 of 1 changes were made, "));
  EXPECT_THAT(rawKeys(), HasSubstr("members/1/processors/1"));
}

TEST_F(StoreCommandsTest, CredentialsComeFromAFile) {
  Support::EtcdCluster asking;
  asking.ctl({"user", "add", "root:secret"});
  asking.tryCtl({"role", "add", "root"});
  asking.ctl({"user", "grant-role", "root", "root"});
  asking.ctl({"auth", "enable"});
  std::string login = directory.write("login", R"({"user": "root", "password": "secret"})");
  chmod(login.c_str(), 0600);
  std::string store = fmt::format("etcd:{}/trel", asking.endpoint());
  EXPECT_EQ(Support::run({TRELCTL, "get", "--store", store}).err,
            fmt::format("trelctl: {}: etcdserver: user name is empty\n", asking.endpoint()));
  EXPECT_EQ(Support::run({TRELCTL, "get", "--store", store, "--etcd-credentials", login}).out, "{}\n");
  directory.write("login", R"({"user": "root", "password": "wrong"})");
  EXPECT_EQ(Support::run({TRELCTL, "get", "--store", store, "--etcd-credentials", login}).err,
            fmt::format("trelctl: {}: user \"root\" of {} was refused\n", asking.endpoint(), login));
}

}  // namespace
