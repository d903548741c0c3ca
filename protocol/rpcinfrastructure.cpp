#include "protocol/rpcinfrastructure.h"

namespace apm {
namespace protocol {

bool RefuseUndecodedElements() {
  base::FamErrorBase::SetError(base::E_FAIL_CODE, "unsupported infrastructure element list", nullptr);
  return false;
}

}  // namespace protocol
}  // namespace apm
