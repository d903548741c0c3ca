// The recording stand-ins for the C library's system-log calls, and the reader of what
// they record. Built into the test support library (in-process use) and, unchanged, into
// the preloadable object for other processes.
#undef _FORTIFY_SOURCE

#include "tests/support/syslogcapture.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace apm {
namespace test {

namespace {

const char kCaptureVariable[] = "ECOMM_TEST_SYSLOG";

// The mask as the last setlogmask left it; the system log's own starts with all levels.
std::atomic<int> currentMask{0xff};

const char* CaptureFile() { return std::getenv(kCaptureVariable); }

// Fields are separated by tabs, so tabs, line feeds and backslashes in texts are escaped.
std::string Escape(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '\\':
        escaped += "\\\\";
        break;
      case '\n':
        escaped += "\\n";
        break;
      case '\t':
        escaped += "\\t";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::string Unescape(const std::string& text) {
  std::string plain;
  plain.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      ++i;
      plain += text[i] == 'n' ? '\n' : text[i] == 't' ? '\t' : text[i];
    } else {
      plain += text[i];
    }
  }
  return plain;
}

// Appends "call pid value facility text" as one line with one write, so that lines of
// concurrent writers, threads or processes, never mix. Keeps errno as it was.
void Record(const char* file, const char* call, int value, int facility, const std::string& text) {
  const int savedErrno = errno;
  std::string line = std::string(call) + '\t' + std::to_string(getpid()) + '\t' +
                     std::to_string(value) + '\t' + std::to_string(facility) + '\t' + Escape(text) +
                     '\n';
  int fd = open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) {
    ssize_t ignored = write(fd, line.data(), line.size());
    (void)ignored;
    close(fd);
  }
  errno = savedErrno;
}

void RecordMessage(const char* file, int priority, const char* format, va_list args) {
  const int savedErrno = errno;
  char* text = nullptr;
  if (vasprintf(&text, format, args) < 0) {
    text = nullptr;
  }
  errno = savedErrno;
  const bool passes = (currentMask.load() & LOG_MASK(LOG_PRI(priority))) != 0;
  Record(file, passes ? "syslog" : "dropped", priority, 0, text != nullptr ? text : "");
  free(text);
}

template <typename Function>
Function Real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

SyslogCapture::SyslogCapture() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/ecomm-syslog-XXXXXX";
  int fd = mkstemp(&pattern[0]);
  if (fd < 0) throw std::runtime_error("mkstemp failed for " + pattern);
  close(fd);
  path_ = pattern;
  if (const char* old = CaptureFile()) {
    previous_ = old;
    hadPrevious_ = true;
  }
  setenv(kCaptureVariable, path_.c_str(), 1);
}

SyslogCapture::~SyslogCapture() {
  if (hadPrevious_) {
    setenv(kCaptureVariable, previous_.c_str(), 1);
  } else {
    unsetenv(kCaptureVariable);
  }
  unlink(path_.c_str());
}

std::vector<SyslogEntry> SyslogCapture::Entries() const {
  std::vector<SyslogEntry> entries;
  std::ifstream in(path_);
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> fields;
    std::string::size_type start = 0;
    for (int i = 0; i < 4; ++i) {
      std::string::size_type tab = line.find('\t', start);
      if (tab == std::string::npos) break;
      fields.push_back(line.substr(start, tab - start));
      start = tab + 1;
    }
    if (fields.size() != 4) continue;  // a line still being written by another process
    SyslogEntry entry;
    entry.call = fields[0];
    entry.pid = static_cast<pid_t>(std::stol(fields[1]));
    entry.value = std::stoi(fields[2]);
    entry.facility = std::stoi(fields[3]);
    entry.text = Unescape(line.substr(start));
    entries.push_back(entry);
  }
  return entries;
}

std::vector<std::string> SyslogCapture::Messages(int level) const {
  std::vector<std::string> messages;
  for (const SyslogEntry& entry : Entries()) {
    if (entry.call == "syslog" && (level < 0 || entry.level() == level)) {
      messages.push_back(entry.text);
    }
  }
  return messages;
}

bool SyslogCapture::Contains(const std::string& part) const {
  for (const std::string& message : Messages()) {
    if (message.find(part) != std::string::npos) return true;
  }
  return false;
}

bool SyslogCapture::WaitForMessage(const std::string& part,
                                   std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!Contains(part)) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

void SyslogCapture::Clear() const { std::ofstream(path_, std::ios::trunc); }

std::vector<std::string> SyslogCapture::ChildEnvironment() const {
  std::string preload = PreloadLibrary();
  std::string sanitizerOptions;
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string variable(*entry);
    const std::string::size_type equals = variable.find('=');
    const std::string name = variable.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : variable.substr(equals + 1);
    if (name == "LD_PRELOAD") {
      if (!value.empty()) preload += ":" + value;
    } else if (name == "ASAN_OPTIONS") {
      sanitizerOptions = value;
    } else if (name != kCaptureVariable) {
      environment.push_back(variable);
    }
  }
  environment.push_back(std::string(kCaptureVariable) + "=" + path_);
  environment.push_back("LD_PRELOAD=" + preload);
#if defined(__SANITIZE_ADDRESS__)
  // The address sanitizer insists on being the first object loaded unless told otherwise.
  sanitizerOptions += std::string(sanitizerOptions.empty() ? "" : ":") + "verify_asan_link_order=0";
#endif
  if (!sanitizerOptions.empty()) environment.push_back("ASAN_OPTIONS=" + sanitizerOptions);
  return environment;
}

std::string SyslogCapture::PreloadLibrary() { return ECOMM_SYSLOG_PRELOAD; }

}  // namespace test
}  // namespace apm

using apm::test::CaptureFile;
using apm::test::currentMask;
using apm::test::Real;
using apm::test::Record;
using apm::test::RecordMessage;

extern "C" {

void openlog(const char* ident, int option, int facility) {
  if (const char* file = CaptureFile()) {
    Record(file, "openlog", option, facility, ident != nullptr ? ident : "(null)");
    return;
  }
  Real<void (*)(const char*, int, int)>("openlog")(ident, option, facility);
}

void closelog(void) {
  if (const char* file = CaptureFile()) {
    Record(file, "closelog", 0, 0, "");
    return;
  }
  Real<void (*)()>("closelog")();
}

int setlogmask(int mask) noexcept {
  if (const char* file = CaptureFile()) {
    if (mask == 0) return currentMask.load();
    Record(file, "setlogmask", mask, 0, "");
    return currentMask.exchange(mask);
  }
  return Real<int (*)(int)>("setlogmask")(mask);
}

void vsyslog(int priority, const char* format, va_list args) {
  if (const char* file = CaptureFile()) {
    RecordMessage(file, priority, format, args);
    return;
  }
  Real<void (*)(int, const char*, va_list)>("vsyslog")(priority, format, args);
}

void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(priority, format, args);
  va_end(args);
}

void __vsyslog_chk(int priority, int flag, const char* format, va_list args) {
  if (const char* file = CaptureFile()) {
    RecordMessage(file, priority, format, args);
    return;
  }
  Real<void (*)(int, int, const char*, va_list)>("__vsyslog_chk")(priority, flag, format, args);
}

void __syslog_chk(int priority, int flag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  __vsyslog_chk(priority, flag, format, args);
  va_end(args);
}

}  // extern "C"
