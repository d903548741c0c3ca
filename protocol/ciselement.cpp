#include "protocol/ciselement.h"

namespace apm {
namespace protocol {

namespace {

const char kPropertiesPrefix[] = "properties.";
constexpr size_t kPropertiesPrefixLength = sizeof(kPropertiesPrefix) - 1;

}  // namespace

bool CISElement::IsClass(const std::string& className) const { return className == GetClassName(); }

std::string CISElement::GetTreeName() const { return name; }

bool CISElement::GetParameterValue(const std::string& key, std::string& value,
                                   unsigned long& maxTimestamp) const {
  bool found = false;
  return GetCommonParameterValue(key, value, maxTimestamp, found) && found;
}

bool CISElement::GetCommonParameterValue(const std::string& key, std::string& value,
                                         unsigned long& maxTimestamp, bool& found) const {
  // Raised for every key, known or not, so that a caller collects the newest change
  // of all the elements it asked.
  if (maxTimestamp < timestamp) maxTimestamp = timestamp;
  if (key == "name") {
    value = name;
    found = true;
    return true;
  }
  if (key == "reference") {
    value = reference;
    found = true;
    return true;
  }
  if (key == "active") {
    value = status == 0 ? "true" : "false";
    found = true;
    return true;
  }
  if (key.compare(0, kPropertiesPrefixLength, kPropertiesPrefix) == 0) {
    found = properties.get(key.substr(kPropertiesPrefixLength), value);
    return true;
  }
  return false;
}

}  // namespace protocol
}  // namespace apm
