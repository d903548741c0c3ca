// _Directory: a directory path with creation and the daemon's standard locations.
//
// The object holds one path that always ends in "/" unless it is empty. Create makes
// the directory (optionally with its missing parents) and reports failures through
// the thread's error record; `traits` selects the module the errors and the
// instrumentation events go to (_apm_traits_os: "Operating System"; _apm_traits_none:
// none). The static functions return the daemon's absolute locations, mapped through
// RootedPath, and can create them on the way.
//
// A _Directory is a value; distinct objects may be used from distinct threads.
#pragma once

#include <string>

#include "base/famerror.h"

namespace apm {
namespace base {

// The process-wide application name, part of the configuration and temporary paths.
extern const char* const kApplicationName;

template <class traits>
class _Directory {
 public:
  _Directory() = default;
  // Adds a trailing "/" to a non-empty path that lacks one.
  _Directory(const std::string& path);  // NOLINT: implicit, paths are passed as strings
  _Directory(const char* path);         // NOLINT

  const std::string& GetPath() const { return path_; }

  // The path up to the "/" before the last component, with its trailing "/";
  // empty if there is no such "/". "/a/b/" gives "/a/".
  std::string GetParent() const;

  // Makes the directory. `mode` 0 means 0770 under the umask; any other mode is
  // also applied by chmod, so the umask does not apply. With `recursive`, missing
  // parents are made first, with mode 0. An existing directory counts as success,
  // an existing file as failure.
  bool Create(bool recursive = false, int mode = 0) const;

  // "/var/opt/kelvora/" + name + "/". With `create`, "/var/opt/kelvora/" is made
  // non-recursively, then the result recursively.
  static std::string GetAppDataPath(const char* name, bool create);
  // "/etc/kelvora/ecomm/". With `create`, "/etc/kelvora/" and then the result are made,
  // both recursively.
  static std::string GetLocalAppConfigPath(bool create);
  // "/tmp/kelvora-ecomm/". With `create`, made recursively with mode 0.
  static std::string GetTemporaryPath(bool create);

 private:
  std::string path_;
};

typedef _Directory<_apm_traits_os> Directory;

}  // namespace base
}  // namespace apm
