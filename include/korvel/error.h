// The library's exception type.
#pragma once

#include <stdexcept>

namespace qx::korvel {
namespace details {

// Makes a library's errors a type of their own: derives from `Base`, adds no
// data, and so can be caught apart from other errors of the same base.
template <typename Tag, typename Base>
class ExceptionWrapper : public Base {
 public:
  explicit ExceptionWrapper(const char* message) : Base(message) {}
};

}  // namespace details

struct KorvelErrorTag;

// Thrown by korvel's own operations, always with a fixed message literal.
// Also caught by a handler for std::runtime_error.
using KorvelError = details::ExceptionWrapper<KorvelErrorTag, std::runtime_error>;

}  // namespace qx::korvel
