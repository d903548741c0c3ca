// DaemonProcess: runs the daemon binary (or another program) as a child of a test
// and observes it from outside: output, descriptors, working directory, signals and
// exit status.
//
// Typical use, under a PrivateRoot so that the daemon's paths land in the test's own
// folder (the child inherits ECOMM_ROOT with the rest of the test's environment):
//
//   test::PrivateRoot root;
//   test::DaemonProcess daemon;                    // ECOMM_DAEMON_PATH
//   ASSERT_TRUE(daemon.Start({"-threads", "20"}));
//   ASSERT_TRUE(daemon.WaitUntilServing(std::chrono::seconds(10)));
//   ASSERT_TRUE(daemon.SignalUntilExit(SIGTERM, std::chrono::seconds(10)));
//   EXPECT_EQ(daemon.ExitStatus(), 0);
//   EXPECT_EQ(daemon.Stdout(), "threads: 20\n");
//
// - Start spawns the program with stdin on /dev/null and stdout and stderr going to
//   two files in a capture folder of the object's own; Stdout() and Stderr() read
//   them back at any time. Signal dispositions and the signal mask are reset to the
//   defaults in the child. SetEnv / AddEnvironment add or replace variables of the
//   child only (e.g. SyslogCapture::ChildEnvironment()).
// - Start makes the test process a child subreaper, so a daemon that detaches
//   (--daemonize: it forks and the parent exits) is re-parented to the test instead
//   of init. After the spawned process has exited, Adopt(pid) with the id from the
//   PID file makes the object follow the detached daemon like its own child:
//   signals, waiting and the exit status then refer to it.
// - Waiting never sleeps longer than a few milliseconds at a time; every wait has a
//   time-out and returns false when it runs out.
// - The destructor kills (SIGKILL) and reaps the process if it is still there and
//   removes the capture folder.
//
// Not thread-safe: use one object from the test's main thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace apm {
namespace test {

class DaemonProcess {
 public:
  explicit DaemonProcess(std::string program = ECOMM_DAEMON_PATH);
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // Adds or replaces a variable in the child's environment.
  void SetEnv(const std::string& name, const std::string& value);
  // The same for entries of the form "NAME=value".
  void AddEnvironment(const std::vector<std::string>& entries);

  // Spawns the program with `arguments` (argv[0] is the program path). False if the
  // spawn failed or a process of this object is still running.
  bool Start(const std::vector<std::string>& arguments);

  // The followed process: the spawned one, or the adopted one after Adopt.
  pid_t pid() const { return pid_; }

  // Follows `pid` from now on, typically the detached daemon named in its PID file.
  // The process must be a descendant of the test, re-parented to it as a subreaper.
  void Adopt(pid_t pid);

  // kill(pid(), signal); false if there is no process or kill failed.
  bool Signal(int signal) const;

  // Waits for the process to end and reaps it. True if it ended within `timeout`
  // (or had ended before).
  bool WaitForExit(std::chrono::milliseconds timeout);

  // Sends `signal` every `interval` until the process ends or `timeout` runs out.
  // For stop signals that the daemon ignores until its start-up is complete.
  bool SignalUntilExit(int signal, std::chrono::milliseconds timeout,
                       std::chrono::milliseconds interval = std::chrono::milliseconds(20));

  // True while the process has not ended (reaps it if it has).
  bool IsRunning();

  // After the process ended: whether it exited normally and with what status, or
  // whether a signal ended it and which. -1 before the end.
  bool Exited() const;
  int ExitStatus() const;
  bool Signaled() const;
  int TermSignal() const;

  // What the spawned process wrote to stdout and stderr so far.
  std::string Stdout() const;
  std::string Stderr() const;
  const std::string& StdoutPath() const { return stdoutPath_; }
  const std::string& StderrPath() const { return stderrPath_; }

  // Where descriptor `fd` of the process points (readlink of /proc/PID/fd/FD), e.g.
  // a file path, possibly with " (deleted)"; empty if unknown.
  std::string DescriptorTarget(int fd) const;
  // The process's working directory (readlink of /proc/PID/cwd), empty if unknown.
  std::string WorkingDirectory() const;

  // Waits until the daemon has entered its data directory: its working directory is
  // then RootedPath("/var/opt/kelvora/ecomm/"), and its signal handlers are in place,
  // so SIGHUP and SIGPIPE no longer end it. Stop signals may still be ignored until
  // the start-up is complete: stop it with SignalUntilExit. False if the process
  // ended or the time ran out.
  bool WaitUntilServing(std::chrono::milliseconds timeout);

  // Polls `condition` every few milliseconds until it holds or `timeout` runs out.
  static bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

 private:
  // Reaps the process if it has ended; true if it has (now or before).
  bool Reap(bool block);

  std::string program_;
  std::map<std::string, std::string> environment_;
  std::string captureDir_;
  std::string stdoutPath_;
  std::string stderrPath_;
  pid_t pid_ = -1;
  bool ended_ = false;
  int status_ = 0;
};

}  // namespace test
}  // namespace apm
