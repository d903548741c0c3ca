// The daemon binary's start and stop, end to end in a private root: the two TLS
// identities it makes or reuses and their log lines, the main server's trust entry,
// the listening port from the command line or the configuration, a port that cannot
// be bound, and the stop signals before and after the start-up.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>

#include <chrono>
#include <string>
#include <vector>

#include "base/rpc/certificatemgr.h"
#include "base/sysfunctions.h"
#include "tests/support/daemonpeer.h"
#include "tests/support/fakebytestream.h"
#include "tests/support/runningdaemon.h"
#include "tests/support/tcpport.h"

namespace apm {
namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
typedef std::chrono::steady_clock Clock;

const char kServerCreated[] = "Server certificate created (fingerprint=";
const char kServerUsed[] = "Server certificate used (fingerprint=";
const char kClientCreated[] = "Client certificate created (fingerprint=";
const char kClientUsed[] = "Client certificate used (fingerprint=";
const char kCannotBind[] = "cannot bind to server port, terminating process";

// What a certificate file holds, read with the daemon's own code.
struct CertificateFile {
  bool valid = false;
  std::string cn;
  std::string fingerprint;
  unsigned int mode = 0;
};

CertificateFile ReadCertificateFile(const std::string& path) {
  CertificateFile file;
  base::certificate::CertificateManager manager;
  file.valid = manager.ValidateCertificate(path, file.cn, file.fingerprint);
  struct stat status;
  if (stat(path.c_str(), &status) == 0) file.mode = status.st_mode & 07777;
  return file;
}

// The level of the first captured message of the daemon that starts with `prefix`,
// or -1.
int LevelOf(const RunningDaemon& daemon, const std::string& prefix) {
  for (const SyslogEntry& entry : daemon.log.Entries()) {
    if (entry.call == "syslog" && entry.text.compare(0, prefix.size(), prefix) == 0) return entry.level();
  }
  return -1;
}

// True if a call of RPC 3600 on `port` reaches the handler and its error comes back.
::testing::AssertionResult ServesJsonRequests(unsigned short port) {
  DaemonPeer peer(port);
  PeerReply reply = peer.Call("3600", JsonRequestRecord());
  if (!reply.headersReceived) {
    return ::testing::AssertionFailure() << "no reply on port " << port << ", status " << reply.resetStatus;
  }
  if (reply.ErrorText() != "not implemented") {
    return ::testing::AssertionFailure() << "reply \"" << reply.ErrorText() << "\" on port " << port;
  }
  return ::testing::AssertionSuccess();
}

// Runs the daemon until its port is bound, then stops it; the stop must end with 0.
void RunOnce(RunningDaemon& daemon) {
  ASSERT_TRUE(daemon.StartServing()) << daemon.process.Stdout() << daemon.process.Stderr();
  ASSERT_EQ(daemon.Stop(), 0);
}

TEST(DaemonStartupTest, FirstStartCreatesBothCertificatesWithMode0600AndLogsTheirFingerprints) {
  RunningDaemon daemon;
  RunOnce(daemon);

  const CertificateFile server = ReadCertificateFile(daemon.root.Path(RunningDaemon::kServerCertificate));
  const CertificateFile client = ReadCertificateFile(daemon.root.Path(RunningDaemon::kClientCertificate));
  ASSERT_TRUE(server.valid);
  ASSERT_TRUE(client.valid);
  EXPECT_EQ(server.mode, 0600u);
  EXPECT_EQ(client.mode, 0600u);
  const std::string cn = "kelvora.ecomm@" + base::System::GetFQHostName();
  EXPECT_EQ(server.cn, cn);
  EXPECT_EQ(client.cn, cn);
  EXPECT_EQ(server.fingerprint.size(), 95u);
  EXPECT_NE(server.fingerprint, client.fingerprint);

  EXPECT_EQ(daemon.LoggedFingerprint(kServerCreated), server.fingerprint);
  EXPECT_EQ(daemon.LoggedFingerprint(kClientCreated), client.fingerprint);
  EXPECT_EQ(LevelOf(daemon, kServerCreated), LOG_NOTICE);
  EXPECT_EQ(LevelOf(daemon, kClientCreated), LOG_NOTICE);
  EXPECT_EQ(daemon.LoggedFingerprint(kServerUsed), "");
  EXPECT_EQ(daemon.LoggedFingerprint(kClientUsed), "");
  // The main server learns the new client certificate.
  EXPECT_EQ(daemon.root.ReadFile(RunningDaemon::kServerServiceTrustFile),
            "\n" + client.fingerprint + " " + client.cn + "\n");
}

TEST(DaemonStartupTest, SecondStartUsesBothCertificatesWithTheSameFingerprints) {
  RunningDaemon daemon;
  RunOnce(daemon);
  const std::string server = daemon.LoggedFingerprint(kServerCreated);
  const std::string client = daemon.LoggedFingerprint(kClientCreated);
  ASSERT_EQ(server.size(), 95u);
  ASSERT_EQ(client.size(), 95u);

  daemon.log.Clear();
  RunOnce(daemon);
  EXPECT_EQ(daemon.LoggedFingerprint(kServerUsed), server);
  EXPECT_EQ(daemon.LoggedFingerprint(kClientUsed), client);
  EXPECT_EQ(LevelOf(daemon, kServerUsed), LOG_NOTICE);
  EXPECT_EQ(LevelOf(daemon, kClientUsed), LOG_NOTICE);
  EXPECT_EQ(daemon.LoggedFingerprint(kServerCreated), "");
  EXPECT_EQ(daemon.LoggedFingerprint(kClientCreated), "");
}

TEST(DaemonStartupTest, ClientFingerprintIsAppendedToTheServerTrustFileOnlyInTheRunThatCreatedIt) {
  RunningDaemon daemon;
  RunOnce(daemon);
  const CertificateFile first = ReadCertificateFile(daemon.root.Path(RunningDaemon::kClientCertificate));
  const std::string afterFirstRun = "\n" + first.fingerprint + " " + first.cn + "\n";
  EXPECT_EQ(daemon.root.ReadFile(RunningDaemon::kServerServiceTrustFile), afterFirstRun);

  RunOnce(daemon);
  EXPECT_EQ(daemon.root.ReadFile(RunningDaemon::kServerServiceTrustFile), afterFirstRun);

  // A client certificate made anew is added; the old entry stays.
  ASSERT_EQ(0, unlink(daemon.root.Path(RunningDaemon::kClientCertificate).c_str()));
  RunOnce(daemon);
  const CertificateFile second = ReadCertificateFile(daemon.root.Path(RunningDaemon::kClientCertificate));
  ASSERT_NE(second.fingerprint, first.fingerprint);
  EXPECT_EQ(daemon.root.ReadFile(RunningDaemon::kServerServiceTrustFile),
            afterFirstRun + "\n" + second.fingerprint + " " + second.cn + "\n");
}

TEST(DaemonStartupTest, CertificateFileWithKeyButNoCertificateIsReplaced) {
  RunningDaemon daemon;
  daemon.InstallTestIdentities();
  // Keep only the key of the server identity, readable by all.
  const std::string path = daemon.root.Path(RunningDaemon::kServerCertificate);
  const std::string whole = daemon.root.ReadFile(RunningDaemon::kServerCertificate);
  const std::string keyOnly = whole.substr(0, whole.find("-----BEGIN CERTIFICATE-----"));
  ASSERT_NE(keyOnly, whole);
  ASSERT_NE(keyOnly.find("PRIVATE KEY-----"), std::string::npos);
  daemon.root.WriteFile(RunningDaemon::kServerCertificate, keyOnly);
  ASSERT_EQ(0, chmod(path.c_str(), 0644));
  ASSERT_FALSE(ReadCertificateFile(path).valid);

  RunOnce(daemon);
  const CertificateFile replaced = ReadCertificateFile(path);
  ASSERT_TRUE(replaced.valid);
  EXPECT_EQ(replaced.mode, 0600u);
  EXPECT_EQ(daemon.LoggedFingerprint(kServerCreated), replaced.fingerprint);
  const std::string content = daemon.root.ReadFile(RunningDaemon::kServerCertificate);
  EXPECT_EQ(content.find(keyOnly), std::string::npos) << "a new key replaces the old one";
  // The client identity was whole and is used as it is.
  EXPECT_EQ(daemon.LoggedFingerprint(kClientUsed), GetTestIdentity("daemonclient").fingerprint);
}

TEST(DaemonStartupTest, ListenPortZeroMakesNoServerAndEndsWithStatusZeroAtOnce) {
  RunningDaemon daemon;
  daemon.InstallTestIdentities();
  daemon.WriteConfiguration("LogLevel LOG_DEBUG\nListenPort 0\n");
  const Clock::time_point start = Clock::now();
  ASSERT_TRUE(daemon.Start());
  // No signal is sent: the daemon stops by itself once the certificates are done.
  ASSERT_TRUE(daemon.process.WaitForExit(seconds(10)));
  EXPECT_LT(Clock::now() - start, seconds(5));
  EXPECT_TRUE(daemon.process.Exited());
  EXPECT_EQ(daemon.process.ExitStatus(), 0);
  EXPECT_EQ(daemon.process.Stdout(), "");
  EXPECT_EQ(daemon.LoggedFingerprint(kServerUsed), GetTestIdentity("daemonserver").fingerprint);
  EXPECT_EQ(daemon.LoggedFingerprint(kClientUsed), GetTestIdentity("daemonclient").fingerprint);
  EXPECT_FALSE(daemon.log.Contains(kCannotBind));
  // The orderly stop ran to its end.
  bool closed = false;
  for (const SyslogEntry& entry : daemon.log.Entries()) closed = closed || entry.call == "closelog";
  EXPECT_TRUE(closed);
}

TEST(DaemonStartupTest, PortHeldByAnotherProcessEndsTheDaemonWithStatus1AfterAboutFiveSeconds) {
  RunningDaemon daemon;
  daemon.InstallTestIdentities();
  HeldTcpPort held;
  daemon.WriteConfiguration("LogLevel LOG_DEBUG\nListenPort " + std::to_string(held.port()) + "\n");
  const Clock::time_point start = Clock::now();
  ASSERT_TRUE(daemon.Start());
  ASSERT_TRUE(daemon.process.WaitForExit(seconds(30)));
  const Clock::duration elapsed = Clock::now() - start;
  EXPECT_TRUE(daemon.process.Exited());
  EXPECT_EQ(daemon.process.ExitStatus(), 1);
  EXPECT_GE(elapsed, milliseconds(4900)) << "51 attempts with 50 pauses of 100 ms";
  EXPECT_LT(elapsed, seconds(15));
  EXPECT_EQ(daemon.process.Stdout(), std::string(kCannotBind) + "\n");
  EXPECT_EQ(daemon.log.Messages(LOG_CRIT), std::vector<std::string>{kCannotBind});
}

TEST(DaemonStartupTest, SigtermDuringTheBindRetriesHasNoEffect) {
  RunningDaemon daemon;
  daemon.InstallTestIdentities();
  HeldTcpPort held;
  daemon.WriteConfiguration("LogLevel LOG_DEBUG\nListenPort " + std::to_string(held.port()) + "\n");
  ASSERT_TRUE(daemon.Start());
  // The client certificate line comes right before the bind; the handlers are in
  // place since before the log was opened.
  ASSERT_TRUE(daemon.log.WaitForMessage(kClientUsed, seconds(10)));
  // Each signal cuts the pause it falls into short (the sleep between two attempts
  // ends early when a handler runs), but no signal ends the retries: all attempts
  // are made, and the end is that of a failed bind.
  ASSERT_TRUE(daemon.process.SignalUntilExit(SIGTERM, seconds(30), milliseconds(50)));
  EXPECT_TRUE(daemon.process.Exited());
  EXPECT_EQ(daemon.process.ExitStatus(), 1);
  EXPECT_EQ(daemon.process.Stdout(), std::string(kCannotBind) + "\n");
  EXPECT_TRUE(daemon.log.Contains(kCannotBind));
}

TEST(DaemonStartupTest, SigtermAfterStartUpEndsWithStatusZero) {
  RunningDaemon daemon;
  daemon.InstallTestIdentities();
  TrustAtDaemon(MainServerIdentity());
  ASSERT_TRUE(daemon.StartServing());
  EXPECT_TRUE(ServesJsonRequests(daemon.port));
  EXPECT_EQ(daemon.Stop(), 0);
  EXPECT_EQ(daemon.process.Stdout(), "");
  EXPECT_FALSE(IsTcpPortListening(daemon.port));
}

TEST(DaemonStartupTest, PortAbove65535PrintsPortZeroAndTheConfiguredPortIsServed) {
  RunningDaemon daemon;
  daemon.InstallTestIdentities();
  TrustAtDaemon(MainServerIdentity());
  ASSERT_TRUE(daemon.StartServing({"-port", "70000"}));
  EXPECT_EQ(daemon.process.Stdout(), "port: 0\n");
  EXPECT_TRUE(ServesJsonRequests(daemon.port));
  EXPECT_EQ(daemon.Stop(), 0);
}

TEST(DaemonStartupTest, PortOptionTakesPrecedenceOverTheConfiguredPort) {
  RunningDaemon daemon;
  daemon.InstallTestIdentities();
  TrustAtDaemon(MainServerIdentity());
  const unsigned short optionPort = FreeTcpPort();
  ASSERT_NE(optionPort, daemon.port);
  ASSERT_TRUE(daemon.Start({"-port", std::to_string(optionPort)}));
  ASSERT_TRUE(daemon.WaitUntilListening(optionPort, seconds(20)));
  EXPECT_EQ(daemon.process.Stdout(), "port: " + std::to_string(optionPort) + "\n");
  EXPECT_TRUE(ServesJsonRequests(optionPort));
  EXPECT_FALSE(IsTcpPortListening(daemon.port));
  EXPECT_EQ(daemon.Stop(), 0);
}

}  // namespace
}  // namespace test
}  // namespace apm
