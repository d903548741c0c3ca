#include "base/directory.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>

#include "base/apmmodule.h"
#include "base/rootpath.h"
#include "telemetry/apmsdk.h"

namespace apm {
namespace base {

const char* const kApplicationName = "ecomm";

template <class traits>
_Directory<traits>::_Directory(const std::string& path) : path_(path) {
  if (!path_.empty() && path_.back() != '/') path_ += '/';
}

template <class traits>
_Directory<traits>::_Directory(const char* path) : _Directory(std::string(path)) {}

template <class traits>
std::string _Directory<traits>::GetParent() const {
  std::string::size_type end = path_.size();
  while (end > 0 && path_[end - 1] == '/') --end;
  if (end == 0) return std::string();
  std::string::size_type slash = path_.rfind('/', end - 1);
  if (slash == std::string::npos) return std::string();
  return path_.substr(0, slash + 1);
}

template <class traits>
bool _Directory<traits>::Create(bool recursive, int mode) const {
  if (path_.empty()) return false;
  if (CAPMModule* module = traits::Module()) {
    APMEventStr(module->moduleId, 0, 60, APM_EVENT_SINGLE, path_.c_str());
  }
  if (mode == 0) {
    if (mkdir(path_.c_str(), 0770) == 0) return true;
  } else if (mkdir(path_.c_str(), mode) == 0) {
    // The umask must not narrow an explicitly requested mode.
    chmod(path_.c_str(), mode);
    return true;
  }
  if (errno == ENOENT && recursive) {
    // Parents, and this directory on the retry, get the default mode.
    _Directory(GetParent()).Create(true, 0);
    return Create(false, 0);
  }
  if (errno == EEXIST) {
    // Something exists: only a directory counts.
    if (DIR* directory = opendir(path_.c_str())) {
      closedir(directory);
      return true;
    }
  }
  _FamError<traits>::SetLastError();
  return false;
}

template <class traits>
std::string _Directory<traits>::GetAppDataPath(const char* name, bool create) {
  std::string path = RootedPath(std::string("/var/opt/kelvora/") + name + "/");
  if (create) {
    _Directory(RootedPath("/var/opt/kelvora/")).Create(false, 0);
    _Directory(path).Create(true, 0);
  }
  return path;
}

template <class traits>
std::string _Directory<traits>::GetLocalAppConfigPath(bool create) {
  std::string path = RootedPath(std::string("/etc/kelvora/") + kApplicationName + "/");
  if (create) {
    _Directory(RootedPath("/etc/kelvora/")).Create(true, 0);
    _Directory(path).Create(true, 0);
  }
  return path;
}

template <class traits>
std::string _Directory<traits>::GetTemporaryPath(bool create) {
  std::string path = RootedPath(std::string("/tmp/kelvora-") + kApplicationName + "/");
  if (create) _Directory(path).Create(true, 0);
  return path;
}

template class _Directory<_apm_traits_os>;
template class _Directory<_apm_traits_none>;

}  // namespace base
}  // namespace apm
