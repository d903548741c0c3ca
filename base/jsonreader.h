// Byte sources of the JSON parser: IJsonCharReader and its two implementations,
// CJsonStringReader over a string in memory and CJsonIStreamReader over an IStream.
//
// A reader hands out one byte at a time through get. Beside that virtual operation
// every reader keeps the unread part of its current block as a window of bytes
// (pending/consume), through which the parser takes bytes without a virtual call and
// scans runs of string text at once; get refills the window when it is used up.
//
// CJsonStringReader does not own the text: the string must outlive the reader.
// CJsonIStreamReader holds a reference to its stream and reads it from the current
// position in blocks of 1024 bytes. Readers are not thread-safe.
#pragma once

#include "base/stream.h"

namespace apm {
namespace base {

class IJsonCharReader {
 public:
  IJsonCharReader() = default;
  virtual ~IJsonCharReader() = default;
  IJsonCharReader(const IJsonCharReader&) = delete;
  IJsonCharReader& operator=(const IJsonCharReader&) = delete;

  // The next byte; false at the end of the input.
  virtual bool get(unsigned char& byte) = 0;

  // get, taking the byte from the window when it has one.
  bool next(unsigned char& byte) {
    if (pending_ != pendingEnd_) {
      byte = *pending_++;
      return true;
    }
    return get(byte);
  }

  // The window: bytes already read from the source and not yet handed out.
  const unsigned char* pending() const { return pending_; }
  const unsigned char* pendingEnd() const { return pendingEnd_; }
  // Hands out the window's bytes up to `position` (between pending() and
  // pendingEnd()) as if taken one by one.
  void consume(const unsigned char* position) { pending_ = position; }

 protected:
  const unsigned char* pending_ = nullptr;
  const unsigned char* pendingEnd_ = nullptr;
};

class CJsonStringReader : public IJsonCharReader {
 public:
  // Reads the bytes [begin, end).
  CJsonStringReader(const char* begin, const char* end);

  bool get(unsigned char& byte) override;
};

class CJsonIStreamReader : public IJsonCharReader {
 public:
  static const unsigned int blockSize = 1024;

  // A null stream reads as empty input.
  explicit CJsonIStreamReader(IStream* stream);

  bool get(unsigned char& byte) override;

 private:
  // Reads the next block into the window; false at the end of the stream or when
  // the stream fails.
  bool readNextBlock();

  CComPtr<IStream> stream_;
  unsigned char block_[blockSize];
};

}  // namespace base
}  // namespace apm
