#include "base/rootpath.h"

#include <cstdlib>

namespace apm {
namespace base {

std::string RootedPath(const std::string& absolutePath) {
  const char* root = std::getenv("ECOMM_ROOT");
  if (root == nullptr || *root == '\0') return absolutePath;
  std::string prefix(root);
  while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
  return prefix + absolutePath;
}

}  // namespace base
}  // namespace apm
