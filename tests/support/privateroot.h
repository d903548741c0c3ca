// A private file-system root for one test: a fresh temporary directory that
// ECOMM_ROOT points at while the object lives, with the daemon's standard folders
// ("etc/kelvora", "var/opt/kelvora", "var/run", "tmp") made inside. Removed with
// everything in it on destruction, and ECOMM_ROOT restored to what it was.
// Not thread-safe: it changes the process's environment; make it before threads start.
#pragma once

#include <string>

namespace apm {
namespace test {

class PrivateRoot {
 public:
  PrivateRoot();
  ~PrivateRoot();
  PrivateRoot(const PrivateRoot&) = delete;
  PrivateRoot& operator=(const PrivateRoot&) = delete;

  // The root directory, without a trailing "/".
  const std::string& path() const { return root_; }
  // The real path of an absolute daemon path, e.g. Path("/etc/kelvora/ecomm.conf").
  std::string Path(const std::string& absolutePath) const { return root_ + absolutePath; }
  // Writes `content` to the daemon path `absolutePath`, making missing folders.
  void WriteFile(const std::string& absolutePath, const std::string& content) const;
  // Reads the whole file at the daemon path; empty if it does not exist.
  std::string ReadFile(const std::string& absolutePath) const;
  bool Exists(const std::string& absolutePath) const;

 private:
  std::string root_;
  std::string previous_;
  bool hadPrevious_ = false;
};

}  // namespace test
}  // namespace apm
