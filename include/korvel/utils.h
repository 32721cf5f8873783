// Path helpers over a Connection.
#pragma once

#include <zookeeper/zookeeper.h>

#include <vector>

#include "korvel/connection_v2.h"
#include "stlext/string.h"

namespace qx::korvel {

// The path as a relative path: no leading or trailing "/", and every run of
// "/" inside collapsed to one, so that a base path, "/" and the result joined
// form a valid path. An empty or slash-only argument gives "". Pure; any thread.
String NormalizePath(String path);

// Makes sure that every node of the absolute `path` exists, creating the
// missing ones with `acl` (but the registry's roots /srv and /srv/alive with
// ZOO_OPEN_ACL_UNSAFE); an existing node is no error and keeps its kind.
// With `ephemeral` true the last node is made ephemeral (ancestors are always
// persistent); if it exists as an ephemeral node of another session (an expired one of ours
// that the server has not removed yet), waits for it to vanish, up to the
// session timeout, and creates it again. The whole path is created in one
// request when its parent exists, otherwise all its levels are sent together.
// Throws KorvelError "Failed to ensure path" on failure (logged first) and
// "Invalid path" for a path that is not absolute or not normalised.
void EnsurePath(const Connection& conn, String path, bool ephemeral, const ACL_vector& acl);

// Deletes the node at the absolute `path` with all its descendants: lists
// the subtree level by level with each level's requests in flight together,
// then deletes it deepest first in batches. A missing node is no error.
// Throws KorvelError "Failed to delete node" on failure (logged first) and
// "Invalid path" for a path that is not absolute, not normalised, or "/".
void RecursiveDelete(const Connection& conn, const String& path);

// Deletes each node of `paths` with its subtree as RecursiveDelete does, with
// the requests of all of them in flight together: each level of all the
// subtrees is listed at once, and their deletes share batches. When that
// fails (a node gained a child meanwhile, say), every path is deleted again
// by RecursiveDelete on its own, which throws what RecursiveDelete throws.
void RecursiveDeleteAll(const Connection& conn, const std::vector<String>& paths);

}  // namespace qx::korvel
