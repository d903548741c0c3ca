// The RPC server object: its handler table served two-sided over real TLS on
// 127.0.0.1, the settings it takes from the configuration, the bind retries, and the
// end of the process when the port stays taken (in a forked child).
#include "ecomm/EcommRPCServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/famerror.h"
#include "base/rpc/rpcstreamconnection.h"
#include "base/rpc/streamserializer.h"
#include "ecomm/datacache.h"
#include "ecomm/ecomm.h"
#include "tests/fixtures/sdkstandin.h"
#include "tests/support/fakebytestream.h"
#include "tests/support/privateroot.h"
#include "tests/support/rpctestenvironment.h"
#include "tests/support/syslogcapture.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace ecomm {
namespace {

using test::Bytes;

typedef boost::shared_ptr<base::CLogicalConnectionStream> StreamPtr;
typedef std::chrono::steady_clock Clock;

const char kCannotBind[] = "cannot bind to server port, terminating process";

// A TCP socket listening on an ephemeral port of all IPv4 interfaces, or (after
// Close) a port that was free a moment ago.
class PortHolder {
 public:
  PortHolder() {
    descriptor_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    socklen_t length = sizeof(address);
    if (descriptor_ < 0 || bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(descriptor_, 1) != 0 ||
        getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      std::abort();
    }
    port_ = ntohs(address.sin_port);
  }
  ~PortHolder() { Close(); }
  PortHolder(const PortHolder&) = delete;
  PortHolder& operator=(const PortHolder&) = delete;

  void Close() {
    if (descriptor_ >= 0) close(descriptor_);
    descriptor_ = -1;
  }
  unsigned short port() const { return port_; }

 private:
  int descriptor_ = -1;
  unsigned short port_ = 0;
};

unsigned short FreePort() {
  PortHolder holder;
  return holder.port();
}

// The daemon's configuration in the private root: the server identity of the tests,
// and a trust file of its own that lists the client identity.
void WriteServerConfiguration(const test::PrivateRoot& root) {
  const std::string trustFile = root.Path("/etc/kelvora/test_trusted.cfg");
  test::WriteTextFile(trustFile, test::TrustFileText({&test::GetTestIdentity("client")}));
  root.WriteFile("/etc/kelvora/ecomm.conf",
                 "ServerCertificateFile " + test::GetTestIdentity("server").certificate_file +
                     "\nServerTrustedCertificatesFile " + trustFile + "\n");
}

// What the client side of one call got.
struct Reply {
  bool headersReceived = false;
  base::RPCConnectionHeaders headers;
  int errorCode = 0;  // of a failed ReadResponseHeaders
  bool endedCleanly = false;
};

// One call with header 2 = `number` ("-" leaves it out), `body` as the record and,
// with `file`, a file segment behind it.
Reply Call(const boost::shared_ptr<base::IPhysicalConnection>& connection, const std::string& number,
           const Bytes& body, const Bytes* file = nullptr) {
  Reply reply;
  base::FamError record;
  StreamPtr stream = base::CLogicalConnectionStream::create(connection);
  EXPECT_TRUE(stream) << record.message;
  if (!stream) return reply;
  base::RPCConnectionHeaders headers;
  headers[base::RPC_HEADER_CLASS] = "1";
  if (number != "-") headers[base::RPC_HEADER_FUNCTION] = number;
  stream->SendRequestHeaders(headers);
  if (!body.empty()) {
    EXPECT_TRUE(stream->Write(body.data(), static_cast<unsigned int>(body.size())));
  }
  if (file != nullptr) {
    stream->Flush();
    if (!file->empty()) {
      EXPECT_TRUE(stream->Write(file->data(), static_cast<unsigned int>(file->size())));
    }
  }
  stream->EndStream();
  reply.headersReceived = stream->ReadResponseHeaders(reply.headers);
  if (!reply.headersReceived) {
    reply.errorCode = record.code;
    return reply;
  }
  uint8_t byte;
  if (!stream->Read(&byte, 1)) {
    stream->NextSegment();
    record.code = -1;
    reply.endedCleanly = !stream->Read(&byte, 1) && record.code == 0;
  }
  return reply;
}

void ExpectNotImplemented(const Reply& reply, const std::string& what) {
  ASSERT_TRUE(reply.headersReceived) << what << ": reset with " << reply.errorCode;
  EXPECT_EQ("2147500037", reply.headers.at(base::RPC_HEADER_ERROR_CODE)) << what;
  EXPECT_EQ("not implemented", reply.headers.at(base::RPC_HEADER_ERROR_TEXT)) << what;
  EXPECT_TRUE(reply.endedCleanly) << what;
}

Bytes JsonRequestBody() {
  protocol::RPCCloudJsonRequest request;
  request.target = 1;
  request.user = "ann";
  request.method = "GET";
  return test::EncodeRecord(request);
}

class EcommRPCServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteServerConfiguration(root);
    ASSERT_TRUE(ecomm.Start(3));
    server.reset(new EcommRPCServer(ecomm, *GetDataCache()));
    port = FreePort();
    server->Start("", port);
    connection = environment.Connect(environment.ClientParameters(port));
  }

  void TearDown() override {
    connection.reset();
    for (auto& client : environment.clients) client->close(true);
    if (!stopped) server->Stop();
    ecomm.Shutdown();
    server.reset();
    environment.Shutdown();
  }

  std::string TemporaryFolder() const { return root.Path("/tmp/kelvora-ecomm"); }

  test::PrivateRoot root;
  test::RpcTestEnvironment environment;
  CEcomm ecomm{100};
  std::unique_ptr<EcommRPCServer> server;
  unsigned short port = 0;
  bool stopped = false;
  boost::shared_ptr<base::IPhysicalConnection> connection;
};

TEST_F(EcommRPCServerTest, EachServedNumberReachesItsFunction) {
  ExpectNotImplemented(Call(connection, "3600", JsonRequestBody()), "3600");

  protocol::RPCCloudHttpRequest httpRequest;
  httpRequest.method = "PUT";
  const Bytes file(20000, 'f');
  ExpectNotImplemented(Call(connection, "3601", test::EncodeRecord(httpRequest), &file), "3601");

  protocol::AuthToken token;
  token.user = "ann";
  token.accessToken = "code";
  ExpectNotImplemented(Call(connection, "3602", test::EncodeRecord(token)), "3602");

  protocol::InfrastructureTestServiceDeskRequest deskRequest;
  deskRequest.serviceDesk->type = "norvanta_servicedesk";
  deskRequest.serviceDesk->properties["oauth_target"] = "5";
  ExpectNotImplemented(Call(connection, "3603", test::EncodeRecord(deskRequest)), "3603");

  protocol::SWTServiceDeskSendFileRequest sendRequest;
  sendRequest.id = 4;
  sendRequest.user = "ann";
  ExpectNotImplemented(Call(connection, "3604", test::EncodeRecord(sendRequest), &file), "3604");
}

TEST_F(EcommRPCServerTest, Number69136IsCutTo16BitsAndReachesTheJsonRequest) {
  ExpectNotImplemented(Call(connection, "69136", JsonRequestBody()), "69136");
}

TEST_F(EcommRPCServerTest, Numbers3605AbcAndAMissingNumberCreateNoHandler) {
  for (const char* number : {"3605", "abc", "-"}) {
    Reply reply = Call(connection, number, JsonRequestBody());
    EXPECT_FALSE(reply.headersReceived) << number;
    EXPECT_EQ(3, reply.errorCode) << number;
  }
}

TEST_F(EcommRPCServerTest, RequestRecordCutShortIsResetWithStatus5) {
  protocol::AuthToken token;
  token.user = "ann";
  Bytes body = test::EncodeRecord(token);
  body.resize(body.size() - 3);
  Reply reply = Call(connection, "3602", body);
  EXPECT_FALSE(reply.headersReceived);
  EXPECT_EQ(5, reply.errorCode);
}

TEST_F(EcommRPCServerTest, AttachedFilesAreRemovedAfterTheCall) {
  const Bytes file(30000, 'z');
  protocol::SWTServiceDeskSendFileRequest sendRequest;
  ExpectNotImplemented(Call(connection, "3604", test::EncodeRecord(sendRequest), &file), "3604");
  ExpectNotImplemented(Call(connection, "3601", test::EncodeRecord(protocol::RPCCloudHttpRequest()), &file), "3601");
  ASSERT_TRUE(boost::filesystem::is_directory(TemporaryFolder()));
  EXPECT_TRUE(boost::filesystem::is_empty(TemporaryFolder()));
}

TEST_F(EcommRPCServerTest, ClientMissingFromTheConfiguredTrustFileIsRefused) {
  base::RPCConnectionParameters parameters = environment.ClientParameters(port);
  parameters.certificate_file = test::GetTestIdentity("rogue").certificate_file;
  boost::shared_ptr<base::IPhysicalConnection> rogue = environment.Connect(parameters);
  base::FamError record;
  EXPECT_FALSE(base::CLogicalConnectionStream::create(rogue));
  ExpectNotImplemented(Call(connection, "3600", JsonRequestBody()), "trusted client");
}

TEST_F(EcommRPCServerTest, StopClosesTheListener) {
  ExpectNotImplemented(Call(connection, "3600", JsonRequestBody()), "before Stop");
  connection->close(true);
  server->Stop();
  stopped = true;
  boost::shared_ptr<base::IPhysicalConnection> late = environment.Connect(environment.ClientParameters(port));
  base::FamError record;
  EXPECT_FALSE(base::CLogicalConnectionStream::create(late));
}

TEST(EcommRPCServerModuleTest, NetworkServerModuleIsMadeOnceForAllServers) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    CEcomm ecomm(100);
    for (int i = 0; i < 2; ++i) {
      EcommRPCServer server(ecomm, *GetDataCache());
      EXPECT_NE(nullptr, server.GetModule());
    }
    int registrations = 0;
    for (const test::SdkCall& call : test::RecordedSdkCalls("APMRegisterModule")) {
      if (call.arguments.at(0) == "Network Server") ++registrations;
    }
    EXPECT_EQ(1, registrations);
  });
}

// ---------------------------------------------------------------------------
// Binding

// An acceptor whose bind fails until the attempt numbered `succeedAt`.
class ScriptedServerConnection : public base::IServerConnection {
 public:
  explicit ScriptedServerConnection(int succeedAtAttempt) : succeedAt(succeedAtAttempt) {}
  bool bind(const base::RPCConnectionParameters& /*parameters*/) override { return ++attempts >= succeedAt; }
  void close(bool /*force*/) override {}
  void unregister(unsigned int /*key*/) override {}

  int succeedAt;
  int attempts = 0;
};

TEST(BindWithRetriesTest, TheDaemonTries51TimesWith100MillisecondPauses) {
  EXPECT_EQ(51u, EcommRPCServer::kBindAttempts);
  EXPECT_EQ(100000u, EcommRPCServer::kBindPauseMicroseconds);
}

TEST(BindWithRetriesTest, BindThatSucceedsOnThe51stAttemptProceeds) {
  ScriptedServerConnection server(51);
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(BindWithRetries(server, base::RPCConnectionParameters(), EcommRPCServer::kBindAttempts, 1000));
  EXPECT_EQ(51, server.attempts);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50)) << "50 pauses of 1 ms";
}

TEST(BindWithRetriesTest, GivesUpAfterThe51stFailure) {
  ScriptedServerConnection server(52);
  EXPECT_FALSE(BindWithRetries(server, base::RPCConnectionParameters(), EcommRPCServer::kBindAttempts, 100));
  EXPECT_EQ(51, server.attempts);
}

TEST(BindWithRetriesTest, FirstSuccessReturnsWithoutAPause) {
  ScriptedServerConnection server(1);
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(BindWithRetries(server, base::RPCConnectionParameters(), EcommRPCServer::kBindAttempts, 10000000));
  EXPECT_EQ(1, server.attempts);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
}

TEST(ServerConnectionParametersTest, ListenerTakesVersionTimersAndTheConfiguredIdentityTrustAndCiphers) {
  test::PrivateRoot root;
  root.WriteFile("/etc/kelvora/ecomm.conf",
                 "ServerCertificateFile /id/srv.pem\nServerTrustedCertificatesFile /id/trust.cfg\n"
                 "ServerCertificateCiphers AES256-SHA\nClientCertificateFile /id/cli.pem\n"
                 "ClientCertificateCiphers RC4\n");
  const base::RPCConnectionParameters parameters = ServerConnectionParameters("", 10003);
  EXPECT_EQ("", parameters.host);
  EXPECT_EQ(10003u, parameters.port);
  EXPECT_EQ(0u, parameters.connection_id);
  EXPECT_EQ(0xf00020000580eull, parameters.min_version);
  EXPECT_EQ(10u, parameters.connect_timeout);
  EXPECT_EQ(30u, parameters.ping_interval);
  EXPECT_EQ("/id/srv.pem", parameters.certificate_file);
  EXPECT_EQ("/id/trust.cfg", parameters.trusted_certificates_file);
  EXPECT_EQ("AES256-SHA", parameters.cipher_list);
  EXPECT_FALSE(parameters.trust_first_certificate);
  EXPECT_EQ(1000u, parameters.timer_unit_milliseconds);
}

TEST(ServerConnectionParametersTest, HostIsPassedOnAsGiven) {
  test::PrivateRoot root;
  EXPECT_EQ("example", ServerConnectionParameters("example", 1).host);
}

// Reads `descriptor` to its end.
std::string ReadAll(int descriptor) {
  std::string text;
  char buffer[256];
  ssize_t count;
  while ((count = read(descriptor, buffer, sizeof(buffer))) > 0) text.append(buffer, static_cast<size_t>(count));
  return text;
}

// Reads one line from `descriptor`, without its line end.
std::string ReadLine(int descriptor) {
  std::string line;
  char c;
  while (read(descriptor, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

TEST(EcommRPCServerStartTest, PortHeldByAnotherProcessEndsTheProcessWithStatus1AfterAboutFiveSeconds) {
  test::PrivateRoot root;
  WriteServerConfiguration(root);
  test::SyslogCapture capture;
  PortHolder holder;
  int output[2];
  ASSERT_EQ(0, pipe(output));
  const Clock::time_point start = Clock::now();
  const pid_t child = fork();
  ASSERT_NE(-1, child);
  if (child == 0) {
    // The port stays with the parent alone.
    holder.Close();
    dup2(output[1], STDOUT_FILENO);
    close(output[0]);
    close(output[1]);
    CEcomm ecomm(100);
    ecomm.Start(3);
    EcommRPCServer server(ecomm, *GetDataCache());
    server.Start("", holder.port());
    _exit(0);  // Start does not come back
  }
  close(output[1]);
  const std::string printed = ReadAll(output[0]);
  close(output[0]);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  const Clock::duration elapsed = Clock::now() - start;
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(1, WEXITSTATUS(status));
  EXPECT_EQ(std::string(kCannotBind) + "\n", printed);
  EXPECT_GE(elapsed, std::chrono::milliseconds(4900)) << "50 pauses of 100 ms";
  EXPECT_LT(elapsed, std::chrono::seconds(30));
  bool logged = false;
  for (const test::SyslogEntry& entry : capture.Entries()) {
    if (entry.call == "syslog" && entry.pid == child && entry.text == kCannotBind) {
      logged = true;
      EXPECT_EQ(2, entry.level());
    }
  }
  EXPECT_TRUE(logged);
}

TEST(EcommRPCServerStartTest, PortFreedDuringTheRetriesIsBoundAndServed) {
  test::PrivateRoot root;
  WriteServerConfiguration(root);
  PortHolder holder;
  int output[2];
  int input[2];
  ASSERT_EQ(0, pipe(output));
  ASSERT_EQ(0, pipe(input));
  const Clock::time_point start = Clock::now();
  const pid_t child = fork();
  ASSERT_NE(-1, child);
  if (child == 0) {
    holder.Close();
    close(output[0]);
    close(input[1]);
    CEcomm ecomm(100);
    ecomm.Start(3);
    {
      EcommRPCServer server(ecomm, *GetDataCache());
      server.Start("", holder.port());
      const char bound[] = "bound\n";
      if (write(output[1], bound, sizeof(bound) - 1) < 0) _exit(2);
      // Serves until the parent is done with it.
      ReadAll(input[0]);
      server.Stop();
    }
    ecomm.Shutdown();
    _exit(0);
  }
  close(output[1]);
  close(input[0]);
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  holder.Close();
  EXPECT_EQ("bound", ReadLine(output[0]));
  const Clock::duration elapsed = Clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(1000));
  EXPECT_LT(elapsed, std::chrono::milliseconds(4500)) << "bound before the retries ran out";
  {
    test::RpcTestEnvironment environment;
    boost::shared_ptr<base::IPhysicalConnection> connection =
        environment.Connect(environment.ClientParameters(holder.port()));
    ExpectNotImplemented(Call(connection, "3600", JsonRequestBody()), "after the retries");
    connection.reset();
    for (auto& client : environment.clients) client->close(true);
  }
  close(input[1]);
  close(output[0]);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace
}  // namespace ecomm
}  // namespace apm
