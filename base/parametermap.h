// ParameterMap: the free key-value properties of configuration elements and of the
// records that carry settings, an ordered map from string to string.
//
// Keys are unique and ordered bytewise, which is also the order in which the map
// travels on the wire and is written out. It is a std::map with one lookup of its
// own, get, which tells a missing key from an empty value.
//
// A plain value: copied freely, not thread-safe; the immutable elements that hold
// one are read by any number of threads at once.
#pragma once

#include <map>
#include <string>

namespace apm {
namespace base {

class ParameterMap : public std::map<std::string, std::string> {
 public:
  // True with the value of `key` copied to `value`; false with `value` cleared when
  // the key is missing.
  bool get(const std::string& key, std::string& value) const;
};

}  // namespace base
}  // namespace apm
