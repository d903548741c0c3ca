#include "base/trace.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "base/traceline.h"

namespace apm {
namespace base {

namespace {

// Written during start and stop; atomic so that a first message on any thread may open
// the log without a data race.
std::atomic<int> maximumLogLevel{5};
std::atomic<bool> logOpen{false};
// 0: system log and trace line, 1: system log only, 2: trace line only.
std::atomic<int> logMode{0};

// The name in front of a trace line, and the one the log is opened with by default.
const char defaultLogName[] = "kelvoraecommd";

const char* const levelNames[] = {"LOG_EMERG",   "LOG_ALERT",  "LOG_CRIT", "LOG_ERR",
                                  "LOG_WARNING", "LOG_NOTICE", "LOG_INFO", "LOG_DEBUG"};

int LevelMask(int level) { return (1 << (level + 1)) - 1; }

}  // namespace

void log(int level, unsigned int eventId, unsigned short module, const std::string& text) {
  log_linux(level, eventId, module, text);
}

void logargs(int level, unsigned int eventId, unsigned short module, const char* format, ...) {
  char buffer[1024];
  buffer[0] = '\0';
  va_list args;
  va_start(args, format);
  if (vsnprintf(buffer, sizeof(buffer), format, args) < 0) {
    buffer[sizeof(buffer) - 1] = '\0';
  }
  va_end(args);
  log_linux(level, eventId, module, buffer);
}

void log_linux(int level, unsigned int, unsigned short, const std::string& text) {
  if (!logOpen) {
    initiateLog(defaultLogName);
  }
  const int mode = logMode;
  if (mode == 0 || mode == 1) {
    syslog(level, "%s", text.c_str());
  }
  if (mode == 0 || mode == 2) {
    WriteTrace((std::string(defaultLogName) + ": " + text).c_str());
  }
}

void initiateLog(const char*) {
  // The name is not passed on: the system log shows the program's own name.
  logMode = 1;
  openlog(nullptr, LOG_PID, LOG_USER);
  setlogmask(LevelMask(maximumLogLevel));
  logOpen = true;
}

void closeLog() {
  closelog();
  logOpen = false;
}

void setMaximumLogLevel(int level) {
  if (level >= 8) {
    level = LOG_NOTICE;
  }
  maximumLogLevel = level;
  if (logOpen) {
    setlogmask(LevelMask(level));
  }
}

int getMaximumLogLevel() { return maximumLogLevel; }

int getLoglevelAsInt(std::string name) {
  for (int level = 0; level < 8; ++level) {
    if (name == levelNames[level]) {
      return level;
    }
  }
  return LOG_WARNING;
}

}  // namespace base
}  // namespace apm
