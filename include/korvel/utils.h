// Path helpers over a Connection.
#pragma once

#include <zookeeper/zookeeper.h>

#include "korvel/connection_v2.h"
#include "stlext/string.h"

namespace qx::korvel {

// The path as a relative path: no leading or trailing "/", and every run of
// "/" inside collapsed to one, so that a base path, "/" and the result joined
// form a valid path. An empty or slash-only argument gives "". Pure; any thread.
String NormalizePath(String path);

// Makes sure that every node of the absolute `path` exists, creating the
// missing ones with `acl`; an existing node is no error and keeps its kind.
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

}  // namespace qx::korvel
