#include "base/rpc/rpctrustedcertificates.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <fstream>

namespace apm {
namespace base {

namespace {

constexpr std::streamsize kMaximumLine = 256;  // 255 characters and the terminator

}  // namespace

bool IsTrustedCertificate(const std::string& path, const std::string& fingerprint, const std::string& cn,
                          bool trust_first_certificate) {
  if (path.empty()) return true;
  bool any_line = false;
  bool matched = false;
  {
    std::ifstream file(path.c_str());
    char line[kMaximumLine];
    while (!matched && file.getline(line, kMaximumLine)) {
      if (line[0] != '\0') any_line = true;
      std::string entry(line);
      std::string::size_type blank = entry.find(' ');
      if (blank != std::string::npos) entry.resize(blank);
      matched = strcasecmp(entry.c_str(), fingerprint.c_str()) == 0;
    }
  }
  if (matched) return true;
  if (any_line || !trust_first_certificate) return false;

  int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (descriptor >= 0) {
    std::string entry = "\n" + fingerprint + " " + cn + "\n";
    ssize_t written = write(descriptor, entry.data(), entry.size());
    (void)written;  // trusted whether the entry could be kept or not
    close(descriptor);
  }
  return true;
}

}  // namespace base
}  // namespace apm
