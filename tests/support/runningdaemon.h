// RunningDaemon: the real daemon binary, run as a child of the test in a private
// root of its own, with its system log captured, for end-to-end tests.
//
// The object makes a PrivateRoot and a SyslogCapture, picks a free port and writes
// "/etc/kelvora/ecomm.conf" with "LogLevel LOG_DEBUG" (so that level-5 lines such as
// "Server certificate created (fingerprint=...)" reach the log) and "ListenPort"
// with that port. Start spawns the daemon with the capture's environment;
// WaitUntilListening waits until the port is bound.
//
//   test::RunningDaemon daemon;
//   daemon.InstallTestIdentities();     // skip making RSA keys
//   ASSERT_TRUE(daemon.StartServing());
//   ... calls on daemon.port ...
//   EXPECT_EQ(daemon.Stop(), 0);
//
// Make it before any thread starts (the root and the capture change the process's
// environment); one test thread uses it. The destructor kills a daemon that is still
// running and removes the root.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/daemonprocess.h"
#include "tests/support/privateroot.h"
#include "tests/support/syslogcapture.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace test {

class RunningDaemon {
 public:
  // The daemon's own files, as daemon paths.
  static const char kConfigFile[];             // "/etc/kelvora/ecomm.conf"
  static const char kServerCertificate[];      // "/etc/kelvora/ecomm/srv_certificate.pem"
  static const char kClientCertificate[];      // "/etc/kelvora/ecomm/cli_certificate.pem"
  static const char kTrustFile[];              // "/etc/kelvora/ecomm/trusted_certificates.cfg"
  static const char kServerServiceTrustFile[]; // "/etc/kelvora/server/trusted_certificates.cfg"
  static const char kTemporaryFolder[];        // "/tmp/kelvora-ecomm"

  RunningDaemon();

  // Replaces "ecomm.conf" with `text`.
  void WriteConfiguration(const std::string& text) const;
  // Puts copies of the test identities "daemonserver" and "daemonclient" where the
  // daemon looks for its certificates, so that it uses them instead of making keys.
  void InstallTestIdentities() const;

  // Spawns the daemon with `arguments`; false if that failed.
  bool Start(const std::vector<std::string>& arguments = {});
  // Waits until `listenPort` (default: `port`) is bound; false if the daemon ended or
  // the time ran out.
  bool WaitUntilListening(std::chrono::milliseconds timeout = std::chrono::seconds(20));
  bool WaitUntilListening(unsigned short listenPort, std::chrono::milliseconds timeout);
  // Start and WaitUntilListening.
  bool StartServing(const std::vector<std::string>& arguments = {});
  // Sends SIGTERM until the daemon ends (it ignores stop signals until its start-up is
  // complete) and returns its exit status; -1 if it did not exit within 20 s or was
  // ended by a signal.
  int Stop();

  // The fingerprint in the first captured message that starts with `prefix` and
  // ends with ")", e.g. prefix "Server certificate created (fingerprint="; empty if
  // there is none.
  std::string LoggedFingerprint(const std::string& prefix) const;

  PrivateRoot root;
  SyslogCapture log;
  DaemonProcess process;
  unsigned short port;
};

}  // namespace test
}  // namespace apm
