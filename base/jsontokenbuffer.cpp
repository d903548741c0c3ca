#include "base/jsontokenbuffer.h"

#include <cstdlib>
#include <cstring>

namespace apm {
namespace base {

TokenBuffer::~TokenBuffer() { free(data_); }

void TokenBuffer::append(const char* bytes, size_t count) {
  if (count > capacity_ - length_ && !grow(length_ + count)) {
    count = capacity_ - length_;  // out of memory: keep what fits
  }
  if (count == 0) return;
  memcpy(data_ + length_, bytes, count);
  length_ += count;
}

TokenBuffer::operator const char*() {
  if (length_ == capacity_ && !grow(length_ + 1)) return "";
  data_[length_] = '\0';
  return data_;
}

bool TokenBuffer::grow(size_t needed) {
  // An empty buffer counts as 64 bytes, so the first block has 128.
  size_t capacity = capacity_ == 0 ? 64 : capacity_;
  do {
    if (capacity > static_cast<size_t>(-1) / 2) return false;
    capacity *= 2;
  } while (capacity < needed);
  char* grown = static_cast<char*>(realloc(data_, capacity));
  if (grown == nullptr) return false;
  data_ = grown;
  capacity_ = capacity;
  return true;
}

}  // namespace base
}  // namespace apm
