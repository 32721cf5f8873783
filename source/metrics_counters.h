// Where the connection and the service count what korvel/metrics.h renders.
// Each call is one relaxed atomic increment; all are thread-safe.
#pragma once

#include <cstddef>

namespace qx::korvel::details {

// The operations of korvel_zookeeper_requests_total, in the order rendered.
enum class RequestKind : std::size_t {
  kCreate,
  kSet,
  kGet,
  kExists,
  kGetChildren,
  kDelete,
  kMulti,
  kRemoveWatches,
  kCount
};

// Counts one request of `kind` that ended with `rc`, and returns `rc`.
int CountRequest(RequestKind kind, int rc);

void CountSessionEstablished();
void CountSessionExpired();
// A Connection's session became connected (+1) or stopped being (-1).
void CountConnected(int delta);

enum class RegistrationKind { kFirst, kAgain };
void CountRegistration(RegistrationKind kind);
void CountRegistrationFailure();

}  // namespace qx::korvel::details
