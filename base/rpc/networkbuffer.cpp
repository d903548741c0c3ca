#include "base/rpc/networkbuffer.h"

namespace apm {
namespace base {

CStaticCounterObject& CNetworkBuffer::Counter() {
  static CStaticCounterObject counter("CNetworkBuffer", sizeof(CNetworkBuffer));
  return counter;
}

CNetworkBuffer* CNetworkBuffer::Allocate() {
  // Default-initialised: the 8192 data bytes are left as they are, only the count
  // starts at 0.
  CNetworkBuffer* buffer = new CNetworkBuffer;
  buffer->length = 0;
  Counter().CountAllocation();
  return buffer;
}

void CNetworkBuffer::Free(const CNetworkBuffer* buffer) {
  if (buffer == nullptr) return;
  Counter().CountFree();
  delete buffer;
}

}  // namespace base
}  // namespace apm
