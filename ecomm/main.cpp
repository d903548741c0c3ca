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
#include <memory>
#include <string>

#include "base/directory.h"
#include "base/famerror.h"
#include "base/rootpath.h"
#include "base/rpc/certificatemgr.h"
#include "base/sysfunctions.h"
#include "base/trace.h"
#include "ecomm/EcommRPCServer.h"
#include "ecomm/commandline.h"
#include "ecomm/daemonstate.h"
#include "ecomm/datacache.h"
#include "ecomm/ecomm.h"
#include "ecomm/ecommconfig.h"

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

// One TLS identity: the file named by configuration key `fileKey` is used if it
// holds a key and a certificate, otherwise a new self-signed pair is made there.
// Returns true if it was made now. The log line is written either way, with
// whatever fingerprint came back; a failure does not stop the daemon (the bind
// fails later or peers are refused).
struct CertificateLogLines {
  unsigned int usedEvent;
  const char* usedText;
  unsigned int createdEvent;
  const char* createdText;
};

bool EnsureCertificate(base::certificate::CertificateManager& manager, unsigned int fileKey,
                       const CertificateLogLines& lines, std::string& cn, std::string& fingerprint) {
  std::string path;
  ecomm::GetEcommConfig()->GetConfigValue(fileKey, path);
  if (manager.ValidateCertificate(path, cn, fingerprint)) {
    base::logargs(5, lines.usedEvent, 1, lines.usedText, fingerprint.c_str());
    return false;
  }
  cn = "kelvora.ecomm@" + base::System::GetFQHostName();
  manager.CreateSelfSignedCertificate(path, cn, fingerprint);
  base::logargs(5, lines.createdEvent, 1, lines.createdText, fingerprint.c_str());
  return true;
}

// The server identity for the listening port and the client identity for the
// connection back to the main server. A newly made client certificate is entered in
// the main server's trust list, and only then.
void EnsureCertificates() {
  base::certificate::CertificateManager manager;
  std::string cn;
  std::string fingerprint;
  EnsureCertificate(manager, ecomm::EcommConfig::kServerCertificateFile,
                    {107, "Server certificate used (fingerprint=%s)", 106,
                     "Server certificate created (fingerprint=%s)"},
                    cn, fingerprint);
  cn.clear();
  fingerprint.clear();
  if (EnsureCertificate(manager, ecomm::EcommConfig::kClientCertificateFile,
                        {109, "Client certificate used (fingerprint=%s)", 108,
                         "Client certificate created (fingerprint=%s)"},
                        cn, fingerprint)) {
    manager.WriteFingerprintForService("server", fingerprint, cn);
  }
}

// The port from -port, else configuration key 30. The host is asked for under
// key 31, which the configuration does not serve, so it stays empty: the listener
// takes every IPv4 interface whatever "ListenHost" says.
unsigned int ListenPort(std::string& host) {
  unsigned int port = ecomm::listenPort;
  if (port == 0) ecomm::GetEcommConfig()->GetConfigValue(ecomm::EcommConfig::kListenPort, port);
  ecomm::GetEcommConfig()->GetConfigValue(ecomm::EcommConfig::kStartupListenHost, host);
  return port;
}

// The daemon's running phase. The core object, the certificates and the RPC server
// start here before `running` is set, so that a stop signal during their start-up
// is ignored, and shut down after the wait, server first. Port 0 ("ListenPort 0")
// makes no server and goes straight to the stop.
void ServeUntilStopped() {
  ecomm::CEcomm* core = ecomm::GetEcomm();
  core->Init();
  EnsureCertificates();
  // Errors of the main thread land in this record for the rest of the run.
  base::FamError mainThreadErrors(false);
  std::string host;
  const unsigned int port = ListenPort(host);
  if (port != 0) {
    // Start returns only once bound; after its last failed attempt it ends the process.
    std::unique_ptr<ecomm::EcommRPCServer> server(
        new ecomm::EcommRPCServer(*core, *ecomm::GetDataCache()));
    server->Start(host, port);
    ecomm::running = 1;
    ecomm::WaitUntilStopped();
    server->Stop();
  }
  core->Shutdown();
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
