#include "ecomm/datacache.h"

namespace apm {
namespace ecomm {

DataCache* GetDataCache() {
  static DataCache cache;
  return &cache;
}

}  // namespace ecomm
}  // namespace apm
