// The daemon's session manager towards the main server: its parameters from the
// configuration, the singleton's life cycle with CEcomm, and calls through
// RPCClientSessionServer against an acceptor on 127.0.0.1.
#include "ecomm/ecommrpcclient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "base/famerror.h"
#include "base/rootpath.h"
#include "ecomm/ecomm.h"
#include "protocol/rpcauthtoken.h"
#include "protocol/rpcinfrastructure.h"
#include "tests/fixtures/sdkstandin.h"
#include "tests/support/privateroot.h"
#include "tests/support/rpctestenvironment.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace ecomm {
namespace {

using Stream = boost::shared_ptr<base::CLogicalConnectionStream>;

// Exposes a session's members.
class SessionProbe : public RPCClientSessionServer {
 public:
  base::CAPMModule* Module() const { return module; }
  uint32_t Target() const { return target; }
  RPCClientSessionManagerServer* Manager() const { return manager; }
};

unsigned short ClosedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

class EcommRPCClientTest : public ::testing::Test {
 protected:
  void TearDown() override {
    RPCClientSessionManagerServer::stop_instance();
    RPCClientSessionManagerServer::delete_instance();
  }

  test::PrivateRoot root;
};

TEST_F(EcommRPCClientTest, ParametersComeFromTheConfiguration) {
  root.WriteFile("/etc/kelvora/ecomm.conf",
                 "ServerPort 12345\nServerHost 10.1.2.3\nClientCertificateFile /certs/client.pem\n"
                 "ClientCertificateCiphers AES256-SHA\n");
  base::RPCConnectionParameters parameters;
  parameters.trusted_certificates_file = "preset";
  EXPECT_TRUE(RPCClientSessionManagerServer::get_instance()->get_connection_parameters(7, parameters));
  EXPECT_EQ(parameters.port, 12345u);
  EXPECT_EQ(parameters.host, "10.1.2.3");
  EXPECT_EQ(parameters.certificate_file, "/certs/client.pem");
  EXPECT_EQ(parameters.cipher_list, "AES256-SHA");
  EXPECT_EQ(parameters.trusted_certificates_file, "");
}

TEST_F(EcommRPCClientTest, ParametersDefaultToTheLocalMainServer) {
  base::RPCConnectionParameters parameters;
  EXPECT_TRUE(RPCClientSessionManagerServer::get_instance()->get_connection_parameters(0, parameters));
  EXPECT_EQ(parameters.port, 10000u);
  EXPECT_EQ(parameters.host, "127.0.0.1");
  EXPECT_EQ(parameters.certificate_file, base::RootedPath("/etc/kelvora/ecomm/cli_certificate.pem"));
  EXPECT_EQ(parameters.cipher_list, "ECDHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES128-GCM-SHA256");
  EXPECT_EQ(parameters.trusted_certificates_file, "");
  // The rest keeps the connection defaults.
  EXPECT_EQ(parameters.connect_timeout, 10u);
  EXPECT_EQ(parameters.ping_interval, 30u);
}

TEST_F(EcommRPCClientTest, GetInstanceMakesOneManagerUntilDeleted) {
  RPCClientSessionManagerServer* first = RPCClientSessionManagerServer::get_instance();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(RPCClientSessionManagerServer::get_instance(), first);
  RPCClientSessionManagerServer::stop_instance();
  RPCClientSessionManagerServer::delete_instance();
  // A new one works again after the old one was stopped and deleted.
  root.WriteFile("/etc/kelvora/ecomm.conf", "ServerPort " + std::to_string(ClosedPort()) + "\n");
  EXPECT_TRUE(RPCClientSessionManagerServer::get_instance()->get_connection(0));
}

TEST_F(EcommRPCClientTest, StopAndDeleteWithoutInstanceDoNothing) {
  RPCClientSessionManagerServer::stop_instance();
  RPCClientSessionManagerServer::delete_instance();
  RPCClientSessionManagerServer::delete_instance();
}

TEST_F(EcommRPCClientTest, SessionUsesTargetZeroOfTheManagerAndTheNetworkClientModule) {
  SessionProbe session;
  EXPECT_EQ(session.Target(), 0u);
  EXPECT_EQ(session.Manager(), RPCClientSessionManagerServer::get_instance());
  EXPECT_EQ(session.Module(), RPCClientSessionManagerServer::get_module());
}

TEST_F(EcommRPCClientTest, ModuleIsRegisteredAsNetworkClient) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    base::CAPMModule* module = RPCClientSessionManagerServer::get_module();
    EXPECT_EQ(RPCClientSessionManagerServer::get_module(), module);
    const std::vector<test::SdkCall> calls = test::RecordedSdkCalls("APMRegisterModule");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].arguments[0], "Network Client");
  });
}

TEST_F(EcommRPCClientTest, MainServerDownFailsWithCouldNotConnect) {
  const unsigned short port = ClosedPort();
  root.WriteFile("/etc/kelvora/ecomm.conf", "ServerPort " + std::to_string(port) + "\nClientCertificateFile " +
                                                test::GetTestIdentity("client").certificate_file + "\n");
  RPCClientSessionServer session;
  protocol::AuthTokenRequest request;
  protocol::AuthTokenList tokens;
  base::FamErrorBase record(true);
  EXPECT_FALSE(session.ExecuteRPC<base::RPC_KIND_RECORD>(3321, request, tokens, nullptr, nullptr, nullptr, 60));
  EXPECT_EQ(record.message.rfind("could not connect to 127.0.0.1:" + std::to_string(port), 0), 0u)
      << record.message;
}

// An acceptor in the role of the main server, trusting the test's "client" identity,
// which the daemon's configuration names as its client certificate.
class MainServerTest : public EcommRPCClientTest {
 protected:
  void SetUp() override {
    environment.server_factory.SetHandler([](const Stream& stream, const base::RPCConnectionHeaders& headers) {
      base::ReadStream<base::CLogicalConnectionStream> reader(*stream);
      base::WriteStream<base::CLogicalConnectionStream> writer(*stream);
      base::RPCConnectionHeaders reply;
      if (headers.at(base::RPC_HEADER_FUNCTION) == "3321") {
        protocol::AuthTokenRequest request;
        if (!request.Read(0, reader)) return;
        stream->SendResponseHeaders(reply);
        protocol::AuthTokenList tokens;
        tokens.emplace_back();
        tokens.back().user = request.user;
        tokens.back().target = request.target;
        tokens.back().accessToken = "token-of-" + request.user;
        tokens.Write(0, writer);
      } else if (headers.at(base::RPC_HEADER_FUNCTION) == "3020") {
        protocol::InfrastructureGetInfoRequest request;
        if (!request.Read(0, reader)) return;
        stream->SendResponseHeaders(reply);
        protocol::InfrastructureGetInfoResponse response;
        response.changeCounter = request.changeCounter + 1;
        response.generation = 9;
        response.maxid = 77;
        response.Write(0, writer);
      }
    });
    const unsigned short port = environment.StartServer();
    ASSERT_NE(port, 0);
    root.WriteFile("/etc/kelvora/ecomm.conf", "ServerPort " + std::to_string(port) + "\nClientCertificateFile " +
                                                  test::GetTestIdentity("client").certificate_file + "\n");
  }
  void TearDown() override {
    EcommRPCClientTest::TearDown();
    environment.Shutdown();
  }

  test::RpcTestEnvironment environment;
};

TEST_F(MainServerTest, TokensAreFetchedWithTheClientCertificate) {
  RPCClientSessionServer session;
  protocol::AuthTokenRequest request;
  request.user = "alice";
  request.target = 12;
  protocol::AuthTokenList tokens;
  ASSERT_TRUE(session.ExecuteRPC<base::RPC_KIND_RECORD>(3321, request, tokens, nullptr, nullptr, nullptr, 60));
  ASSERT_EQ(tokens.size(), 1u);
  EXPECT_EQ(tokens[0].accessToken, "token-of-alice");
  EXPECT_EQ(tokens[0].target, 12u);
}

TEST_F(MainServerTest, InfrastructureGetReadsTheEmptyInfrastructure) {
  RPCClientSessionServer session;
  protocol::InfrastructureGetInfoRequest request;
  request.changeCounter = 4;
  protocol::InfrastructureGetInfoResponse response;
  ASSERT_TRUE(session.ExecuteRPC<base::RPC_KIND_RECORD>(3020, request, response, nullptr, nullptr, nullptr, 60));
  EXPECT_EQ(response.changeCounter, 5u);
  EXPECT_EQ(response.generation, 9u);
  EXPECT_EQ(response.maxid, 77u);
  EXPECT_TRUE(response.infrastructure.serviceDesks.empty());
}

TEST_F(MainServerTest, SessionsShareTheManagersOneConnection) {
  for (int i = 0; i < 3; ++i) {
    RPCClientSessionServer session;
    protocol::AuthTokenRequest request;
    protocol::AuthTokenList tokens;
    ASSERT_TRUE(session.ExecuteRPC<base::RPC_KIND_RECORD>(3321, request, tokens, nullptr, nullptr, nullptr, 60));
  }
  EXPECT_EQ(environment.server_factory.connections_opened.load(), 1);
}

TEST_F(MainServerTest, CEcommShutdownStopsAndDeletesTheManager) {
  CEcomm ecomm(10);
  ecomm.Init();
  {
    RPCClientSessionServer session;
    protocol::AuthTokenRequest request;
    protocol::AuthTokenList tokens;
    ASSERT_TRUE(session.ExecuteRPC<base::RPC_KIND_RECORD>(3321, request, tokens, nullptr, nullptr, nullptr, 60));
  }
  ecomm.Shutdown();
  // The connection was closed by stop_instance.
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 10000));
  // delete_instance cleared the singleton: a new session makes a new manager and
  // a new connection.
  RPCClientSessionServer session;
  protocol::AuthTokenRequest request;
  protocol::AuthTokenList tokens;
  EXPECT_TRUE(session.ExecuteRPC<base::RPC_KIND_RECORD>(3321, request, tokens, nullptr, nullptr, nullptr, 60));
  EXPECT_EQ(environment.server_factory.connections_opened.load(), 2);
}

}  // namespace
}  // namespace ecomm
}  // namespace apm
