#include "base/config.h"

#include "base/rootpath.h"
#include "base/strtools.h"
#include "base/sysfunctions.h"

namespace apm {
namespace base {

namespace {
const char kDaemonConfigDirectory[] = "/etc/kelvora/";
}  // namespace

std::string GetDaemonConfigPath() {
  std::string path = RootedPath(kDaemonConfigDirectory);
  if (path.empty() || path.back() != '/') path += '/';
  return path;
}

std::string GetConfigPath() { return GetDaemonConfigPath(); }

Config::Config(const char* file) : file_(file) {}

bool Config::GetConfigValue(const std::string& key, std::string& value) const {
  return System::GetValueFromConfigFile(file_, key, value);
}

bool Config::GetConfigValue(const std::string& key, unsigned int& value) const {
  std::string text;
  if (!GetConfigValue(key, text)) return false;
  return StringToInt(text, value);
}

bool Config::GetConfigValue(const std::string& key, std::string& value,
                            const std::string& defaultValue) const {
  if (!GetConfigValue(key, value)) value = defaultValue;
  return true;
}

}  // namespace base
}  // namespace apm
