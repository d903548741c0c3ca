// SyslogCapture: what a test process, or a daemon it starts, sends to the system log.
//
// syslogcapture.cpp defines openlog, syslog, vsyslog, setlogmask and closelog (and the
// fortified __syslog_chk and __vsyslog_chk). While the environment variable
// ECOMM_TEST_SYSLOG names a file, every call appends one line to that file instead of
// reaching the system log; without the variable the calls go on to the C library. The
// mask is applied as the system log would apply it: a message at a level that the mask
// of the latest setlogmask excludes is recorded as "dropped", not as "syslog".
//
// In the test process: a test executable that uses SyslogCapture links these
// definitions, and they then stand in for the C library's ones for the whole
// executable, the code under test included. Make a SyslogCapture, run the code, read
// Entries() or Messages():
//
//   SyslogCapture capture;
//   apm::base::logargs(5, 106, 1, "Server certificate created (fingerprint=%s)", "ab:cd");
//   EXPECT_TRUE(capture.Contains("Server certificate created (fingerprint=ab:cd)"));
//
// In another process (the daemon binary): the same definitions are built as a
// preloadable object, PreloadLibrary(). Start the process with the environment
// ChildEnvironment() (it sets LD_PRELOAD, ECOMM_TEST_SYSLOG and, in sanitizer builds,
// the option that lets a preloaded object come first), and poll with WaitForMessage().
// Lines carry the writer's process id, so the lines of a daemonized child can be told
// from the parent's. Mind the mask: the daemon without a "LogLevel" setting logs up to
// LOG_WARNING, so its level-5 lines ("Server certificate created ...") are recorded as
// dropped; give it "LogLevel LOG_NOTICE" or look at the dropped entries in Entries().
//
// Not thread-safe to construct or destroy (it changes the process environment: do it
// before threads start). Reading while other threads or processes log is safe; each
// call is one append of one line.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace apm {
namespace test {

// One call as recorded.
struct SyslogEntry {
  // "openlog", "setlogmask", "syslog" (a message the mask let through), "dropped" (a
  // message the mask excluded) or "closelog".
  std::string call;
  pid_t pid = 0;
  // openlog: the option bits; setlogmask: the new mask (calls with 0, which only ask,
  // are not recorded); syslog and dropped: the priority as passed (level and facility).
  int value = 0;
  // openlog: the facility.
  int facility = 0;
  // openlog: the identifier, "(null)" for none; syslog and dropped: the formatted text.
  std::string text;

  // The level of a syslog or dropped entry (the priority without the facility).
  int level() const { return value & 0x07; }
};

class SyslogCapture {
 public:
  // Makes an empty capture file and points ECOMM_TEST_SYSLOG at it.
  SyslogCapture();
  // Restores ECOMM_TEST_SYSLOG and removes the file.
  ~SyslogCapture();
  SyslogCapture(const SyslogCapture&) = delete;
  SyslogCapture& operator=(const SyslogCapture&) = delete;

  const std::string& path() const { return path_; }

  // Every recorded call so far, in order.
  std::vector<SyslogEntry> Entries() const;
  // The texts of the messages that reached the log (not the dropped ones), in order;
  // with a level of 0 to 7, only those of that level.
  std::vector<std::string> Messages(int level = -1) const;
  // True if a message that reached the log contains `part`.
  bool Contains(const std::string& part) const;
  // Polls the file until a message that reached the log contains `part`, or the time
  // is up. For messages of another process.
  bool WaitForMessage(const std::string& part, std::chrono::milliseconds timeout) const;
  // Forgets everything recorded so far (empties the file).
  void Clear() const;

  // The environment for a child process that is to write to this capture: this
  // process's environment as "NAME=value" entries, with LD_PRELOAD, ECOMM_TEST_SYSLOG
  // and, in address-sanitizer builds, ASAN_OPTIONS set for it. Hand it to execve or
  // posix_spawn as it is.
  std::vector<std::string> ChildEnvironment() const;
  // The preloadable object with the recording definitions.
  static std::string PreloadLibrary();

 private:
  std::string path_;
  std::string previous_;
  bool hadPrevious_ = false;
};

}  // namespace test
}  // namespace apm
