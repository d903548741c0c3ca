// CNetworkBuffer: the unit of everything on the RPC network path, one frame's
// payload of at most 8192 bytes behind a 64-bit count of the bytes in use.
//
// Buffers are always allocated whole (8200 bytes) by Allocate, with length 0, and
// released whole by Free; there is no pool and no smaller size. Ownership moves
// with the pointer: whoever holds it frees it, exactly once. Every Allocate and
// Free is counted by the process-wide CStaticCounterObject "CNetworkBuffer".
// A buffer itself is not thread-safe; Allocate and Free may be called anywhere.
#pragma once

#include <cstdint>

#include "base/rpc/staticcounterobject.h"

namespace apm {
namespace base {

struct CNetworkBuffer {
  static constexpr uint64_t CAPACITY = 8192;

  // A new buffer with length 0 and undefined data. Throws std::bad_alloc when out
  // of memory; nothing on the network path catches it.
  static CNetworkBuffer* Allocate();
  // Null is allowed and does nothing.
  static void Free(const CNetworkBuffer* buffer);
  // The counter of allocations and frees of all buffers of the process.
  static CStaticCounterObject& Counter();

  uint64_t length;
  uint8_t data[CAPACITY];
};

static_assert(sizeof(CNetworkBuffer) == 8200, "a network buffer is 8200 bytes");

}  // namespace base
}  // namespace apm
