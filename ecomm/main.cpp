// kelvoraecommd: the external-communication daemon.
//
// main is the whole life of the process on its main thread: it reads the command
// line, detaches if asked, redirects its output, installs the signal handlers, writes
// the PID file, opens the log, moves into its data directory, runs the services and
// sleeps until SIGTERM or SIGINT, then shuts down. All other work happens on threads
// the services own.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/directory.h"
#include "base/rootpath.h"
#include "base/sysfunctions.h"
#include "base/trace.h"
#include "ecomm/commandline.h"
#include "ecomm/daemonstate.h"

namespace {

using namespace apm;

const char kConfigFile[] = "ecomm.conf";
const char kPidFile[] = "/var/run/kelvoraecommd.pid";

// All options are handled before anything else happens, so that --version and
// --help print on the terminal and exit even behind --daemonize.
void ApplyCommandLine(int argc, char** argv) {
  ecomm::CommandLineSettings current;
  current.maxThreads = ecomm::maxThreads;
  current.listenPort = ecomm::listenPort;
  current.daemonize = ecomm::daemonize;
  ecomm::CommandLineResult result = ecomm::ParseCommandLine(argc, argv, current);
  std::fputs(result.output.c_str(), stdout);
  std::fflush(stdout);
  if (result.exitNow) std::exit(0);
  ecomm::maxThreads = result.settings.maxThreads;
  ecomm::listenPort = result.settings.listenPort;
  ecomm::daemonize = result.settings.daemonize;
}

// Working directory "/", standard streams to the null device. Comes before the
// redirection, so that the redirected descriptors survive it.
void DetachIfAsked() {
  if (ecomm::daemonize && daemon(0, 0) != 0) std::exit(errno);
}

// "ProcessOutFile" takes stdout and stderr, with or without --daemonize. The first
// redirection is the same code as every later one on SIGHUP.
void RedirectProcessOutput() {
  std::string outFile;
  base::System::GetValueFromConfigFile(kConfigFile, "ProcessOutFile", outFile);
  if (outFile.empty()) return;
  ecomm::processOutFile = strdup(outFile.c_str());
  ecomm::sighuphandler(SIGHUP);
}

// Only a detached daemon writes its PID file; failures are silent, and the file is
// left behind at the stop.
void WritePidFile() {
  if (!ecomm::daemonize) return;
  const std::string path = base::RootedPath(kPidFile);
  unlink(path.c_str());
  if (FILE* file = std::fopen(path.c_str(), "w")) {
    std::fprintf(file, "%d\n", static_cast<int>(getpid()));
    std::fclose(file);
  }
}

void OpenLog() {
  std::string level;
  base::System::GetValueFromConfigFile(kConfigFile, "LogLevel", level);
  base::setMaximumLogLevel(base::getLoglevelAsInt(level));
  base::initiateLog("kelvoraecomm");
}

// Creates "/var/opt/kelvora/ecomm/" if needed; a failed chdir is of no consequence,
// as the daemon uses no relative paths.
void EnterDataDirectory() {
  std::string dataPath = base::_Directory<base::_apm_traits_os>::GetAppDataPath("ecomm", true);
  (void)!chdir(dataPath.c_str());
}

// The daemon's running phase. The core object, the certificates and the RPC server
// start here before `running` is set, so that a stop signal during their start-up
// is ignored, and shut down after the wait, server first.
void ServeUntilStopped() {
  ecomm::running = 1;
  ecomm::WaitUntilStopped();
}

}  // namespace

int main(int argc, char** argv) {
  ApplyCommandLine(argc, argv);
  DetachIfAsked();
  RedirectProcessOutput();
  ecomm::InstallSignalHandlers();
  WritePidFile();
  OpenLog();
  EnterDataDirectory();
  ServeUntilStopped();
  base::closeLog();
  return 0;
}
