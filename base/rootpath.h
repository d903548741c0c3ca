// Maps the daemon's absolute file-system paths under an optional root prefix.
//
// Every absolute path the daemon uses ("/etc/kelvora/...", "/var/opt/kelvora/...",
// "/var/run/...", "/tmp/kelvora-ecomm/") is built through RootedPath, and nothing
// else prepends anything to them. With the environment variable ECOMM_ROOT unset
// or empty the path comes back unchanged; otherwise ECOMM_ROOT (without a trailing
// "/") is put in front of it. Tests run each daemon under a private root this way.
//
// Thread-safe: reads the environment on every call and keeps no state.
#pragma once

#include <string>

namespace apm {
namespace base {

std::string RootedPath(const std::string& absolutePath);

}  // namespace base
}  // namespace apm
