// The library's byte string and its small helpers.
#pragma once

#include <cstddef>
#include <string>

namespace qx {

using String = std::string;
using IPString = String;

// Gives `s` the length `n`; bytes beyond the old length are zero.
inline void fast_resize(String& s, std::size_t n) {
  s.resize(n, '\0');
}

}  // namespace qx
