// The daemon binary, run under a private root: options, detaching, the PID file,
// output redirection, signals and the exit status.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/daemonprocess.h"
#include "tests/support/privateroot.h"
#include "tests/support/syslogcapture.h"

namespace apm {
namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const char kVersionLine[] = "Norvanta kelvora(R) 2015 15.3.7.24531\n";
const char kPidFile[] = "/var/run/kelvoraecommd.pid";
const seconds kTimeout(20);

class DaemonProcessTest : public ::testing::Test {
 protected:
  void SetUp() override { umask(022); }

  // Runs the daemon with options that make it exit by itself (--version, --help).
  void RunToExit(const std::vector<std::string>& arguments) {
    ASSERT_TRUE(daemon_.Start(arguments));
    ASSERT_TRUE(daemon_.WaitForExit(kTimeout));
  }

  // Starts the daemon and waits until its start-up has reached the data directory.
  void StartServing(const std::vector<std::string>& arguments) {
    ASSERT_TRUE(daemon_.Start(arguments));
    ASSERT_TRUE(daemon_.WaitUntilServing(kTimeout)) << "stderr: " << daemon_.Stderr();
  }

  void StopWith(int signal) {
    ASSERT_TRUE(daemon_.SignalUntilExit(signal, kTimeout));
    EXPECT_TRUE(daemon_.Exited());
    EXPECT_EQ(daemon_.ExitStatus(), 0);
  }

  // After --daemonize: the spawned process exits at once, the detached one writes its
  // PID file; from then on follow the detached daemon. A PID file written before the
  // run must not hold a number.
  pid_t FollowDetachedDaemon() {
    EXPECT_TRUE(daemon_.WaitForExit(kTimeout));
    EXPECT_EQ(daemon_.ExitStatus(), 0);
    std::string content;
    EXPECT_TRUE(DaemonProcess::WaitFor(
        [&] {
          content = root_.ReadFile(kPidFile);
          return !content.empty() && content.back() == '\n' && std::atoi(content.c_str()) > 0;
        },
        kTimeout));
    pid_t pid = static_cast<pid_t>(std::atoi(content.c_str()));
    EXPECT_GT(pid, 0);
    EXPECT_NE(pid, daemon_.pid());
    daemon_.Adopt(pid);
    return pid;
  }

  PrivateRoot root_;
  DaemonProcess daemon_;
};

TEST_F(DaemonProcessTest, ThreadsOutsideRangePrintHundred) {
  RunToExit({"-threads", "9", "-threads", "1001", "--version"});
  EXPECT_EQ(daemon_.ExitStatus(), 0);
  EXPECT_EQ(daemon_.Stdout(), std::string("threads: 100\nthreads: 100\n") + kVersionLine);
}

TEST_F(DaemonProcessTest, ThreadsTenAndUpperCaseThousandAreTaken) {
  RunToExit({"-threads", "10", "-THREADS", "1000", "--version"});
  EXPECT_EQ(daemon_.Stdout(), std::string("threads: 10\nthreads: 1000\n") + kVersionLine);
}

TEST_F(DaemonProcessTest, PortAboveRangeOrNegativePrintsZero) {
  RunToExit({"-port", "70000", "-port", "-1", "--version"});
  EXPECT_EQ(daemon_.Stdout(), std::string("port: 0\nport: 0\n") + kVersionLine);
}

TEST_F(DaemonProcessTest, ThreadsAsLastArgumentPrintsHundredAndRuns) {
  StartServing({"-threads"});
  StopWith(SIGTERM);
  EXPECT_EQ(daemon_.Stdout(), "threads: 100\n");
}

TEST_F(DaemonProcessTest, UnknownOptionIsSilentAndDoesNotStopTheDaemon) {
  StartServing({"-bogus", "--unknown"});
  EXPECT_TRUE(daemon_.IsRunning());
  StopWith(SIGTERM);
  EXPECT_EQ(daemon_.Stdout(), "");
  EXPECT_EQ(daemon_.Stderr(), "");
}

TEST_F(DaemonProcessTest, VersionExitsZeroEvenAfterDaemonize) {
  RunToExit({"--daemonize", "--version"});
  EXPECT_TRUE(daemon_.Exited());
  EXPECT_EQ(daemon_.ExitStatus(), 0);
  EXPECT_EQ(daemon_.Stdout(), kVersionLine);
  // It never detached: no PID file, no data directory.
  EXPECT_FALSE(root_.Exists(kPidFile));
  EXPECT_FALSE(root_.Exists("/var/opt/kelvora/ecomm"));
}

TEST_F(DaemonProcessTest, HelpExitsZeroEvenAfterDaemonize) {
  RunToExit({"--daemonize", "--help"});
  EXPECT_EQ(daemon_.ExitStatus(), 0);
  EXPECT_EQ(daemon_.Stdout(),
            "Norvanta kelvora(R) 2015 - external communication daemon\n"
            " -threads ..... set max thread pool size (10..1000, default: 100)\n"
            " -port ........ set server listen port (1..65535)\n"
            " --version .... display the version number\n"
            " --help ....... display this help\n");
  EXPECT_FALSE(root_.Exists(kPidFile));
}

TEST_F(DaemonProcessTest, SigtermAfterStartUpEndsWithStatusZero) {
  StartServing({});
  StopWith(SIGTERM);
}

TEST_F(DaemonProcessTest, SigintAfterStartUpEndsWithStatusZero) {
  StartServing({});
  StopWith(SIGINT);
}

TEST_F(DaemonProcessTest, SigpipeIsIgnored) {
  StartServing({});
  ASSERT_TRUE(daemon_.Signal(SIGPIPE));
  EXPECT_FALSE(daemon_.WaitForExit(milliseconds(100)));
  StopWith(SIGTERM);
}

TEST_F(DaemonProcessTest, DataDirectoryIsMadeAndBecomesTheWorkingDirectory) {
  StartServing({});
  EXPECT_TRUE(root_.Exists("/var/opt/kelvora/ecomm"));
  char* real = realpath(root_.Path("/var/opt/kelvora/ecomm").c_str(), nullptr);
  ASSERT_NE(real, nullptr);
  EXPECT_EQ(daemon_.WorkingDirectory(), real);
  free(real);
  StopWith(SIGTERM);
}

TEST_F(DaemonProcessTest, WithoutDaemonizeAnExistingPidFileIsLeftAlone) {
  root_.WriteFile(kPidFile, "4242\n");
  StartServing({});
  StopWith(SIGTERM);
  EXPECT_EQ(root_.ReadFile(kPidFile), "4242\n");
}

TEST_F(DaemonProcessTest, WithoutDaemonizeNoPidFileIsWritten) {
  StartServing({});
  StopWith(SIGTERM);
  EXPECT_FALSE(root_.Exists(kPidFile));
}

TEST_F(DaemonProcessTest, DaemonizeDetachesAndWritesPidFile) {
  root_.WriteFile(kPidFile, "stale content that is replaced\n");
  ASSERT_TRUE(daemon_.Start({"--daemonize"}));
  pid_t pid = FollowDetachedDaemon();
  ASSERT_TRUE(daemon_.WaitUntilServing(kTimeout));
  EXPECT_EQ(root_.ReadFile(kPidFile), std::to_string(pid) + "\n");
  // Detached: a session of its own, standard streams on the null device.
  EXPECT_EQ(getsid(pid), pid);
  EXPECT_EQ(daemon_.DescriptorTarget(1), "/dev/null");
  StopWith(SIGTERM);
  // The PID file stays behind after an orderly stop.
  EXPECT_EQ(root_.ReadFile(kPidFile), std::to_string(pid) + "\n");
}

TEST_F(DaemonProcessTest, SighupWithoutProcessOutFileChangesNothing) {
  StartServing({});
  const std::string before = daemon_.DescriptorTarget(1);
  EXPECT_EQ(before, daemon_.StdoutPath());
  ASSERT_TRUE(daemon_.Signal(SIGHUP));
  EXPECT_FALSE(daemon_.WaitForExit(milliseconds(100)));
  EXPECT_EQ(daemon_.DescriptorTarget(1), before);
  EXPECT_EQ(daemon_.DescriptorTarget(2), daemon_.StderrPath());
  StopWith(SIGTERM);
}

TEST_F(DaemonProcessTest, ProcessOutFileTakesStdoutAndStderr) {
  const std::string outFile = root_.Path("/var/log/ecomm.out");
  mkdir(root_.Path("/var/log").c_str(), 0755);
  root_.WriteFile("/etc/kelvora/ecomm.conf", "ProcessOutFile " + outFile + "\n");
  StartServing({"-threads", "20"});
  EXPECT_EQ(daemon_.DescriptorTarget(1), outFile);
  EXPECT_EQ(daemon_.DescriptorTarget(2), outFile);
  struct stat info = {};
  ASSERT_EQ(stat(outFile.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
  StopWith(SIGTERM);
  // The options printed before the redirection.
  EXPECT_EQ(daemon_.Stdout(), "threads: 20\n");
}

TEST_F(DaemonProcessTest, SighupReopensProcessOutFileAfterItWasMovedAway) {
  const std::string outFile = root_.Path("/var/log/ecomm.out");
  mkdir(root_.Path("/var/log").c_str(), 0755);
  root_.WriteFile("/etc/kelvora/ecomm.conf", "ProcessOutFile " + outFile + "\n");
  StartServing({});
  ASSERT_EQ(daemon_.DescriptorTarget(1), outFile);
  ASSERT_EQ(std::rename(outFile.c_str(), (outFile + ".1").c_str()), 0);
  EXPECT_EQ(daemon_.DescriptorTarget(1), outFile + ".1");
  ASSERT_TRUE(daemon_.Signal(SIGHUP));
  EXPECT_TRUE(DaemonProcess::WaitFor(
      [&] { return daemon_.DescriptorTarget(1) == outFile && daemon_.DescriptorTarget(2) == outFile; }, kTimeout));
  EXPECT_TRUE(root_.Exists("/var/log/ecomm.out"));
  EXPECT_TRUE(daemon_.IsRunning());
  StopWith(SIGTERM);
}

TEST_F(DaemonProcessTest, UnopenableProcessOutFileKeepsTheOldTargets) {
  root_.WriteFile("/etc/kelvora/ecomm.conf", "ProcessOutFile " + root_.Path("/no/such/dir/ecomm.out") + "\n");
  StartServing({});
  EXPECT_EQ(daemon_.DescriptorTarget(1), daemon_.StdoutPath());
  EXPECT_EQ(daemon_.DescriptorTarget(2), daemon_.StderrPath());
  ASSERT_TRUE(daemon_.Signal(SIGHUP));
  EXPECT_FALSE(daemon_.WaitForExit(milliseconds(100)));
  EXPECT_EQ(daemon_.DescriptorTarget(1), daemon_.StdoutPath());
  StopWith(SIGTERM);
}

TEST_F(DaemonProcessTest, ProcessOutFileIsOpenedAfterDetaching) {
  const std::string outFile = root_.Path("/var/log/ecomm.out");
  mkdir(root_.Path("/var/log").c_str(), 0755);
  root_.WriteFile("/etc/kelvora/ecomm.conf", "ProcessOutFile " + outFile + "\n");
  ASSERT_TRUE(daemon_.Start({"--daemonize"}));
  FollowDetachedDaemon();
  ASSERT_TRUE(daemon_.WaitUntilServing(kTimeout));
  EXPECT_EQ(daemon_.DescriptorTarget(1), outFile);
  EXPECT_EQ(daemon_.DescriptorTarget(2), outFile);
  StopWith(SIGTERM);
}

TEST_F(DaemonProcessTest, LogLevelFromConfigurationSetsTheLogMask) {
  root_.WriteFile("/etc/kelvora/ecomm.conf", "LogLevel LOG_DEBUG\n");
  SyslogCapture capture;
  daemon_.AddEnvironment(capture.ChildEnvironment());
  StartServing({});
  StopWith(SIGTERM);
  std::vector<std::string> calls;
  int lastMask = 0;
  for (const SyslogEntry& entry : capture.Entries()) {
    calls.push_back(entry.call);
    if (entry.call == "setlogmask") lastMask = entry.value;
  }
  EXPECT_EQ(lastMask, LOG_UPTO(LOG_DEBUG));
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.front(), "openlog");
  EXPECT_EQ(calls.back(), "closelog");
}

TEST_F(DaemonProcessTest, MissingLogLevelGivesWarningLevel) {
  SyslogCapture capture;
  daemon_.AddEnvironment(capture.ChildEnvironment());
  StartServing({});
  StopWith(SIGTERM);
  int lastMask = 0;
  for (const SyslogEntry& entry : capture.Entries()) {
    if (entry.call == "setlogmask") lastMask = entry.value;
  }
  EXPECT_EQ(lastMask, LOG_UPTO(LOG_WARNING));
}

}  // namespace
}  // namespace test
}  // namespace apm
