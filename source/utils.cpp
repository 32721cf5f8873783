#include "korvel/utils.h"

#include <thread>

#include "korvel/error.h"
#include "korvel/tree.h"
#include "logger/logger.h"

namespace qx::korvel {
namespace {

using logging::QXLOG_ERROR;

// Never destroyed: the helpers may run on the client's threads while the
// process exits.
const logging::ConstSourcePtr& g_log =
    *new logging::ConstSourcePtr(logging::MakeSource("korvel.utils"));

// A subtree that keeps gaining children while it is deleted is given up after
// this many passes.
constexpr int kDeletePasses = 3;
// How often EnsurePath looks whether another session's node has gone.
constexpr auto kOwnerPollInterval = std::chrono::milliseconds(20);

bool IsAbsoluteNormalised(const String& path) {
  if (path.empty() || path.front() != '/') return false;
  if (path.size() > 1 && path.back() == '/') return false;
  return path.find("//") == String::npos;
}

void RequireAbsolute(const String& path, bool allowRoot) {
  if (IsAbsoluteNormalised(path) && (allowRoot || path != "/")) return;
  QXLOG(g_log, QXLOG_ERROR) << "Invalid path '" << path << "'";
  throw KorvelError("Invalid path");
}

[[noreturn]] void FailEnsure(const String& path, const String& why) {
  QXLOG(g_log, QXLOG_ERROR) << "Failed to ensure path '" << path << "': " << why;
  throw KorvelError("Failed to ensure path");
}

bool IsRegistryRoot(const String& path) {
  return path == tree::kDataRoot || path == tree::kAliveRoot;
}

// Creates the node, and its missing ancestors when the parent is missing.
// The registry's roots among them are made open, so that any identity can add
// a type below them.
int CreateWithAncestors(const Connection& conn, const String& path, int flags,
                        const ACL_vector& acl) {
  int rc = conn.Create(path, String(), acl, flags, nullptr);
  if (rc != ZNONODE) return rc;
  std::vector<Connection::CreateRequest> roots;
  std::vector<Connection::CreateRequest> levels;
  for (std::size_t slash = path.find('/', 1); slash != String::npos;
       slash = path.find('/', slash + 1)) {
    String level = path.substr(0, slash);
    (IsRegistryRoot(level) ? roots : levels).push_back({std::move(level), String(), 0});
  }
  levels.push_back({path, String(), flags});
  std::vector<int> results = conn.CreateAll(roots, ZOO_OPEN_ACL_UNSAFE);
  const std::vector<int> below = conn.CreateAll(levels, acl);
  results.insert(results.end(), below.begin(), below.end());
  for (std::size_t i = 0; i + 1 < results.size(); ++i) {
    if (results[i] != ZOK && results[i] != ZNODEEXISTS) return results[i];
  }
  return results.back();
}

// An ephemeral node that exists already may still be one of an expired
// session of ours, which the server is about to delete: wait until it is
// gone and make it again, so that it lives as long as this session.
void ClaimEphemeral(const Connection& conn, const String& path, const ACL_vector& acl) {
  const auto deadline = std::chrono::steady_clock::now() + conn.SessionTimeout();
  for (;;) {
    Stat stat{};
    int rc = conn.Exists(path, &stat);
    if (rc == ZOK) {
      const std::int64_t owner = stat.ephemeralOwner;
      if (owner == 0 || owner == conn.ClientId().client_id) return;
      if (std::chrono::steady_clock::now() >= deadline) {
        FailEnsure(path, "the node belongs to another live session");
      }
      std::this_thread::sleep_for(kOwnerPollInterval);
      continue;
    }
    if (rc == ZNONODE) rc = conn.Create(path, String(), acl, ZOO_EPHEMERAL, nullptr);
    if (rc != ZOK && rc != ZNODEEXISTS) FailEnsure(path, zerror(rc));
    if (rc == ZOK) return;
  }
}

// Lists the subtrees of `roots` level by level, each level's listings of all
// subtrees in flight together, then deletes them deepest first in batches.
// ZOK, or a failure's code.
int DeleteSubtrees(const Connection& conn, const std::vector<String>& roots) {
  std::vector<std::vector<String>> levels{roots};
  while (!levels.back().empty()) {
    const std::vector<String>& level = levels.back();
    std::vector<std::vector<String>> children;
    const std::vector<int> codes = conn.GetChildrenAll(level, children);
    std::vector<String> next;
    int rc = ZOK;
    for (std::size_t i = 0; i < level.size(); ++i) {
      if (codes[i] == ZOK) {
        for (const String& child : children[i]) next.push_back(level[i] + "/" + child);
      } else if (codes[i] != ZNONODE) {
        rc = codes[i];
      }
    }
    if (rc != ZOK) return rc;
    levels.push_back(std::move(next));
  }
  std::vector<String> deepestFirst;
  for (auto level = levels.rbegin(); level != levels.rend(); ++level) {
    deepestFirst.insert(deepestFirst.end(), level->begin(), level->end());
  }
  return conn.DeleteAll(deepestFirst);
}

}  // namespace

String NormalizePath(String path) {
  String normal;
  normal.reserve(path.size());
  for (char c : path) {
    if (c == '/' && (normal.empty() || normal.back() == '/')) continue;
    normal.push_back(c);
  }
  if (!normal.empty() && normal.back() == '/') normal.pop_back();
  return normal;
}

void EnsurePath(const Connection& conn, String path, bool ephemeral, const ACL_vector& acl) {
  RequireAbsolute(path, true);
  if (path == "/") return;
  const int rc = CreateWithAncestors(conn, path, ephemeral ? ZOO_EPHEMERAL : 0, acl);
  if (rc == ZOK) return;
  if (rc != ZNODEEXISTS) FailEnsure(path, zerror(rc));
  if (ephemeral) ClaimEphemeral(conn, path, acl);
}

void RecursiveDelete(const Connection& conn, const String& path) {
  RequireAbsolute(path, false);
  int rc = ZOK;
  for (int pass = 0; pass < kDeletePasses; ++pass) {
    rc = DeleteSubtrees(conn, {path});
    if (rc == ZOK) return;
    // A node gained a child after it was listed: list again.
    if (rc != ZNOTEMPTY) break;
  }
  QXLOG(g_log, QXLOG_ERROR) << "Failed to delete '" << path << "': " << zerror(rc);
  throw KorvelError("Failed to delete node");
}

void RecursiveDeleteAll(const Connection& conn, const std::vector<String>& paths) {
  for (const String& path : paths) RequireAbsolute(path, false);
  if (paths.size() > 1 && DeleteSubtrees(conn, paths) == ZOK) return;
  for (const String& path : paths) RecursiveDelete(conn, path);
}

}  // namespace qx::korvel
