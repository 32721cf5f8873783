#include "korvel/version.h"

namespace qx::korvel {

// KORVEL_VERSION comes from the build: the project version in CMakeLists.txt.
const char* Version() noexcept {
  return KORVEL_VERSION;
}

}  // namespace qx::korvel
