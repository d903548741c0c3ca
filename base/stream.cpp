#include "base/stream.h"

#include <cstring>

namespace apm {
namespace base {

bool operator==(const tagGUID& a, const tagGUID& b) {
  return a.Data1 == b.Data1 && a.Data2 == b.Data2 && a.Data3 == b.Data3 &&
         std::memcmp(a.Data4, b.Data4, sizeof(a.Data4)) == 0;
}

// {00000000-0000-0000-C000-000000000046}
const tagGUID IID_IUnknown = {0x00000000, 0x0000, 0x0000,
                              {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
// {0c733a30-2a1c-11ce-ade5-00aa0044773d}
const tagGUID IID_ISequentialStream = {0x0c733a30, 0x2a1c, 0x11ce,
                                       {0xad, 0xe5, 0x00, 0xaa, 0x00, 0x44, 0x77, 0x3d}};
// {0000000c-0000-0000-C000-000000000046}
const tagGUID IID_IStream = {0x0000000c, 0x0000, 0x0000,
                             {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

}  // namespace base
}  // namespace apm
