// FakeByteStream: an in-memory stand-in for a CLogicalConnectionStream under the
// field encoding (ReadStream, WriteStream), for golden-byte tests of records, with
// EncodeRecord and DecodeRecord for records that have the usual Read and Write.
//
// Writes append to `written`. Reads take from `incoming` from `position` on; a read
// that wants more than is left copies what there is and fails, as the real stream
// does at the end of its data. Not thread-safe: one test thread uses it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "base/rpc/streamserializer.h"

namespace apm {
namespace test {

typedef std::vector<uint8_t> Bytes;

class FakeByteStream {
 public:
  FakeByteStream() = default;
  explicit FakeByteStream(const Bytes& bytes) : incoming(bytes) {}

  bool Read(void* destination, unsigned long size) {
    const size_t count = std::min<size_t>(size, incoming.size() - position);
    if (count > 0) std::memcpy(destination, incoming.data() + position, count);
    position += count;
    return count == size;
  }

  bool Write(const void* data, unsigned int size) {
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    written.insert(written.end(), bytes, bytes + size);
    return true;
  }

  // Bytes of `incoming` not read yet.
  size_t Unread() const { return incoming.size() - position; }

  Bytes incoming;
  size_t position = 0;
  Bytes written;
};

// The bytes of `text`, without a length or a terminator.
inline Bytes Chars(const std::string& text) { return Bytes(text.begin(), text.end()); }

// The parts one behind the other.
inline Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes joined;
  for (const Bytes& part : parts) joined.insert(joined.end(), part.begin(), part.end());
  return joined;
}

// The bytes that `record` writes.
template <class Record>
Bytes EncodeRecord(const Record& record, unsigned long version = 0) {
  FakeByteStream stream;
  base::WriteStream<FakeByteStream> writer(stream);
  if (!record.Write(version, writer)) stream.written.clear();
  return stream.written;
}

// Reads `record` from `bytes`; the result of its Read, with the bytes left over in
// `unread` if asked.
template <class Record>
bool DecodeRecord(const Bytes& bytes, Record& record, unsigned long version = 0, size_t* unread = nullptr) {
  FakeByteStream stream(bytes);
  base::ReadStream<FakeByteStream> reader(stream);
  const bool result = record.Read(version, reader);
  if (unread != nullptr) *unread = stream.Unread();
  return result;
}

}  // namespace test
}  // namespace apm
