// Text form of a UUID.
#pragma once

#include <boost/uuid/uuid.hpp>

#include "stlext/string.h"

namespace qx::uuid {

// The canonical 36-character lower-case form: 8-4-4-4-12 hexadecimal digits.
inline String to_string(const boost::uuids::uuid& id) {
  static constexpr char kDigits[] = "0123456789abcdef";
  String text(36, '-');
  std::size_t pos = 0;
  for (std::size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) ++pos;
    text[pos++] = kDigits[id.data[i] >> 4];
    text[pos++] = kDigits[id.data[i] & 0x0f];
  }
  return text;
}

}  // namespace qx::uuid
