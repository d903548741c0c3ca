// Config: typed lookups in one configuration file of the daemon, and the location of
// the configuration directory.
//
// A Config holds only the file name, relative to GetConfigPath(); every lookup opens
// and scans the file again through System::GetValueFromConfigFile, so changes count
// at the next call and nothing is cached. Thread-safe: lookups share no state.
#pragma once

#include <string>

namespace apm {
namespace base {

// "/etc/kelvora/" (mapped through RootedPath), always ending in "/".
std::string GetDaemonConfigPath();
// The directory configuration files are read from; the same as GetDaemonConfigPath().
std::string GetConfigPath();

class Config {
 public:
  explicit Config(const char* file);

  // The plain lookup: true if the key was found, `value` then holding the trimmed
  // rest of its line (possibly empty). On false `value` is unchanged.
  bool GetConfigValue(const std::string& key, std::string& value) const;

  // The value as a decimal number (StringToInt). False if the key is missing, its
  // value is empty, or text follows the digits; in the last case `value` has
  // already received the leading number.
  bool GetConfigValue(const std::string& key, unsigned int& value) const;

  // Always true: a failed lookup assigns `defaultValue`.
  bool GetConfigValue(const std::string& key, std::string& value, const std::string& defaultValue) const;

 private:
  std::string file_;
};

}  // namespace base
}  // namespace apm
