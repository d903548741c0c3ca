#include "tests/support/runningdaemon.h"

#include <signal.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>

#include "tests/support/tcpport.h"

namespace apm {
namespace test {

const char RunningDaemon::kConfigFile[] = "/etc/kelvora/ecomm.conf";
const char RunningDaemon::kServerCertificate[] = "/etc/kelvora/ecomm/srv_certificate.pem";
const char RunningDaemon::kClientCertificate[] = "/etc/kelvora/ecomm/cli_certificate.pem";
const char RunningDaemon::kTrustFile[] = "/etc/kelvora/ecomm/trusted_certificates.cfg";
const char RunningDaemon::kServerServiceTrustFile[] = "/etc/kelvora/server/trusted_certificates.cfg";
const char RunningDaemon::kTemporaryFolder[] = "/tmp/kelvora-ecomm";

RunningDaemon::RunningDaemon() : port(FreeTcpPort()) {
  WriteConfiguration("LogLevel LOG_DEBUG\nListenPort " + std::to_string(port) + "\n");
}

void RunningDaemon::WriteConfiguration(const std::string& text) const { root.WriteFile(kConfigFile, text); }

void RunningDaemon::InstallTestIdentities() const {
  const std::pair<const char*, const char*> identities[] = {{"daemonserver", kServerCertificate},
                                                            {"daemonclient", kClientCertificate}};
  for (const auto& identity : identities) {
    const boost::filesystem::path target(root.Path(identity.second));
    boost::filesystem::create_directories(target.parent_path());
    boost::filesystem::copy_file(GetTestIdentity(identity.first).certificate_file, target,
                                 boost::filesystem::copy_options::overwrite_existing);
    chmod(target.c_str(), 0600);
  }
}

bool RunningDaemon::Start(const std::vector<std::string>& arguments) {
  process.AddEnvironment(log.ChildEnvironment());
  return process.Start(arguments);
}

bool RunningDaemon::WaitUntilListening(std::chrono::milliseconds timeout) { return WaitUntilListening(port, timeout); }

bool RunningDaemon::WaitUntilListening(unsigned short listenPort, std::chrono::milliseconds timeout) {
  return DaemonProcess::WaitFor([&] { return !process.IsRunning() || IsTcpPortListening(listenPort); }, timeout) &&
         process.IsRunning();
}

bool RunningDaemon::StartServing(const std::vector<std::string>& arguments) {
  return Start(arguments) && WaitUntilListening();
}

int RunningDaemon::Stop() {
  if (!process.SignalUntilExit(SIGTERM, std::chrono::seconds(20))) return -1;
  return process.Exited() ? process.ExitStatus() : -1;
}

std::string RunningDaemon::LoggedFingerprint(const std::string& prefix) const {
  for (const std::string& message : log.Messages()) {
    if (message.compare(0, prefix.size(), prefix) == 0 && message.size() > prefix.size() && message.back() == ')') {
      return message.substr(prefix.size(), message.size() - prefix.size() - 1);
    }
  }
  return std::string();
}

}  // namespace test
}  // namespace apm
