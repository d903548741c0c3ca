#include "ecomm/daemonstate.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/privateroot.h"

namespace apm {
namespace ecomm {
namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

TEST(DaemonState, InitialValues) {
  EXPECT_EQ(maxThreads, 100u);
  EXPECT_FALSE(daemonize);
  EXPECT_EQ(listenPort, 0u);
  EXPECT_EQ(processOutFile, nullptr);
  EXPECT_EQ(running, 0);
  EXPECT_FALSE(stopSemaphore.TryWait());
}

TEST(StopSignal, IgnoredBeforeRunning) {
  running = 0;
  sighandler(SIGTERM);
  sighandler(SIGINT);
  EXPECT_EQ(running, 0);
  EXPECT_FALSE(stopSemaphore.TryWait());
}

TEST(StopSignal, ClearsRunningAndPostsOnce) {
  running = 1;
  sighandler(SIGTERM);
  EXPECT_EQ(running, 0);
  EXPECT_TRUE(stopSemaphore.TryWait());
  EXPECT_FALSE(stopSemaphore.TryWait());
  running = 1;
  sighandler(SIGINT);
  EXPECT_EQ(running, 0);
  EXPECT_TRUE(stopSemaphore.TryWait());
}

TEST(StopSignal, OtherSignalNumbersAreIgnored) {
  running = 1;
  sighandler(SIGHUP);
  sighandler(SIGUSR1);
  EXPECT_EQ(running, 1);
  EXPECT_FALSE(stopSemaphore.TryWait());
  running = 0;
}

TEST(StopSignal, WaitEndsWhenTheSignalArrives) {
  InstallSignalHandlers();
  running = 1;
  std::thread signaller([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    kill(getpid(), SIGTERM);
  });
  WaitUntilStopped();
  signaller.join();
  EXPECT_EQ(running, 0);
}

TEST(StopSignal, WaitReturnsAtOnceWhenNotRunning) {
  running = 0;
  WaitUntilStopped();
  SUCCEED();
}

TEST(SignalHandlers, SighupIsInstalledWithRestartAndEmptyMask) {
  InstallSignalHandlers();
  struct sigaction action = {};
  ASSERT_EQ(sigaction(SIGHUP, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, &sighuphandler);
  EXPECT_TRUE(action.sa_flags & SA_RESTART);
  sigset_t empty;
  sigemptyset(&empty);
  for (int signal = 1; signal < NSIG; ++signal) EXPECT_FALSE(sigismember(&action.sa_mask, signal)) << signal;
  ASSERT_EQ(sigaction(SIGTERM, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, &sighandler);
  ASSERT_EQ(sigaction(SIGINT, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, &sighandler);
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
  EXPECT_EQ(action.sa_handler, &sigpipehandler);
}

// Runs `body` with stdout and stderr saved, and puts them back afterwards.
template <class Body>
void WithSavedStandardStreams(Body body) {
  std::fflush(stdout);
  std::fflush(stderr);
  int savedOut = dup(STDOUT_FILENO);
  int savedErr = dup(STDERR_FILENO);
  body();
  std::fflush(stdout);
  std::fflush(stderr);
  dup2(savedOut, STDOUT_FILENO);
  dup2(savedErr, STDERR_FILENO);
  close(savedOut);
  close(savedErr);
}

TEST(Sighup, WithoutProcessOutFileDoesNothing) {
  processOutFile = nullptr;
  struct stat before = {};
  ASSERT_EQ(fstat(STDOUT_FILENO, &before), 0);
  sighuphandler(SIGHUP);
  struct stat after = {};
  ASSERT_EQ(fstat(STDOUT_FILENO, &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(before.st_dev, after.st_dev);
}

TEST(Sighup, AppendsStdoutAndStderrToProcessOutFile) {
  test::PrivateRoot root;
  const std::string path = root.Path("/out.log");
  root.WriteFile("/out.log", "earlier\n");
  std::string pathStore = path;
  processOutFile = &pathStore[0];
  WithSavedStandardStreams([] {
    std::printf("to stdout\n");  // still the old target
    sighuphandler(SIGHUP);
    std::printf("first\n");
    std::fflush(stdout);
    std::fprintf(stderr, "second\n");
  });
  processOutFile = nullptr;
  EXPECT_EQ(ReadFile(path), "earlier\nfirst\nsecond\n");
}

TEST(Sighup, UnopenableFileKeepsTheOldTargets) {
  test::PrivateRoot root;
  std::string pathStore = root.Path("/missing/dir/out.log");
  processOutFile = &pathStore[0];
  struct stat before = {};
  ASSERT_EQ(fstat(STDERR_FILENO, &before), 0);
  WithSavedStandardStreams([&] {
    sighuphandler(SIGHUP);
    struct stat after = {};
    ASSERT_EQ(fstat(STDERR_FILENO, &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
  });
  processOutFile = nullptr;
}

TEST(Sighup, KeepsTheErrnoOfTheInterruptedCode) {
  test::PrivateRoot root;
  std::string pathStore = root.Path("/missing/dir/out.log");
  processOutFile = &pathStore[0];
  WithSavedStandardStreams([&] {
    // The failing open inside the handler sets errno; the code the signal
    // interrupted must still see its own.
    errno = 4242;
    sighuphandler(SIGHUP);
    EXPECT_EQ(errno, 4242);
  });
  processOutFile = nullptr;
}

TEST(Sigpipe, HandlerKeepsTheProcessAlive) {
  InstallSignalHandlers();
  EXPECT_EQ(kill(getpid(), SIGPIPE), 0);
  SUCCEED();
}

}  // namespace
}  // namespace ecomm
}  // namespace apm
