#include "korvel/service_id.h"

#include <boost/uuid/random_generator.hpp>

namespace qx::korvel {

ServiceId RandomServiceId() {
  // One generator per thread: a generator is not safe to share.
  thread_local boost::uuids::random_generator generator;
  return generator();
}

}  // namespace qx::korvel
