// The version of the korvel library.
#pragma once

namespace qx::korvel {

// The version this library was built as, "MAJOR.MINOR.PATCH" (for instance "0.1.0"); the same
// text that its pkg-config file, its CMake package and `korvel --version` report. Never fails;
// the text is static, so any thread may call it at any time.
const char* Version() noexcept;

}  // namespace qx::korvel
