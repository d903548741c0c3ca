// The daemon's log: messages go to the system log (facility LOG_USER) with a level
// mask, and, in a mode the daemon does not use, a
// trace line to stderr (base/traceline.h).
//
// Levels are the syslog priorities 0 (LOG_EMERG) to 7 (LOG_DEBUG). The maximum level
// starts at 5; setMaximumLogLevel caps anything of 8 or more to 5. The event id and
// module number identify a message for callers; this back end ignores them.
// Thread-safe for logging (syslog locks itself); the log state is written only
// during start and stop.
#pragma once

#include <string>

namespace apm {
namespace base {

void log(int level, unsigned int eventId, unsigned short module, const std::string& text);
void logargs(int level, unsigned int eventId, unsigned short module, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
void log_linux(int level, unsigned int eventId, unsigned short module, const std::string& text);

void initiateLog(const char* name);
void closeLog();
void setMaximumLogLevel(int level);
int getMaximumLogLevel();
// "LOG_EMERG" .. "LOG_DEBUG", compared case-sensitively; anything else gives 4.
int getLoglevelAsInt(std::string name);

}  // namespace base
}  // namespace apm
