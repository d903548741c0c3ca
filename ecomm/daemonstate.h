// The daemon process's global state and the signal handlers that act on it.
//
// The settings (maxThreads, daemonize, listenPort, processOutFile) are plain globals
// written by main before any other thread exists and only read afterwards; the
// CEcomm constructor reads maxThreads. `running` and `stopSemaphore` are shared
// between main and the signal handlers: main sets `running` once the server is up and
// sleeps on the semaphore; a stop signal clears the flag and posts. The handlers take
// no locks.
#pragma once

#include <atomic>
#include <csignal>

#include "base/famerror.h"
#include "base/semaphore.h"

namespace apm {
namespace ecomm {

// Upper bound of the worker pool (10 to 1000, initially 100).
extern unsigned int maxThreads;
// Detach from the terminal (--daemonize).
extern bool daemonize;
// Port from -port; 0 means "take it from the configuration".
extern unsigned int listenPort;
// Where stdout and stderr go ("ProcessOutFile"); null to leave them. Never freed.
extern char* processOutFile;
// 1 once the server is running; only then do SIGTERM and SIGINT stop the daemon.
// Atomic (and lock-free, so safe in a handler): the kernel may deliver the signal
// on any of the daemon's threads, not only on main's.
extern std::atomic<int> running;
// Posted by the stop signal; main sleeps on it.
extern base::_Semaphore<base::_apm_traits_os> stopSemaphore;

// SIGTERM, SIGINT: ignored until `running` is set; then clears `running` and posts
// `stopSemaphore`. Any other signal number is ignored.
void sighandler(int signal);
// SIGPIPE: does nothing, so that writing to a closed socket does not end the process.
void sigpipehandler(int signal);
// The handlers keep errno as they found it, for the code they interrupted.
// SIGHUP, the log-rotation hook, also used for the first redirection: with
// `processOutFile` set, flushes stdout and stderr, opens the file for appending
// (O_CREAT, mode 0644) and puts it on descriptors 1 and 2. If it cannot be opened
// the old targets stay.
void sighuphandler(int signal);

// Installs the handlers: SIGTERM, SIGINT and SIGPIPE with signal(), then SIGHUP with
// sigaction (empty mask, SA_RESTART). A failed sigaction is printed, and the daemon
// goes on without log rotation.
void InstallSignalHandlers();

// Sleeps on `stopSemaphore` while `running` is set; an interrupted wait re-tests it.
void WaitUntilStopped();

}  // namespace ecomm
}  // namespace apm
