// Access control: a registration over a connection with credentials is
// protected against every other client, against a real server that has a
// superuser.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include "korvel/error.h"
#include "korvel/service.h"
#include "korvel/utils.h"
#include "process/child_process.h"
#include "util/test_util.h"

namespace korvel::test {
namespace {

using process::ChildProcess;
using qx::korvel::AclEntry;
using qx::korvel::Connection;
using qx::korvel::Credentials;
using qx::korvel::DigestId;
using qx::korvel::KorvelError;
using qx::korvel::Service;

const Credentials kOwner{"owner", "owner-secret-7f3a"};
const Credentials kOther{"other", "other-secret-91c2"};
const Credentials kSuper{"super", "super-secret-5d0e"};

// The server of this binary: digest authentication, and kSuper as its superuser.
ZooKeeperServer& AclServer() {
  static ZooKeeperServer server(
      100, zklocal::Jit::kQuickStart,
      {"-Dzookeeper.DigestAuthenticationProvider.superDigest=" + DigestId(kSuper)});
  return server;
}

std::shared_ptr<Connection> ConnectAs(const Credentials& credentials) {
  return std::make_shared<Connection>(AclServer().ConnectString(), 4000ms, credentials);
}

std::string AclText(const std::vector<AclEntry>& acl) {
  std::string text;
  for (const AclEntry& entry : acl) {
    text += entry.scheme + ":" + entry.id + "=" + std::to_string(entry.perms) + ";";
  }
  return text;
}

std::string AclOf(const Connection& conn, const std::string& path) {
  std::vector<AclEntry> acl;
  EXPECT_EQ(ZOK, conn.GetAcl(path, acl)) << path;
  return AclText(acl);
}

const std::string kOwnerAcl = "digest:" + DigestId(kOwner) + "=31;world:anyone=1;";
const std::string kOpenAcl = "world:anyone=31;";

// Every node below `root` (and itself) with its value, its version, its
// ACL's version and its children's version: what any change would alter.
std::map<std::string, std::string> Snapshot(const Connection& conn, const std::string& root) {
  std::map<std::string, std::string> nodes;
  std::function<void(const std::string&)> visit = [&](const std::string& path) {
    std::string value;
    Stat stat{};
    if (conn.Get(path, value, &stat) != ZOK) return;
    nodes[path] = value + "|" + std::to_string(stat.version) + "|" + std::to_string(stat.aversion) +
                  "|" + std::to_string(stat.cversion) + "|" + AclOf(conn, path);
    std::vector<std::string> children;
    conn.GetChildren(path, children);
    for (const std::string& child : children) visit(path + "/" + child);
  };
  visit(root);
  return nodes;
}

class AclTest : public ::testing::Test {
 protected:
  void SetUp() override {
    owner = ConnectAs(kOwner);
    type = UniqueName("acl");
  }

  std::map<std::string, std::string> TypeSnapshot() {
    auto nodes = Snapshot(*owner, tree::DataDir(type));
    nodes.merge(Snapshot(*owner, tree::AliveDir(type)));
    return nodes;
  }

  // Every kind of node that a registration makes, as they stand now.
  std::vector<std::string> RegistrationNodes(const Service& service) {
    const std::string data = service.GetRoot();
    std::vector<std::string> nodes = {tree::AliveDir(type), tree::DataDir(type),
                                      tree::AlivePath(type, service.GetId()), data};
    std::vector<std::string> attributes;
    EXPECT_EQ(ZOK, owner->GetChildren(data, attributes));
    for (const std::string& name : attributes) {
      if (tree::OwnAttributeNamed(name)) nodes.push_back(data + "/" + name);
    }
    nodes.push_back(data + "/db");
    nodes.push_back(data + "/db/port");
    return nodes;
  }

  // `attacker` tries to delete, change, create below and re-ACL each node;
  // every attempt must be refused. Returns the number of attempts.
  int Attack(const Connection& attacker, const std::vector<std::string>& nodes) {
    int attempts = 0;
    for (const std::string& node : nodes) {
      // A type's directory stands in an open root, so the parent allows its
      // deletion: what refuses it is that it is not empty.
      const bool typeDir = node == tree::DataDir(type) || node == tree::AliveDir(type);
      EXPECT_EQ(typeDir ? ZNOTEMPTY : ZNOAUTH, attacker.Delete(node, -1)) << node;
      EXPECT_EQ(ZNOAUTH, attacker.Set(node, "forged", -1)) << node;
      EXPECT_EQ(ZNOAUTH, attacker.Create(node + "/intruder", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr))
          << node;
      EXPECT_EQ(ZNOAUTH, attacker.SetAcl(node, ZOO_OPEN_ACL_UNSAFE)) << node;
      attempts += 4;
    }
    return attempts;
  }

  std::shared_ptr<Connection> owner;
  std::string type;
};

TEST_F(AclTest, EveryNodeOfARegistrationRefusesOtherClients) {
  auto service = std::make_shared<Service>(owner, type, "api");
  service->SetChildAttribute("db", "port", "5432");
  const std::vector<std::string> nodes = RegistrationNodes(*service);
  ASSERT_GE(nodes.size(), 11u);  // two directories, two nodes, five attributes, a record
  for (const std::string& node : nodes) EXPECT_EQ(kOwnerAcl, AclOf(*owner, node)) << node;
  EXPECT_EQ(kOpenAcl, AclOf(*owner, tree::kDataRoot));
  EXPECT_EQ(kOpenAcl, AclOf(*owner, tree::kAliveRoot));

  const auto before = TypeSnapshot();
  const auto anonymous = Connect(AclServer().ConnectString());
  const auto other = ConnectAs(kOther);
  int attempts = Attack(*anonymous, nodes);
  attempts += Attack(*other, nodes);
  EXPECT_EQ(before, TypeSnapshot());
  // Everyone may still read.
  EXPECT_EQ("5432", ReadNode(*anonymous, service->GetRoot() + "/db/port"));
  std::cout << "acl_test: " << attempts << " attacks on " << nodes.size()
            << " nodes refused, tree unchanged\n";
}

TEST_F(AclTest, InstancesOfOneIdentityCleanUpEachOthersLeftovers) {
  const auto crashedConn = ConnectAs(kOwner);
  auto crashed = std::make_shared<Service>(crashedConn, type, "api");
  crashed->SetChildAttribute("db", "port", "5432");
  const std::string leftover = crashed->GetRoot();
  const std::string alive = tree::AlivePath(type, crashed->GetId());
  ExpireSession(AclServer().ConnectString(), crashedConn->ClientId());
  ASSERT_TRUE(WaitUntil([&] { return !NodeExists(*owner, alive); }, 10s));
  ASSERT_TRUE(NodeExists(*owner, leftover + "/db/port"));

  Service next(owner, type, "api");
  EXPECT_FALSE(NodeExists(*owner, leftover));
  EXPECT_TRUE(NodeExists(*owner, next.GetRoot()));
}

TEST_F(AclTest, ReRegistrationAfterExpiryIsProtectedToo) {
  auto service = std::make_shared<Service>(owner, type, "api");
  service->RegisterForSessionEvent();
  const std::string alive = tree::AlivePath(type, service->GetId());
  const int64_t first = owner->ClientId().client_id;
  ExpireSession(AclServer().ConnectString(), owner->ClientId());
  ASSERT_TRUE(WaitUntil(
      [&] {
        const int64_t session = owner->ClientId().client_id;
        return session != first && EphemeralOwner(*owner, alive) == session &&
               NodeExists(*owner, service->GetRoot() + "/start_time");
      },
      15s));

  const std::vector<std::string> nodes = RegistrationNodes(*service);
  for (const std::string& node : nodes) {
    if (node.find("/db") != std::string::npos) continue;  // no child record here
    EXPECT_EQ(kOwnerAcl, AclOf(*owner, node)) << node;
  }
  const auto before = TypeSnapshot();
  const auto anonymous = Connect(AclServer().ConnectString());
  EXPECT_EQ(ZNOAUTH, anonymous->Delete(alive, -1));
  EXPECT_EQ(ZNOAUTH, anonymous->Set(service->GetRoot() + "/status", "up", -1));
  EXPECT_EQ(ZNOAUTH,
            anonymous->Create(service->GetRoot() + "/x", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
  EXPECT_EQ(ZNOAUTH, anonymous->SetAcl(alive, ZOO_OPEN_ACL_UNSAFE));
  EXPECT_EQ(before, TypeSnapshot());
}

TEST_F(AclTest, AWrongPasswordIsAClearErrorAndCreatesNothing) {
  Service registered(owner, type, "api");
  const auto before = TypeSnapshot();
  const Credentials wrong{kOwner.user, "not-the-password-42"};
  LogCapture capture;
  const auto impostor = ConnectAs(wrong);
  try {
    Service service(impostor, type, "api");
    ADD_FAILURE() << "registered with a wrong password";
  } catch (const KorvelError& e) {
    EXPECT_STREQ("Not authorized to register: the type belongs to another identity", e.what());
  }
  EXPECT_EQ(before, TypeSnapshot());
  bool named = false;
  for (const CapturedRecord& record : capture.Records()) {
    EXPECT_EQ(std::string::npos, record.message.find(wrong.password)) << record.message;
    named = named || record.message.find("'" + wrong.user + "'") != std::string::npos;
  }
  EXPECT_TRUE(named);
}

TEST_F(AclTest, AnOpenTypeIsReportedOncePerRegistration) {
  const auto anonymous = Connect(AclServer().ConnectString());
  Service open(anonymous, type, "old");
  EXPECT_EQ(kOpenAcl, AclOf(*owner, tree::AliveDir(type)));
  LogCapture capture;
  Service service(owner, type, "api");
  int warnings = 0;
  for (const CapturedRecord& record : capture.FromSource("korvel.service")) {
    warnings += record.message.find("korvel acl lock " + type) != std::string::npos;
  }
  EXPECT_EQ(1, warnings);
  // Its own nodes are protected all the same.
  EXPECT_EQ(kOwnerAcl, AclOf(*owner, service.GetRoot()));
}

TEST_F(AclTest, WithoutCredentialsEveryNodeIsOpen) {
  const auto anonymous = Connect(AclServer().ConnectString());
  EXPECT_EQ(&ZOO_OPEN_ACL_UNSAFE.data[0], anonymous->NodeAcl().data);
  EXPECT_EQ("", anonymous->User());
  Service service(anonymous, type, "api");
  service.SetChildAttribute("db", "port", "1");
  for (const std::string& node : {tree::AliveDir(type), tree::DataDir(type), service.GetRoot(),
                                  service.GetRoot() + "/status", service.GetRoot() + "/db/port"}) {
    EXPECT_EQ(kOpenAcl, AclOf(*anonymous, node)) << node;
  }
}

TEST_F(AclTest, TheSuperuserMayChangeAnOwnersAcl) {
  Service service(owner, type, "api");
  const auto super = ConnectAs(kSuper);
  EXPECT_EQ(ZOK, super->SetAcl(service.GetRoot(), ZOO_OPEN_ACL_UNSAFE));
  EXPECT_EQ(kOpenAcl, AclOf(*owner, service.GetRoot()));
}

TEST_F(AclTest, TheLogNamesTheUserButNeverThePassword) {
  LogCapture capture;
  {
    const auto conn = ConnectAs(kOwner);
    Service service(conn, type, "api");
  }
  bool named = false;
  for (const CapturedRecord& record : capture.Records()) {
    EXPECT_EQ(std::string::npos, record.message.find(kOwner.password)) << record.message;
    named = named || record.message.find("authenticated as 'owner'") != std::string::npos;
  }
  EXPECT_TRUE(named);
}

TEST_F(AclTest, InvalidCredentialsAreRefused) {
  for (const Credentials& credentials : {Credentials{"", "x"}, Credentials{"a:b", "x"}}) {
    try {
      ConnectAs(credentials);
      ADD_FAILURE() << "connected as '" << credentials.user << "'";
    } catch (const KorvelError& e) {
      EXPECT_STREQ("Invalid ZooKeeper credentials", e.what());
    }
  }
}

// The CLI's credentials in its environment.
std::vector<std::string> AuthEnvironment(const Credentials& credentials) {
  return {"KORVEL_ZK_AUTH=" + credentials.user + ":" + credentials.password};
}

Result Korvel(const std::vector<std::string>& args, const std::vector<std::string>& environment) {
  return RunKorvel(Concat({"--zk", AclServer().ConnectString()}, args), environment);
}

TEST_F(AclTest, CliLockProtectsAnOpenTypeAndShowPrintsIt) {
  const auto anonymous = Connect(AclServer().ConnectString());
  {
    Service open(anonymous, type, "old");
    open.SetChildAttribute("db", "port", "1");
  }
  Service service(anonymous, type, "api");
  const Result openShow = Korvel({"acl", "show", type}, {});
  ASSERT_EQ(0, openShow.code) << openShow.err;
  EXPECT_NE(std::string::npos, openShow.out.find(service.GetRoot() + "\n    anyone: all\n"))
      << openShow.out;
  EXPECT_NE(std::string::npos, openShow.out.find("Open: ")) << openShow.out;

  const Result refused = Korvel({"acl", "lock", type}, {});
  EXPECT_EQ(1, refused.code);
  EXPECT_NE(std::string::npos, refused.err.find("needs the owner's credentials")) << refused.err;

  const Result lock = Korvel({"acl", "lock", type}, AuthEnvironment(kOwner));
  ASSERT_EQ(0, lock.code) << lock.err;
  // Two directories, the liveness and data nodes, five attributes; the leftover of the first
  // instance went with the second registration.
  EXPECT_EQ("locked 9 nodes of type " + type + " for user 'owner'\n", lock.out);
  const Result show = Korvel({"acl", "show", type}, {});
  ASSERT_EQ(0, show.code) << show.err;
  EXPECT_NE(std::string::npos, show.out.find(tree::AlivePath(type, service.GetId()) +
                                             "\n    user 'owner': all; anyone: read\n"))
      << show.out;
  EXPECT_NE(std::string::npos, show.out.find("Protected: ")) << show.out;
  EXPECT_EQ(std::string::npos, show.out.find("anyone: all")) << show.out;
  const Result json = Korvel({"acl", "show", type, "--json"}, {});
  EXPECT_NE(std::string::npos, json.out.find("\"open\": false")) << json.out;

  // The open type is now a protected one.
  const auto before = TypeSnapshot();
  EXPECT_EQ(ZNOAUTH, anonymous->Delete(tree::AlivePath(type, service.GetId()), -1));
  EXPECT_EQ(ZNOAUTH, anonymous->Create(tree::DataDir(type) + "/impostor", "", ZOO_OPEN_ACL_UNSAFE,
                                       0, nullptr));
  EXPECT_EQ(before, TypeSnapshot());

  // Another user may not take it over; the superuser may.
  const Result other = Korvel({"acl", "lock", type}, AuthEnvironment(kOther));
  EXPECT_EQ(1, other.code);
  EXPECT_NE(std::string::npos, other.err.find("not allowed to change the ACL")) << other.err;
  EXPECT_EQ(before, TypeSnapshot());
  const Result super = Korvel({"acl", "lock", type}, AuthEnvironment(kSuper));
  EXPECT_EQ(0, super.code) << super.err;
  // (The server shows the hash of a digest only to a client with admin rights on the node.)
  EXPECT_EQ("digest:" + DigestId(kSuper) + "=31;world:anyone=1;",
            AclOf(*ConnectAs(kSuper), tree::DataDir(type)));
}

TEST_F(AclTest, CliAuthFileMustBePrivate) {
  Service open(Connect(AclServer().ConnectString()), type, "api");
  const std::string file = testing::TempDir() + UniqueName("auth");
  std::ofstream(file) << kOwner.user << ":" << kOwner.password << "\n";
  chmod(file.c_str(), 0644);
  const Result shared = Korvel({"--auth-file", file, "acl", "lock", type}, {});
  EXPECT_EQ(1, shared.code);
  EXPECT_EQ("korvel: the credentials file " + file +
                " is open to its group or to others: make it private (chmod 600 " + file + ")\n",
            shared.err);
  EXPECT_EQ(kOpenAcl, AclOf(*owner, tree::DataDir(type)));
  chmod(file.c_str(), 0600);
  const Result locked = Korvel({"--auth-file", file, "acl", "lock", type}, {});
  EXPECT_EQ(0, locked.code) << locked.err;
  EXPECT_EQ(kOwnerAcl, AclOf(*owner, tree::DataDir(type)));
  std::filesystem::remove(file);

  const Result malformed = Korvel({"acl", "show", type}, {"KORVEL_ZK_AUTH=no-colon-secret"});
  EXPECT_EQ(1, malformed.code);
  EXPECT_EQ("korvel: KORVEL_ZK_AUTH does not hold credentials of the form USER:PASSWORD\n",
            malformed.err);
}

// A registration of the CLI with credentials: its nodes are the owner's, and the password is in
// none of its arguments, its output or its log.
TEST_F(AclTest, CliRegistrationKeepsThePasswordSecret) {
  process::SpawnOptions options;
  options.environment = EnvironmentWith(AuthEnvironment(kOwner));
  ChildProcess registration(CliPath(),
                            {"korvel", "--zk", AclServer().ConnectString(), "--log-level", "debug",
                             "register", type, "--status", "up"},
                            options);
  const auto id = registration.WaitForLine(
      ChildProcess::kStdout, [](const std::string&) { return true; }, 20s);
  ASSERT_TRUE(id.has_value()) << registration.Output(ChildProcess::kStderr);
  const std::string alive = tree::Below(tree::AliveDir(type), *id);
  ASSERT_TRUE(WaitUntil(
      [&] { return ReadNode(*owner, tree::Below(tree::DataDir(type), *id) + "/status") == "up"; },
      10s));
  EXPECT_EQ(kOwnerAcl, AclOf(*owner, alive));
  const auto anonymous = Connect(AclServer().ConnectString());
  EXPECT_EQ(ZNOAUTH, anonymous->Delete(alive, -1));

  std::ifstream cmdlineFile("/proc/" + std::to_string(registration.Pid()) + "/cmdline");
  const std::string cmdline((std::istreambuf_iterator<char>(cmdlineFile)),
                            std::istreambuf_iterator<char>());
  EXPECT_NE(std::string::npos, cmdline.find("register"));
  EXPECT_EQ(std::string::npos, cmdline.find(kOwner.password));
  EXPECT_EQ(0, registration.Stop(10s));
  const std::string output =
      registration.Output(ChildProcess::kStdout) + registration.Output(ChildProcess::kStderr);
  EXPECT_NE(std::string::npos, output.find("authenticated as 'owner'")) << output;
  EXPECT_EQ(std::string::npos, output.find(kOwner.password)) << output;
  EXPECT_FALSE(NodeExists(*owner, alive));
}

}  // namespace
}  // namespace korvel::test
