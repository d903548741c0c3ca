#include "base/trace.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/fixtures/sdkstandin.h"
#include "tests/support/syslogcapture.h"

namespace apm {
namespace base {
namespace {

using test::RunWithSdk;
using test::SdkVariant;
using test::SyslogCapture;
using test::SyslogEntry;

// The calls other than messages: openlog, setlogmask, closelog, as "call value".
std::vector<std::string> ControlCalls(const SyslogCapture& capture) {
  std::vector<std::string> calls;
  for (const SyslogEntry& entry : capture.Entries()) {
    if (entry.call == "openlog") {
      calls.push_back("openlog " + entry.text + " " + std::to_string(entry.value) + " " +
                      std::to_string(entry.facility));
    } else if (entry.call == "setlogmask") {
      calls.push_back("setlogmask " + std::to_string(entry.value));
    } else if (entry.call == "closelog") {
      calls.push_back("closelog");
    }
  }
  return calls;
}

TEST(LogLevelNames, LevelNamesAreCaseSensitive) {
  EXPECT_EQ(getLoglevelAsInt("LOG_info"), 4);
  EXPECT_EQ(getLoglevelAsInt("log_debug"), 4);
  EXPECT_EQ(getLoglevelAsInt("LOG_DEBUG "), 4);
  EXPECT_EQ(getLoglevelAsInt("7"), 4);
}

TEST(LogLevelNames, EmptyNameGivesWarning) { EXPECT_EQ(getLoglevelAsInt(""), LOG_WARNING); }

TEST(LogLevelNames, EveryNameGivesItsSyslogLevel) {
  const char* names[] = {"LOG_EMERG",   "LOG_ALERT",  "LOG_CRIT", "LOG_ERR",
                         "LOG_WARNING", "LOG_NOTICE", "LOG_INFO", "LOG_DEBUG"};
  for (int level = 0; level < 8; ++level) EXPECT_EQ(getLoglevelAsInt(names[level]), level);
}

TEST(MaximumLogLevel, StartsAtNotice) {
  RunWithSdk(SdkVariant::Absent, [] { EXPECT_EQ(getMaximumLogLevel(), 5); });
}

TEST(MaximumLogLevel, SetMaximumLogLevel8Sets5) {
  setMaximumLogLevel(8);
  EXPECT_EQ(getMaximumLogLevel(), 5);
  setMaximumLogLevel(1000);
  EXPECT_EQ(getMaximumLogLevel(), 5);
}

TEST(MaximumLogLevel, LevelsUpTo7AreKept) {
  for (int level = 0; level < 8; ++level) {
    setMaximumLogLevel(level);
    EXPECT_EQ(getMaximumLogLevel(), level);
  }
}

TEST(SystemLog, InitiateLogOpensWithoutIdentWithPidAtLogUserAndSetsTheMask) {
  SyslogCapture capture;
  closeLog();
  setMaximumLogLevel(6);
  capture.Clear();
  initiateLog("ignored-name");
  EXPECT_EQ(ControlCalls(capture),
            (std::vector<std::string>{
                "openlog (null) " + std::to_string(LOG_PID) + " " + std::to_string(LOG_USER),
                "setlogmask 127"}));
}

TEST(SystemLog, FirstMessageOpensTheLogWithTheStartingMask) {
  RunWithSdk(SdkVariant::Absent, [] {
    SyslogCapture capture;
    log(3, 5, 1, "first");
    EXPECT_EQ(ControlCalls(capture),
              (std::vector<std::string>{
                  "openlog (null) " + std::to_string(LOG_PID) + " " + std::to_string(LOG_USER),
                  "setlogmask 63"}));
    std::vector<SyslogEntry> entries = capture.Entries();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[2].call, "syslog");
    EXPECT_EQ(entries[2].value, 3);
    EXPECT_EQ(entries[2].text, "first");
  });
}

TEST(SystemLog, LevelMaskLetsThroughLevelsUpToTheMaximum) {
  SyslogCapture capture;
  initiateLog("ecomm");
  setMaximumLogLevel(5);
  for (int level = 0; level < 8; ++level) log(level, 1, 1, "level " + std::to_string(level));
  EXPECT_EQ(capture.Messages(), (std::vector<std::string>{"level 0", "level 1", "level 2",
                                                          "level 3", "level 4", "level 5"}));
  std::vector<std::string> dropped;
  for (const SyslogEntry& entry : capture.Entries()) {
    if (entry.call == "dropped") dropped.push_back(entry.text);
  }
  EXPECT_EQ(dropped, (std::vector<std::string>{"level 6", "level 7"}));

  capture.Clear();
  setMaximumLogLevel(0);
  log(0, 1, 1, "emergency");
  log(1, 1, 1, "alert");
  setMaximumLogLevel(9);
  log(5, 1, 1, "notice");
  log(6, 1, 1, "info");
  EXPECT_EQ(ControlCalls(capture), (std::vector<std::string>{"setlogmask 1", "setlogmask 63"}));
  EXPECT_EQ(capture.Messages(), (std::vector<std::string>{"emergency", "notice"}));
}

TEST(SystemLog, SetMaximumLogLevelWhileClosedOnlyStoresTheLevel) {
  SyslogCapture capture;
  initiateLog("ecomm");
  closeLog();
  capture.Clear();
  setMaximumLogLevel(3);
  EXPECT_TRUE(ControlCalls(capture).empty());
  log(3, 1, 1, "reopened");
  EXPECT_EQ(ControlCalls(capture),
            (std::vector<std::string>{
                "openlog (null) " + std::to_string(LOG_PID) + " " + std::to_string(LOG_USER),
                "setlogmask 15"}));
  EXPECT_EQ(capture.Messages(), std::vector<std::string>{"reopened"});
}

TEST(SystemLog, MessageAfterCloseLogReopensTheLog) {
  SyslogCapture capture;
  setMaximumLogLevel(5);
  log(4, 1, 1, "before");
  closeLog();
  log(4, 1, 1, "after");
  std::vector<std::string> sequence;
  for (const SyslogEntry& entry : capture.Entries()) sequence.push_back(entry.call);
  ASSERT_GE(sequence.size(), 5u);
  EXPECT_EQ(std::vector<std::string>(sequence.end() - 5, sequence.end()),
            (std::vector<std::string>{"syslog", "closelog", "openlog", "setlogmask", "syslog"}));
  EXPECT_EQ(capture.Messages(), (std::vector<std::string>{"before", "after"}));
}

TEST(SystemLog, LogSendsTheTextVerbatimAtTheGivenLevel) {
  SyslogCapture capture;
  setMaximumLogLevel(7);
  log(2, 65, 1, "cannot bind: 100% %s %n\nsecond line");
  std::vector<SyslogEntry> entries = capture.Entries();
  ASSERT_FALSE(entries.empty());
  EXPECT_EQ(entries.back().call, "syslog");
  EXPECT_EQ(entries.back().value, 2);
  EXPECT_EQ(entries.back().text, "cannot bind: 100% %s %n\nsecond line");
}

TEST(SystemLog, LogargsFormatsTheText) {
  SyslogCapture capture;
  setMaximumLogLevel(5);
  logargs(5, 106, 1, "Server certificate created (fingerprint=%s)", "01:AB");
  EXPECT_EQ(capture.Messages(5),
            std::vector<std::string>{"Server certificate created (fingerprint=01:AB)"});
}

TEST(SystemLog, LogargsCutsTheTextAt1023Characters) {
  SyslogCapture capture;
  setMaximumLogLevel(5);
  logargs(3, 1, 1, "%s|%d", std::string(1500, 'z').c_str(), 42);
  EXPECT_EQ(capture.Messages(3), std::vector<std::string>{std::string(1023, 'z')});
}

TEST(SystemLog, LogargsWithFailedFormattingStillSendsTheBuffer) {
  SyslogCapture capture;
  setMaximumLogLevel(5);
  // A wide character the C locale cannot convert makes vsnprintf fail.
  const wchar_t unconvertible[] = {static_cast<wchar_t>(0xD800), 0};
  logargs(3, 1, 1, "before %ls after", unconvertible);
  // What was formatted before the failure goes out.
  EXPECT_EQ(capture.Messages(3), std::vector<std::string>{"before "});
}

TEST(SystemLog, AnotherProcessLogsIntoTheCaptureThroughThePreloadedObject) {
  SyslogCapture capture;
  std::vector<std::string> environment = capture.ChildEnvironment();
  std::vector<char*> envp;
  for (std::string& entry : environment) envp.push_back(&entry[0]);
  envp.push_back(nullptr);
  const std::string writer = std::string(ECOMM_BINARY_DIR) + "/tests/fixtures/ecomm_log_writer";
  std::vector<std::string> arguments = {writer, "5", "Client certificate used (fingerprint=AA)",
                                        "7", "debug detail"};
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(&argument[0]);
  argv.push_back(nullptr);

  pid_t child = 0;
  ASSERT_EQ(posix_spawn(&child, writer.c_str(), nullptr, nullptr, argv.data(), envp.data()), 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  EXPECT_TRUE(capture.WaitForMessage("Client certificate used", std::chrono::milliseconds(100)));
  std::vector<SyslogEntry> entries = capture.Entries();
  std::vector<std::string> sequence;
  for (const SyslogEntry& entry : entries) {
    EXPECT_EQ(entry.pid, child);
    sequence.push_back(entry.call + " " + entry.text);
  }
  EXPECT_EQ(sequence, (std::vector<std::string>{"openlog (null)", "setlogmask ",
                                                "syslog Client certificate used (fingerprint=AA)",
                                                "syslog debug detail", "closelog "}));
}

}  // namespace
}  // namespace base
}  // namespace apm
