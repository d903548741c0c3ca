// TokenBuffer: the growable character buffer in which the JSON tokenizer collects
// the text of one token.
//
// The buffer owns its memory, which comes from malloc and grows through realloc:
// 128 bytes at first, then doubling. When memory runs out the bytes that do not fit
// are dropped silently. Not thread-safe; one buffer belongs to one parser.
#pragma once

#include <cstddef>

namespace apm {
namespace base {

class TokenBuffer {
 public:
  TokenBuffer() = default;
  ~TokenBuffer();
  TokenBuffer(const TokenBuffer&) = delete;
  TokenBuffer& operator=(const TokenBuffer&) = delete;

  void append(char byte) {
    if (length_ < capacity_ || grow(length_ + 1)) data_[length_++] = byte;
  }
  void append(const char* bytes, size_t count);

  // Sets the length to 0; the memory stays for the next token.
  void clear() { length_ = 0; }

  size_t length() const { return length_; }
  size_t capacity() const { return capacity_; }
  // The bytes collected, not terminated; null while nothing was ever allocated.
  const char* data() const { return data_; }

  // The text terminated with a NUL (growing if need be); an empty string if that
  // fails.
  operator const char*();  // NOLINT: implicit by design, the buffer is used as text

 private:
  // Makes room for `needed` bytes; false if memory runs out.
  bool grow(size_t needed);

  char* data_ = nullptr;
  size_t length_ = 0;
  size_t capacity_ = 0;
};

}  // namespace base
}  // namespace apm
