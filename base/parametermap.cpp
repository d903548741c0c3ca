#include "base/parametermap.h"

namespace apm {
namespace base {

bool ParameterMap::get(const std::string& key, std::string& value) const {
  const_iterator entry = find(key);
  if (entry == end()) {
    value.clear();
    return false;
  }
  value = entry->second;
  return true;
}

}  // namespace base
}  // namespace apm
