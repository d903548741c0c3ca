#include "base/rpc/rpcconnectionheaders.h"

#include "base/strtools.h"

namespace apm {
namespace base {

template <>
void RPCConnectionHeaders::set<unsigned int>(unsigned int key, unsigned int value) {
  (*this)[key] = IntToString(value);
}

template <>
void RPCConnectionHeaders::set<unsigned short>(unsigned int key, unsigned short value) {
  (*this)[key] = IntToString(static_cast<unsigned int>(value));
}

}  // namespace base
}  // namespace apm
