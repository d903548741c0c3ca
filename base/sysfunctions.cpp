#include "base/sysfunctions.h"

#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/config.h"
#include "base/famerror.h"
#include "base/strtools.h"

namespace apm {
namespace base {
namespace System {

namespace {

const size_t kChunkSize = 1023;

// Looks for `lowerKey` in one line of the file. On a match stores the trimmed rest
// of the original line in `value`.
bool MatchLine(std::string line, const std::string& lowerKey, std::string& value) {
  size_t comment = line.find('#');
  if (comment != std::string::npos) line.erase(comment);
  size_t position = _ToLowerCase(line).find(lowerKey);
  if (position == std::string::npos) return false;
  size_t valueStart = position + lowerKey.size();
  value = valueStart < line.size() ? line.substr(valueStart) : std::string();
  Trim(value);
  return true;
}

}  // namespace

bool GetValueFromConfigFile(const std::string& file, const std::string& key, std::string& value) {
  std::string path = GetConfigPath() + file;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    _FamError<_apm_traits_os>::SetLastError();
    return false;
  }
  const std::string lowerKey = _ToLowerCase(key);
  std::string kept;  // unfinished line from the end of the previous chunk
  char buffer[kChunkSize + 1];
  bool found = false;
  ssize_t count;
  while (!found && (count = read(fd, buffer, kChunkSize)) > 0) {
    buffer[count] = '\0';
    const std::string chunk(buffer);  // a chunk ends at its first NUL
    size_t lineStart = 0;
    size_t lineEnd;
    while (!found && (lineEnd = chunk.find('\n', lineStart)) != std::string::npos) {
      std::string line = chunk.substr(lineStart, lineEnd - lineStart);
      if (lineStart == 0) line.insert(0, kept);
      found = MatchLine(line, lowerKey, value);
      lineStart = lineEnd + 1;
    }
    kept = chunk.substr(lineStart);
  }
  close(fd);
  return found;
}

std::string FirstCanonicalName(const addrinfo* list) {
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_canonname != nullptr) return entry->ai_canonname;
  }
  return std::string();
}

std::string GetFQHostName() {
  char hostname[256];
  if (gethostname(hostname, sizeof(hostname)) != 0) {
    FamErrorBase::SetLastError(nullptr);
    return std::string();
  }
  hostname[sizeof(hostname) - 1] = '\0';
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_flags = AI_CANONNAME;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* answer = nullptr;
  int code = getaddrinfo(hostname, nullptr, &hints, &answer);
  if (code != 0) {
    FamErrorBase::SetError(code, gai_strerror(code), nullptr);
    return std::string();
  }
  std::string name = FirstCanonicalName(answer);
  freeaddrinfo(answer);
  return name;
}

}  // namespace System
}  // namespace base
}  // namespace apm
