// Identity of a service instance.
#pragma once

#include <boost/uuid/uuid.hpp>

namespace qx::korvel {

// A 128-bit UUID naming one service instance. Its text form, used in node
// names, is `qx::uuid::to_string` (36 lower-case characters, 8-4-4-4-12).
using ServiceId = boost::uuids::uuid;

// A new random (version 4) identifier, different on every call. Thread-safe.
ServiceId RandomServiceId();

}  // namespace qx::korvel
