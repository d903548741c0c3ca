// ecomm-sim, the stand-in for the main server: its parts in-process (options, the
// data document, request fields) and the program both ways over TLS on 127.0.0.1:
// serving the daemon's calls to a client session of the daemon's own, and calling
// RPCs 3600 to 3604 on an in-process server built like the daemon's.
#include <signal.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/famerror.h"
#include "base/rootpath.h"
#include "base/rpc/rpchandler.h"
#include "base/rpc/rpcspdyserverconnection.h"
#include "base/scheduler.h"
#include "ecomm/ecommrpcclient.h"
#include "protocol/rpcauthtoken.h"
#include "protocol/rpccloud.h"
#include "protocol/rpcinfrastructure.h"
#include "protocol/rpcservicedesk.h"
#include "tests/support/daemonprocess.h"
#include "tests/support/privateroot.h"
#include "tests/support/testcertificates.h"
#include "tools/ecomm-sim/simclient.h"
#include "tools/ecomm-sim/simdata.h"
#include "tools/ecomm-sim/simidentity.h"
#include "tools/ecomm-sim/simoptions.h"

namespace apm {
namespace tools {
namespace {

using std::chrono::milliseconds;

const std::string kSimPath = std::string(ECOMM_BINARY_DIR) + "/tools/ecomm-sim/ecomm-sim";

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

// ---- Options ----

TEST(SimOptions, ServeDefaultsToPort10000AndTheServersTrustFileUnderTheRoot) {
  test::PrivateRoot root;
  SimOptions options;
  std::string error;
  ASSERT_TRUE(ParseSimOptions({"serve"}, options, error)) << error;
  EXPECT_EQ(options.mode, SimOptions::kServe);
  EXPECT_EQ(options.port, 10000u);
  EXPECT_EQ(options.trustFile, root.Path("/etc/kelvora/server/trusted_certificates.cfg"));
  EXPECT_EQ(options.certificateDirectory, root.Path("/etc/kelvora/ecomm-sim"));
  EXPECT_EQ(options.dataFile, "");
}

TEST(SimOptions, CallDefaultsToTheDaemonOnTheLoopback) {
  SimOptions options;
  std::string error;
  ASSERT_TRUE(ParseSimOptions({"call", "3600", "--field", "user=a=b", "--field", "target=3"}, options, error));
  EXPECT_EQ(options.mode, SimOptions::kCall);
  EXPECT_EQ(options.rpc, 3600);
  EXPECT_EQ(options.host, "127.0.0.1");
  EXPECT_EQ(options.port, 10003u);
  EXPECT_EQ(options.fields, (std::vector<std::string>{"user=a=b", "target=3"}));
}

TEST(SimOptions, HelpAnywhere) {
  SimOptions options;
  std::string error;
  ASSERT_TRUE(ParseSimOptions({"--help"}, options, error));
  EXPECT_EQ(options.mode, SimOptions::kHelp);
  ASSERT_TRUE(ParseSimOptions({"serve", "--help"}, options, error));
  EXPECT_EQ(options.mode, SimOptions::kHelp);
  EXPECT_NE(SimUsage().find("ecomm-sim serve"), std::string::npos);
}

TEST(SimOptions, RefusesWhatDoesNotFit) {
  SimOptions options;
  std::string error;
  EXPECT_FALSE(ParseSimOptions({}, options, error));
  EXPECT_FALSE(ParseSimOptions({"fly"}, options, error));
  EXPECT_EQ(error, "unknown command \"fly\"");
  EXPECT_FALSE(ParseSimOptions({"call", "3020"}, options, error));
  EXPECT_EQ(error, "call needs an RPC number from 3600 to 3604");
  EXPECT_FALSE(ParseSimOptions({"serve", "--port", "70000"}, options, error));
  EXPECT_FALSE(ParseSimOptions({"serve", "--port"}, options, error));
  EXPECT_EQ(error, "option --port needs a value");
  EXPECT_FALSE(ParseSimOptions({"serve", "--field", "a=b"}, options, error));
  EXPECT_FALSE(ParseSimOptions({"call", "3600", "--data", "x"}, options, error));
  EXPECT_FALSE(ParseSimOptions({"call", "3600", "--field", "novalue"}, options, error));
  EXPECT_FALSE(ParseSimOptions({"call", "3601"}, options, error));
  EXPECT_EQ(error, "RPC 3601 needs --file");
  EXPECT_FALSE(ParseSimOptions({"call", "3600", "--file", "x"}, options, error));
  EXPECT_EQ(error, "RPC 3600 takes no --file");
}

// ---- The data document ----

const char kDocument[] = R"({
  "changeCounter": 7, "generation": 2, "maxid": 99,
  "serviceDesks": [{"id": 4, "name": "Desk", "type": "norvanta_servicedesk", "url": "http://desk/wsdl",
                    "properties": {"project": "OPS"}}],
  "tokens": [{"user": "alice", "target": 12, "tokenType": "Bearer", "accessToken": "a1", "expires": 5},
             {"user": "alice", "target": 13, "accessToken": "a2"},
             {"user": "bob", "target": 12, "tokenType": "Bearer", "accessToken": "b1"}]
})";

TEST(SimData, InfrastructureHoldsThePositionAndTheServiceDesks) {
  SimData data;
  std::string error;
  ASSERT_TRUE(data.Load(kDocument, error)) << error;
  protocol::InfrastructureGetInfoRequest request;
  protocol::InfrastructureGetInfoResponse response;
  data.GetInfrastructure(request, response);
  EXPECT_EQ(response.changeCounter, 7u);
  EXPECT_EQ(response.generation, 2u);
  EXPECT_EQ(response.maxid, 99u);
  ASSERT_EQ(response.infrastructure.serviceDesks.size(), 1u);
  const protocol::CISServiceDesk& desk = *response.infrastructure.serviceDesks[0];
  EXPECT_EQ(desk.id, 4u);
  EXPECT_EQ(desk.name, "Desk");
  EXPECT_EQ(desk.url, "http://desk/wsdl");
  EXPECT_EQ(desk.properties.at("project"), "OPS");
}

TEST(SimData, CurrentPositionGetsNoElements) {
  SimData data;
  std::string error;
  ASSERT_TRUE(data.Load(kDocument, error));
  protocol::InfrastructureGetInfoRequest request;
  request.changeCounter = 7;
  request.generation = 2;
  protocol::InfrastructureGetInfoResponse response;
  data.GetInfrastructure(request, response);
  EXPECT_EQ(response.changeCounter, 7u);
  EXPECT_TRUE(response.infrastructure.serviceDesks.empty());
}

TEST(SimData, TokensAreFoundByUserTargetAndOptionalType) {
  SimData data;
  std::string error;
  ASSERT_TRUE(data.Load(kDocument, error));
  protocol::AuthTokenRequest request;
  request.user = "alice";
  request.target = 12;
  protocol::AuthTokenList found = data.FindTokens(request);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].accessToken, "a1");
  EXPECT_EQ(found[0].expires, 5u);
  request.tokenType = "Other";
  EXPECT_TRUE(data.FindTokens(request).empty());
}

TEST(SimData, StoredTokenReplacesTheSameUserTargetAndType) {
  SimData data;
  std::string error;
  ASSERT_TRUE(data.Load(kDocument, error));
  protocol::AuthToken token;
  token.user = "alice";
  token.target = 12;
  token.tokenType = "Bearer";
  token.accessToken = "renewed";
  data.StoreToken(token);
  token.target = 14;
  token.accessToken = "new";
  data.StoreToken(token);
  protocol::AuthTokenRequest request;
  request.user = "alice";
  request.target = 12;
  ASSERT_EQ(data.FindTokens(request).size(), 1u);
  EXPECT_EQ(data.FindTokens(request)[0].accessToken, "renewed");
  request.target = 14;
  ASSERT_EQ(data.FindTokens(request).size(), 1u);
  EXPECT_EQ(data.FindTokens(request)[0].accessToken, "new");
}

TEST(SimData, RefusesUnknownMembersAndWrongShapes) {
  SimData data;
  std::string error;
  EXPECT_FALSE(data.Load(R"({"servers": []})", error));
  EXPECT_EQ(error, "document: unknown member \"servers\"");
  EXPECT_FALSE(data.Load(R"({"tokens": [{"user": "a", "tagret": 1}]})", error));
  EXPECT_EQ(error, "token: unknown member \"tagret\"");
  EXPECT_FALSE(data.Load(R"({"tokens": {}})", error));
  EXPECT_EQ(error, "\"tokens\" is no array");
  EXPECT_FALSE(data.Load(R"({"maxid": "many"})", error));
  EXPECT_EQ(error, "document: \"maxid\" is no number");
  EXPECT_FALSE(data.Load("[1]", error));
  EXPECT_FALSE(data.LoadFile("/nonexistent/data.json", error));
  EXPECT_EQ(error, "cannot read \"/nonexistent/data.json\"");
}

// ---- Request fields ----

TEST(SimFields, JsonMembersAndPropertiesBecomeFields) {
  SimFields fields;
  std::string error;
  ASSERT_TRUE(ReadFieldsFromJson(R"({"id": 3, "type": "t", "properties": {"k": "v", "n": 1}})", fields, error));
  EXPECT_EQ(fields, (SimFields{{"id", "3"}, {"type", "t"}, {"properties.k", "v"}, {"properties.n", "1"}}));
  EXPECT_FALSE(ReadFieldsFromJson(R"({"id": [1]})", fields, error));
  EXPECT_EQ(error, "field \"id\" is neither a string nor a number");
  EXPECT_FALSE(ReadFieldsFromJson("nothing", fields, error));
}

TEST(SimFields, ArgumentsReplaceEarlierValues) {
  SimFields fields{{"user", "json"}};
  AddFieldArgument("user=cli=x", fields);
  AddFieldArgument("empty=", fields);
  EXPECT_EQ(fields, (SimFields{{"user", "cli=x"}, {"empty", ""}}));
}

TEST(SimFields, UnknownFieldsAndBadNumbersAreRefusedBeforeAnyConnection) {
  SimClientManager manager(base::RPCConnectionParameters{});
  SimClientSession session(&manager);
  std::string output;
  std::string error;
  EXPECT_EQ(CallDaemon(session, 3600, {{"usr", "alice"}}, "", output, error), kSimCallInvalid);
  EXPECT_EQ(error, "unknown field \"usr\"");
  EXPECT_EQ(CallDaemon(session, 3602, {{"expires", "soon"}}, "", output, error), kSimCallInvalid);
  EXPECT_EQ(error, "field \"expires\" is no number");
  EXPECT_EQ(CallDaemon(session, 3020, {}, "", output, error), kSimCallInvalid);
}

// ---- The program ----

// A private root with the tool's certificate directory holding a ready-made
// identity (making a key in every test would be slow).
class SimProgramTest : public ::testing::Test {
 protected:
  void SetUp() override {
    certificateDirectory = root.Path("/sim-certificates");
    boost::filesystem::create_directories(certificateDirectory);
    boost::filesystem::copy_file(test::GetTestIdentity("simtool").certificate_file,
                                 certificateDirectory + "/" + kSimCertificateName);
  }

  test::PrivateRoot root;
  std::string certificateDirectory;
};

// The simulator serving; the test is the daemon, with its own client session.
class SimServeTest : public SimProgramTest {
 protected:
  void SetUp() override {
    SimProgramTest::SetUp();
    trustFile = root.Path("/sim-trust.cfg");
    test::WriteTextFile(trustFile, test::TrustFileText({&test::GetTestIdentity("client")}));
    dataFile = root.Path("/sim-data.json");
    test::WriteTextFile(dataFile, kDocument);
  }
  void TearDown() override {
    ecomm::RPCClientSessionManagerServer::stop_instance();
    ecomm::RPCClientSessionManagerServer::delete_instance();
  }

  // Starts "serve" on a free port and points the daemon's configuration at it.
  bool StartServing() {
    if (!sim.Start({"serve", "--port", "0", "--cert-dir", certificateDirectory, "--trust-file", trustFile, "--data",
                    dataFile})) {
      return false;
    }
    const std::string marker = "ecomm-sim listening on port ";
    if (!test::DaemonProcess::WaitFor([&] { return sim.Stdout().find('\n') != std::string::npos; },
                                      milliseconds(20000))) {
      return false;
    }
    const std::string first = sim.Stdout().substr(0, sim.Stdout().find('\n'));
    if (first.rfind(marker, 0) != 0) return false;
    port = first.substr(marker.size());
    root.WriteFile("/etc/kelvora/ecomm.conf", "ServerPort " + port + "\nClientCertificateFile " +
                                                  test::GetTestIdentity("client").certificate_file + "\n");
    return true;
  }

  // The lines the simulator printed after its start line.
  std::vector<std::string> CallLines() {
    std::vector<std::string> lines;
    std::istringstream text(sim.Stdout());
    std::string line;
    std::getline(text, line);
    while (std::getline(text, line)) lines.push_back(line);
    return lines;
  }

  test::DaemonProcess sim{kSimPath};
  std::string trustFile;
  std::string dataFile;
  std::string port;
};

TEST_F(SimServeTest, AnswersTheDaemonsCallsAndLogsEachOne) {
  ASSERT_TRUE(StartServing()) << sim.Stderr();
  ecomm::RPCClientSessionServer session;

  protocol::InfrastructureGetInfoRequest infrastructureRequest;
  protocol::InfrastructureGetInfoResponse infrastructure;
  ASSERT_TRUE(session.ExecuteRPC<base::RPC_KIND_RECORD>(3020, infrastructureRequest, infrastructure, nullptr,
                                                        nullptr, nullptr, 60));
  EXPECT_EQ(infrastructure.changeCounter, 7u);
  EXPECT_EQ(infrastructure.generation, 2u);
  EXPECT_EQ(infrastructure.maxid, 99u);
  ASSERT_EQ(infrastructure.infrastructure.serviceDesks.size(), 1u);
  EXPECT_EQ(infrastructure.infrastructure.serviceDesks[0]->name, "Desk");

  protocol::AuthToken token;
  token.user = "carol";
  token.target = 12;
  token.tokenType = "Bearer";
  token.accessToken = "c1";
  token.expires = 132000000000000000ull;
  protocol::EmptyResponse empty;
  ASSERT_TRUE(session.ExecuteRPC<base::RPC_KIND_RECORD>(3320, token, empty, nullptr, nullptr, nullptr, 60));

  protocol::AuthTokenRequest tokenRequest;
  tokenRequest.user = "carol";
  tokenRequest.target = 12;
  protocol::AuthTokenList tokens;
  ASSERT_TRUE(session.ExecuteRPC<base::RPC_KIND_RECORD>(3321, tokenRequest, tokens, nullptr, nullptr, nullptr, 60));
  ASSERT_EQ(tokens.size(), 1u);
  EXPECT_EQ(tokens[0].accessToken, "c1");
  EXPECT_EQ(tokens[0].expires, 132000000000000000ull);

  ASSERT_TRUE(test::DaemonProcess::WaitFor([&] { return CallLines().size() >= 3; }, milliseconds(10000)));
  EXPECT_EQ(CallLines(),
            (std::vector<std::string>{
                "3020 Infrastructure Get changeCounter=0 generation=0 -> changeCounter=7 generation=2 serviceDesks=1",
                "3320 OAuth Set Token user=carol target=12 tokenType=Bearer expires=132000000000000000",
                "3321 OAuth Get Tokens user=carol target=12 tokenType= -> 1 token(s)"}));

  ASSERT_TRUE(sim.SignalUntilExit(SIGTERM, milliseconds(20000)));
  EXPECT_EQ(sim.ExitStatus(), 0);
  EXPECT_NE(sim.Stdout().find("ecomm-sim stopped\n"), std::string::npos);
}

TEST_F(SimServeTest, RefusesAClientThatIsNotInItsTrustFile) {
  test::WriteTextFile(trustFile, test::TrustFileText({&test::GetTestIdentity("rogue")}));
  ASSERT_TRUE(StartServing()) << sim.Stderr();
  ecomm::RPCClientSessionServer session;
  protocol::AuthTokenRequest request;
  protocol::AuthTokenList tokens;
  base::FamErrorBase record(true);
  EXPECT_FALSE(session.ExecuteRPC<base::RPC_KIND_RECORD>(3321, request, tokens, nullptr, nullptr, nullptr, 60));
  EXPECT_TRUE(CallLines().empty());
}

TEST_F(SimServeTest, BadDataFileEndsWithStatus2) {
  test::WriteTextFile(dataFile, R"({"unknown": 1})");
  ASSERT_TRUE(sim.Start({"serve", "--port", "0", "--cert-dir", certificateDirectory, "--data", dataFile}));
  ASSERT_TRUE(sim.WaitForExit(milliseconds(20000)));
  EXPECT_EQ(sim.ExitStatus(), 2);
  EXPECT_EQ(sim.Stderr(), "ecomm-sim: document: unknown member \"unknown\"\n");
}

TEST_F(SimProgramTest, HelpPrintsTheUsage) {
  test::DaemonProcess sim(kSimPath);
  ASSERT_TRUE(sim.Start({"--help"}));
  ASSERT_TRUE(sim.WaitForExit(milliseconds(20000)));
  EXPECT_EQ(sim.ExitStatus(), 0);
  EXPECT_EQ(sim.Stdout(), SimUsage());
}

TEST_F(SimProgramTest, NewCertificateIsMadeAndRegisteredWithTheDaemon) {
  const std::string directory = root.Path("/fresh-certificates");
  SimIdentity identity;
  std::string error;
  ASSERT_TRUE(EnsureSimIdentity(directory, identity, error)) << error;
  EXPECT_EQ(identity.certificateFile, directory + "/ecomm-sim_certificate.pem");
  EXPECT_EQ(identity.cn, "ecomm-sim");
  SimIdentity again;
  ASSERT_TRUE(EnsureSimIdentity(directory, again, error));
  EXPECT_EQ(again.fingerprint, identity.fingerprint);

  ASSERT_TRUE(RegisterWithDaemon(identity, error)) << error;
  ASSERT_TRUE(RegisterWithDaemon(identity, error));
  EXPECT_EQ(root.ReadFile("/etc/kelvora/ecomm/trusted_certificates.cfg"),
            "\n" + identity.fingerprint + " ecomm-sim\n");
}

// A server built like the daemon's, with the daemon's five RPCs answered by
// canned logic; it trusts the clients listed in the daemon's trust file, where the
// simulator registers itself.
class FakeDaemon : public base::IConnectionHandlerFactory {
 public:
  FakeDaemon() : scheduler_(20), service_(base::IPhysicalConnection::CreateIOService(2)) {
    server_ = base::IServerConnection::CreateSpdyServer(service_, this);
    handlers_.add(3600, base::MakeRPCHandlerFactory<1>(this, &FakeDaemon::Json));
    handlers_.add(3601, base::MakeRPCHandlerFactory<2>(this, &FakeDaemon::Http));
    handlers_.add(3602, base::MakeRPCHandlerFactory<1>(this, &FakeDaemon::Token));
    handlers_.add(3603, base::MakeRPCHandlerFactory<1>(this, &FakeDaemon::TestDesk));
    handlers_.add(3604, base::MakeRPCHandlerFactory<2>(this, &FakeDaemon::SendFile));
    scheduler_.Start(3);
  }
  ~FakeDaemon() override {
    server_->close(false);
    service_->shutdown();
    scheduler_.Stop();
  }

  unsigned short Start() {
    base::RPCConnectionParameters parameters;
    parameters.min_version = base::RPC_MINIMUM_VERSION;
    parameters.certificate_file = test::GetTestIdentity("server").certificate_file;
    parameters.trusted_certificates_file = base::RootedPath("/etc/kelvora/ecomm/trusted_certificates.cfg");
    base::FamErrorBase record(true);
    if (!server_->bind(parameters)) return 0;
    return boost::static_pointer_cast<base::CSpdyServerConnection>(server_)->get_bound_port();
  }

  boost::shared_ptr<base::IReceiveStream> create_client_connection(
      const boost::shared_ptr<base::IPhysicalConnection>&, base::RPCConnectionHeaders& headers,
      const boost::shared_ptr<base::ILogicalConnection>& logical) override {
    return base::ScheduleRPCHandler(handlers_, scheduler_, 0, headers, logical);
  }
  void connection_closed(const boost::shared_ptr<base::IPhysicalConnection>&) override {}
  void acceptor_closed(const boost::shared_ptr<base::IServerConnection>&) override {}
  base::CAPMModule* GetModule() const {
    static base::CAPMModule module("Fake Daemon", nullptr);
    return &module;
  }

  bool Json(const protocol::RPCCloudJsonRequest& request, protocol::RPCCloudJsonResponse& response) {
    response.status = 200;
    response.statusText = "OK";
    response.contentType = "application/json";
    response.body = std::to_string(request.target) + " " + request.user + " " + request.method + " " +
                    request.path + " " + request.contentType + " " + request.body;
    return true;
  }
  bool Http(const protocol::RPCCloudHttpRequest& request, protocol::RPCCloudJsonResponse& response,
            const std::string& file) {
    response.status = 201;
    response.body = request.user + ":" + ReadFile(file);
    return true;
  }
  bool Token(const protocol::AuthToken& request, protocol::AuthTokenList& response) {
    if (request.accessToken == "bad") {
      base::FamErrorBase::SetError(base::E_TOKEN_CODE, "token refused", nullptr);
      return false;
    }
    protocol::AuthToken token = request;
    token.tokenType = "Bearer";
    token.accessToken = "access-for-" + request.accessToken;
    token.expires = request.expires + 1;
    response.push_back(token);
    return true;
  }
  bool TestDesk(const protocol::InfrastructureTestServiceDeskRequest& request,
                protocol::InfrastructureTestResponse& response) {
    const protocol::CISServiceDesk& desk = *request.serviceDesk;
    response.status = desk.id;
    response.message = desk.type + " " + desk.url + " " + desk.properties.at("project");
    return true;
  }
  bool SendFile(const protocol::SWTServiceDeskSendFileRequest& request,
                protocol::SWTServiceDeskSendResponse& response, const std::string& file) {
    response.link = "ticket/" + std::to_string(request.id) + "/" + request.user + "/" +
                    std::to_string(ReadFile(file).size());
    return true;
  }

 private:
  base::Scheduler scheduler_;
  boost::shared_ptr<base::IConnectionIOService> service_;
  boost::shared_ptr<base::IServerConnection> server_;
  base::GenericRPCHandlerMap<unsigned short> handlers_;
};

class SimCallTest : public SimProgramTest {
 protected:
  void SetUp() override {
    SimProgramTest::SetUp();
    port = daemon.Start();
    ASSERT_NE(port, 0);
  }

  // Runs "call RPC" with `arguments` behind the port and certificate options, and
  // waits for the end.
  bool Call(const std::string& rpc, const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {"call", rpc, "--port", std::to_string(port), "--cert-dir", certificateDirectory};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return sim.Start(all) && sim.WaitForExit(milliseconds(30000));
  }

  FakeDaemon daemon;
  unsigned short port = 0;
  test::DaemonProcess sim{kSimPath};
};

TEST_F(SimCallTest, JsonRequestFromFieldsPrintsTheResponse) {
  ASSERT_TRUE(Call("3600", {"--field", "target=12", "--field", "user=alice", "--field", "method=GET", "--field",
                            "path=v1/items", "--field", "body={\"a\":1}"}));
  EXPECT_EQ(sim.ExitStatus(), 0) << sim.Stderr();
  EXPECT_EQ(sim.Stdout(),
            "{\"body\":\"12 alice GET v1/items  {\\\"a\\\":1}\",\"contentType\":\"application/json\","
            "\"status\":200,\"statusText\":\"OK\"}\n");
  // The simulator registered itself with the daemon to be let in.
  EXPECT_NE(root.ReadFile("/etc/kelvora/ecomm/trusted_certificates.cfg").find(test::GetTestIdentity("simtool").fingerprint),
            std::string::npos);
}

TEST_F(SimCallTest, RequestFieldsFromJsonWithCommandLineOverride) {
  const std::string request = root.Path("/request.json");
  test::WriteTextFile(request, R"({"user": "alice", "target": 7, "accessToken": "code", "expires": 10})");
  ASSERT_TRUE(Call("3602", {"--request", request, "--field", "user=bob"}));
  EXPECT_EQ(sim.ExitStatus(), 0) << sim.Stderr();
  EXPECT_EQ(sim.Stdout(),
            "{\"tokens\":[{\"accessToken\":\"access-for-code\",\"expires\":11,\"idToken\":\"\",\"target\":7,"
            "\"tokenType\":\"Bearer\",\"user\":\"bob\"}]}\n");
}

TEST_F(SimCallTest, ErrorResponsePrintsCodeAndTextAndExitsWithOne) {
  ASSERT_TRUE(Call("3602", {"--field", "accessToken=bad"}));
  EXPECT_EQ(sim.ExitStatus(), 1);
  EXPECT_EQ(sim.Stdout(), "");
  EXPECT_EQ(sim.Stderr(), "error 0x80008002: token refused\n");
}

TEST_F(SimCallTest, FileTravelsBehindTheHttpRequest) {
  const std::string file = root.Path("/body.bin");
  const std::string content = std::string(20000, 'x') + "end";
  test::WriteTextFile(file, content);
  ASSERT_TRUE(Call("3601", {"--field", "user=alice", "--file", file}));
  EXPECT_EQ(sim.ExitStatus(), 0) << sim.Stderr();
  EXPECT_EQ(sim.Stdout(), "{\"body\":\"alice:" + content + "\",\"contentType\":\"\",\"status\":201,\"statusText\":\"\"}\n");
}

TEST_F(SimCallTest, ServiceDeskTestCarriesTheDeskAndItsProperties) {
  ASSERT_TRUE(Call("3603", {"--field", "id=4", "--field", "type=norvanta_servicedesk", "--field", "url=http://d",
                            "--field", "properties.project=OPS"}));
  EXPECT_EQ(sim.ExitStatus(), 0) << sim.Stderr();
  EXPECT_EQ(sim.Stdout(), "{\"message\":\"norvanta_servicedesk http://d OPS\",\"status\":4}\n");
}

TEST_F(SimCallTest, SavedSessionTravelsBehindTheSendRequest) {
  const std::string file = root.Path("/session.zip");
  test::WriteTextFile(file, std::string(12345, 'z'));
  ASSERT_TRUE(Call("3604", {"--field", "id=9", "--field", "user=alice", "--file", file}));
  EXPECT_EQ(sim.ExitStatus(), 0) << sim.Stderr();
  EXPECT_EQ(sim.Stdout(), "{\"link\":\"ticket/9/alice/12345\"}\n");
}

TEST_F(SimProgramTest, UnreachableDaemonExitsWithOne) {
  // A port on which nothing listens any more.
  unsigned short port = 0;
  {
    FakeDaemon gone;
    port = gone.Start();
  }
  test::DaemonProcess sim(kSimPath);
  ASSERT_TRUE(sim.Start({"call", "3600", "--port", std::to_string(port), "--cert-dir", certificateDirectory}));
  ASSERT_TRUE(sim.WaitForExit(milliseconds(30000)));
  EXPECT_EQ(sim.ExitStatus(), 1);
  EXPECT_EQ(sim.Stderr().rfind("error 0x", 0), 0u) << sim.Stderr();
  EXPECT_NE(sim.Stderr().find("could not connect to 127.0.0.1:" + std::to_string(port)), std::string::npos);
}

TEST_F(SimCallTest, UnknownFieldExitsWithTwo) {
  ASSERT_TRUE(Call("3604", {"--field", "desk=1", "--file", "/dev/null"}));
  EXPECT_EQ(sim.ExitStatus(), 2);
  EXPECT_EQ(sim.Stderr(), "ecomm-sim: unknown field \"desk\"\n");
}

}  // namespace
}  // namespace tools
}  // namespace apm
