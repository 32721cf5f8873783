// The credentials of every command, and the access-control commands: acl show, acl lock.
#include <korvel/tree.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "commands.h"

namespace korvel::cli {
namespace {

using qx::korvel::AclEntry;
using qx::korvel::Connection;
using qx::korvel::Credentials;
namespace tree = qx::korvel::tree;

// "user:password" -> the credentials; the text itself never goes into a message.
Credentials ParseCredentials(const std::string& text, const std::string& source) {
  const auto colon = text.find(':');
  if (colon == std::string::npos || colon == 0) {
    throw Failure(source + " does not hold credentials of the form USER:PASSWORD");
  }
  return {text.substr(0, colon), text.substr(colon + 1)};
}

// The nodes of the type's trees: its two directories and everything below them, parents before
// their children, read a level at a time with the requests of a level in flight together.
std::vector<std::string> TypeNodes(const Connection& conn, const std::string& type) {
  std::vector<std::string> nodes;
  std::vector<std::string> level;
  for (const std::string& dir : {tree::AliveDir(type), tree::DataDir(type)}) {
    if (conn.Exists(dir, nullptr) == ZOK) level.push_back(dir);
  }
  if (level.empty()) throw Failure("no type '" + type + "' in ZooKeeper");
  while (!level.empty()) {
    nodes.insert(nodes.end(), level.begin(), level.end());
    std::vector<std::vector<std::string>> children;
    const std::vector<int> codes = conn.GetChildrenAll(level, children);
    std::vector<std::string> next;
    for (std::size_t i = 0; i < level.size(); ++i) {
      if (codes[i] != ZOK && codes[i] != ZNONODE) {
        throw Failure("cannot list " + level[i] + ": " + zerror(codes[i]));
      }
      for (const std::string& child : children[i]) next.push_back(level[i] + "/" + child);
    }
    level = std::move(next);
  }
  return nodes;
}

// The rights of a permission mask in words: "all", or e.g. "read, write".
std::string Rights(int perms) {
  if ((perms & ZOO_PERM_ALL) == ZOO_PERM_ALL) return "all";
  static const std::pair<int, const char*> kNames[] = {
      {ZOO_PERM_READ, "read"},     {ZOO_PERM_WRITE, "write"}, {ZOO_PERM_CREATE, "create"},
      {ZOO_PERM_DELETE, "delete"}, {ZOO_PERM_ADMIN, "admin"},
  };
  std::string text;
  for (const auto& [bit, name] : kNames) {
    if ((perms & bit) != 0) text += (text.empty() ? "" : ", ") + std::string(name);
  }
  return text.empty() ? "nothing" : text;
}

// Who an entry names, for a person: "anyone", "user 'alice'" (a digest id without its hash), ...
std::string Who(const AclEntry& entry) {
  if (entry.scheme == "world" && entry.id == "anyone") return "anyone";
  if (entry.scheme == "digest") return "user '" + entry.id.substr(0, entry.id.find(':')) + "'";
  return entry.scheme + " '" + entry.id + "'";
}

// True when anyone but the named identities may change the node.
bool Open(const std::vector<AclEntry>& acl) {
  for (const AclEntry& entry : acl) {
    if (entry.scheme == "world" && (entry.perms & ~ZOO_PERM_READ) != 0) return true;
  }
  return false;
}

}  // namespace

std::optional<Credentials> LoadCredentials(const std::string& authFile) {
  if (authFile.empty()) {
    const char* text = std::getenv("KORVEL_ZK_AUTH");
    if (text == nullptr || *text == '\0') return std::nullopt;
    return ParseCredentials(text, "KORVEL_ZK_AUTH");
  }
  const std::string text = ReadPrivateFile(authFile, "the credentials file");
  return ParseCredentials(text.substr(0, text.find('\n')), authFile);
}

std::string ReadPrivateFile(const std::string& path, const std::string& what) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    throw Failure("cannot read " + what + " " + path + ": " + std::strerror(errno));
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw Failure(what + " " + path +
                  " is open to its group or to others: make it private (chmod 600 " + path + ")");
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) throw Failure("cannot read " + what + " " + path);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  if (file.bad()) throw Failure("cannot read " + what + " " + path);
  return text;
}

int RunAclShow(const Settings& settings, const std::string& type, bool json) {
  const auto conn = Connect(settings);
  const std::string normal = tree::RegistrableType(type);
  Json nodes = Json::array();
  std::string text;
  bool open = false;
  for (const std::string& node : TypeNodes(*conn, normal)) {
    std::vector<AclEntry> acl;
    const int rc = conn->GetAcl(node, acl);
    if (rc == ZNONODE) continue;  // gone since it was listed
    if (rc != ZOK) throw Failure("cannot read the ACL of " + node + ": " + zerror(rc));
    open = open || Open(acl);
    Json entries = Json::array();
    std::string who;
    for (const AclEntry& entry : acl) {
      entries.push_back(
          {{"scheme", entry.scheme}, {"id", entry.id}, {"rights", Rights(entry.perms)}});
      who += (who.empty() ? "" : "; ") + Who(entry) + ": " + Rights(entry.perms);
    }
    nodes.push_back({{"path", node}, {"acl", std::move(entries)}});
    text += node + "\n    " + who + "\n";
  }
  if (json) {
    std::cout << Json{{"type", normal}, {"open", open}, {"nodes", std::move(nodes)}}.dump(2)
              << "\n";
    return 0;
  }
  std::cout << text
            << (open ? "Open: clients other than the owners may change it (korvel acl lock " +
                           normal + " protects it)\n"
                     : "Protected: only the identities named above may change it\n");
  return 0;
}

int RunAclLock(const Settings& settings, const std::string& type) {
  const auto conn = Connect(settings);
  if (conn->User().empty()) {
    throw Failure("acl lock needs the owner's credentials: KORVEL_ZK_AUTH or --auth-file");
  }
  const std::string normal = tree::RegistrableType(type);
  const std::vector<std::string> nodes = TypeNodes(*conn, normal);
  std::size_t locked = 0;
  for (const std::string& node : nodes) {
    const int rc = conn->SetAcl(node, conn->NodeAcl());
    if (rc == ZNONODE) continue;  // gone since it was listed
    if (rc == ZNOAUTH) {
      throw Failure("not allowed to change the ACL of " + node +
                    ": that needs admin rights on it (its owner's, or ZooKeeper's superuser's)");
    }
    if (rc != ZOK) throw Failure("cannot change the ACL of " + node + ": " + zerror(rc));
    ++locked;
  }
  std::cout << "locked " << locked << " nodes of type " << normal << " for user '" << conn->User()
            << "'\n";
  return 0;
}

}  // namespace korvel::cli
