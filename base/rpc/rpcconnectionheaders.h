// RPCConnectionHeaders: the header block of a stream in memory, an ordered map
// from unsigned 32-bit key to a byte string, iterated in ascending key order,
// which is also the order in which the block is written to the wire.
//
// A value is raw bytes: it may be empty and may hold binary data. set<unsigned int>
// stores the decimal text of a number. A header set is a plain value, copied
// freely; it is not thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace apm {
namespace base {

// The keys in use. Requests carry 1, 2 and 100, responses 3, 4 and 101.
constexpr unsigned int RPC_HEADER_CLASS = 1;        // decimal, always 1
constexpr unsigned int RPC_HEADER_FUNCTION = 2;     // decimal RPC number
constexpr unsigned int RPC_HEADER_ERROR_CODE = 3;   // decimal of the code as unsigned
constexpr unsigned int RPC_HEADER_ERROR_TEXT = 4;   // error message, may be empty
constexpr unsigned int RPC_HEADER_CONTEXT = 100;    // 16 bytes of instrumentation context
constexpr unsigned int RPC_HEADER_SYNC_MARK = 101;  // 16 bytes of instrumentation sync mark

class RPCConnectionHeaders : public std::map<unsigned int, std::string> {
 public:
  // Stores the decimal text of `value` under `key`, replacing what was there.
  template <class T>
  void set(unsigned int key, T value);

  // The value under `key`, or null if there is none.
  const std::string* find_value(unsigned int key) const {
    const_iterator entry = find(key);
    return entry == end() ? nullptr : &entry->second;
  }
};

template <>
void RPCConnectionHeaders::set<unsigned int>(unsigned int key, unsigned int value);
template <>
void RPCConnectionHeaders::set<unsigned short>(unsigned int key, unsigned short value);

}  // namespace base
}  // namespace apm
