// A string stream whose buffer survives between uses, so that formatting one
// text after another on the same stream allocates only when a text is longer
// than every one before it. Not thread-safe: one stream belongs to one thread.
#pragma once

#include <cstddef>
#include <ostream>
#include <streambuf>

#include "stlext/string.h"

namespace qx {

class IPStringBuf : public std::streambuf {
 public:
  const String& Text() const { return m_text; }
  void Clear(std::size_t keepCapacity) {
    m_text.clear();
    if (m_text.capacity() > keepCapacity) m_text.shrink_to_fit();
  }

 protected:
  int_type overflow(int_type ch) override {
    if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
    m_text.push_back(traits_type::to_char_type(ch));
    return ch;
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    m_text.append(s, static_cast<std::size_t>(n));
    return n;
  }

 private:
  String m_text;
};

class IPStringStream : public std::ostream {
 public:
  IPStringStream() : std::ostream(&m_buf) {}
  IPStringStream(const IPStringStream&) = delete;
  IPStringStream& operator=(const IPStringStream&) = delete;

  const String& Text() const { return m_buf.Text(); }
  void Clear(std::size_t keepCapacity) {
    m_buf.Clear(keepCapacity);
    clear();
  }

 private:
  IPStringBuf m_buf;
};

// The stream's whole text, valid until the stream is next written or reset.
inline const String& Finish(const IPStringStream& stream) {
  return stream.Text();
}

// Empties the stream's text and its error state for the next use. The buffer
// is kept unless it has grown beyond `keepCapacity` bytes.
inline void Reset(IPStringStream& stream, std::size_t keepCapacity) {
  stream.Clear(keepCapacity);
}

}  // namespace qx
