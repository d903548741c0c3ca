#include "tests/support/privateroot.h"

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace apm {
namespace test {

PrivateRoot::PrivateRoot() {
  std::string pattern = (boost::filesystem::temp_directory_path() / "ecomm-test-XXXXXX").string();
  if (mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
  root_ = pattern;
  for (const char* folder : {"/etc/kelvora", "/var/opt/kelvora", "/var/run", "/tmp"}) {
    boost::filesystem::create_directories(root_ + folder);
  }
  if (const char* old = std::getenv("ECOMM_ROOT")) {
    previous_ = old;
    hadPrevious_ = true;
  }
  setenv("ECOMM_ROOT", root_.c_str(), 1);
}

PrivateRoot::~PrivateRoot() {
  if (hadPrevious_) {
    setenv("ECOMM_ROOT", previous_.c_str(), 1);
  } else {
    unsetenv("ECOMM_ROOT");
  }
  boost::system::error_code ignored;
  boost::filesystem::remove_all(root_, ignored);
}

void PrivateRoot::WriteFile(const std::string& absolutePath, const std::string& content) const {
  boost::filesystem::path file(Path(absolutePath));
  boost::filesystem::create_directories(file.parent_path());
  std::ofstream out(file.string(), std::ios::binary | std::ios::trunc);
  out << content;
}

std::string PrivateRoot::ReadFile(const std::string& absolutePath) const {
  std::ifstream in(Path(absolutePath), std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

bool PrivateRoot::Exists(const std::string& absolutePath) const {
  return boost::filesystem::exists(Path(absolutePath));
}

}  // namespace test
}  // namespace apm
