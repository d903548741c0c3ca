#include "ecomm/daemonstate.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace apm {
namespace ecomm {

unsigned int maxThreads = 100;
bool daemonize = false;
unsigned int listenPort = 0;
char* processOutFile = nullptr;
std::atomic<int> running(0);
static_assert(std::atomic<int>::is_always_lock_free, "the stop flag is used in a signal handler");
base::_Semaphore<base::_apm_traits_os> stopSemaphore(0);

void sighandler(int signal) {
  if (running == 0) return;
  if (signal != SIGINT && signal != SIGTERM) return;
  const int saved_errno = errno;
  running = 0;
  stopSemaphore.Post();
  errno = saved_errno;
}

void sigpipehandler(int /*signal*/) {}

void sighuphandler(int /*signal*/) {
  if (processOutFile == nullptr) return;
  const int saved_errno = errno;
  std::fflush(stdout);
  std::fflush(stderr);
  int fd = open(processOutFile, O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd >= 0) {
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
  errno = saved_errno;
}

void InstallSignalHandlers() {
  std::signal(SIGTERM, sighandler);
  std::signal(SIGINT, sighandler);
  std::signal(SIGPIPE, sigpipehandler);
  struct sigaction action = {};
  action.sa_handler = sighuphandler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  if (sigaction(SIGHUP, &action, nullptr) != 0) {
    std::printf("could not set up SIGHUP handler, logrotate won't work. (error %d)\n", errno);
  }
}

void WaitUntilStopped() {
  while (running) stopSemaphore.Wait();
}

}  // namespace ecomm
}  // namespace apm
