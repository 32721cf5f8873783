// Text form of a UUID.
#pragma once

#include <boost/uuid/uuid.hpp>

#include <cstdint>
#include <string_view>

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

// Parses the canonical form with hexadecimal digits of either case: exactly
// the texts that boost::lexical_cast<boost::uuids::uuid> accepts, without its
// stream. False, with `id` untouched, for any other text.
inline bool from_string(std::string_view text, boost::uuids::uuid& id) {
  const auto digit = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  if (text.size() != 36) return false;
  boost::uuids::uuid parsed;
  std::size_t pos = 0;
  for (std::size_t i = 0; i < 16; ++i) {
    if ((i == 4 || i == 6 || i == 8 || i == 10) && text[pos++] != '-') return false;
    const int high = digit(text[pos++]);
    const int low = digit(text[pos++]);
    if (high < 0 || low < 0) return false;
    parsed.data[i] = static_cast<std::uint8_t>(high << 4 | low);
  }
  id = parsed;
  return true;
}

}  // namespace qx::uuid
