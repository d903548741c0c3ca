// ReadStream<T> and WriteStream<T>: the field encoding of RPC bodies, carried over a
// blocking byte stream (in practice a CLogicalConnectionStream).
//
// A body is a flat run of fields with no tags, lengths of fields, padding or
// framing; reader and writer agree on the order by code alone. Integers are the
// memory image of the field on this little-endian host (1, 2, 4 or 8 bytes). A
// string is an unsigned 32-bit byte count followed by the bytes as they stand, with
// no terminator. A list is an unsigned 32-bit count followed by the elements, a map
// of strings a count followed by key and value pairs, and a record its fields in
// order. Records read themselves with `bool Read(unsigned long version,
// ReadStream<T>&)` and write themselves with `bool Write(unsigned long version,
// WriteStream<T>&) const`; the version is the peer's and is only handed on.
//
// T needs `bool Read(void* destination, unsigned long size)` and
// `bool Write(const void* data, unsigned int size)`. Every operation is false
// exactly when the stream refuses a read or a write, and nothing here checks a
// length or a count. A failed read leaves its target half filled (a string keeps
// the size it was given, a list keeps the element under construction as its last
// element); callers drop the whole message then.
//
// Both adaptors hold only a reference to the stream, are made on the spot around
// it and must not outlive it. Not thread-safe: they belong to the one thread that
// owns the stream.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/refcounted.h"

namespace apm {
namespace base {

template <class V>
using EnableIfScalarField =
    typename std::enable_if<std::is_arithmetic<V>::value || std::is_enum<V>::value, bool>::type;

template <class T>
class ReadStream {
 public:
  explicit ReadStream(T& stream) : stream_(stream) {}

  // Raw bytes, straight from the stream.
  bool Read(void* destination, unsigned long size) { return stream_.Read(destination, size); }

  // An integer, flag or enumeration field: its memory image.
  template <class V, EnableIfScalarField<V> = true>
  bool Read(V& field) {
    return stream_.Read(&field, sizeof field);
  }

  // A string: on a failed length the string is untouched; otherwise it is cleared,
  // resized to the length and filled in place.
  bool Read(std::string& value) {
    uint32_t length;
    if (!stream_.Read(&length, sizeof length)) return false;
    value.clear();
    if (length == 0) return true;
    value.resize(length);
    return stream_.Read(&value[0], length);
  }

  // A list of unsigned 32-bit integers or of strings, appended behind what `list`
  // already holds.
  template <class U>
  bool ReadList(std::vector<U>& list) {
    static_assert(std::is_same<U, uint32_t>::value || std::is_same<U, std::string>::value,
                  "ReadList carries unsigned 32-bit integers and strings; records use ReadListClass");
    uint32_t count;
    if (!stream_.Read(&count, sizeof count)) return false;
    if (count == 0) return true;
    list.reserve(list.size() + count);
    for (uint32_t i = 0; i < count; ++i) {
      list.emplace_back();
      if (!Read(list.back())) return false;
    }
    return true;
  }

  // A list of records held by value whose Read takes the peer's version.
  template <class U>
  bool ReadListClass(unsigned long version, std::vector<U>& list) {
    uint32_t count;
    if (!stream_.Read(&count, sizeof count)) return false;
    if (count == 0) return true;
    list.reserve(list.size() + count);
    for (uint32_t i = 0; i < count; ++i) {
      list.emplace_back();
      if (!list.back().Read(version, *this)) return false;
    }
    return true;
  }

  // A list of records held by value whose Read takes only the stream.
  template <class U>
  bool ReadListClass(std::vector<U>& list) {
    uint32_t count;
    if (!stream_.Read(&count, sizeof count)) return false;
    if (count == 0) return true;
    list.reserve(list.size() + count);
    for (uint32_t i = 0; i < count; ++i) {
      list.emplace_back();
      if (!list.back().Read(*this)) return false;
    }
    return true;
  }

  // A list of records held by reference-counted pointer. Each new record is put
  // on the list whether it could be read or not.
  template <class U>
  bool ReadListClassRefPtr(unsigned long version, std::vector<CRefPtr<const U>>& list) {
    uint32_t count;
    if (!stream_.Read(&count, sizeof count)) return false;
    if (count == 0) return true;
    list.reserve(list.size() + count);
    for (uint32_t i = 0; i < count; ++i) {
      CRefPtr<U> element(new U);
      bool read = element->Read(version, *this);
      list.push_back(element);
      if (!read) return false;
    }
    return true;
  }

  // A map: entries already present stay, and of a key sent twice the first value
  // stays.
  template <class K, class V>
  bool ReadMap(std::map<K, V>& map) {
    uint32_t count;
    if (!stream_.Read(&count, sizeof count)) return false;
    for (uint32_t i = 0; i < count; ++i) {
      K key;
      V value;
      if (!Read(key) || !Read(value)) return false;
      map.insert(std::make_pair(std::move(key), std::move(value)));
    }
    return true;
  }

 private:
  T& stream_;
};

template <class T>
class WriteStream {
 public:
  explicit WriteStream(T& stream) : stream_(stream) {}

  // Raw bytes, straight to the stream.
  bool Write(const void* data, unsigned int size) { return stream_.Write(data, size); }

  // An integer, flag or enumeration field: its memory image.
  template <class V, EnableIfScalarField<V> = true>
  bool Write(const V& field) {
    return stream_.Write(&field, sizeof field);
  }

  // A string: its size cut to 32 bits, then its bytes from its own storage.
  bool Write(const std::string& value) {
    uint32_t length = static_cast<uint32_t>(value.size());
    if (!stream_.Write(&length, sizeof length)) return false;
    if (length == 0) return true;
    return stream_.Write(value.data(), length);
  }

 private:
  T& stream_;
};

}  // namespace base
}  // namespace apm
