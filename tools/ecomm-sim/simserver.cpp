#include "tools/ecomm-sim/simserver.h"

#include <boost/pointer_cast.hpp>

#include "base/rpc/rpcconnectionparameters.h"
#include "base/rpc/rpcspdyserverconnection.h"

namespace apm {
namespace tools {

namespace {

constexpr unsigned int kIOThreads = 2;
constexpr unsigned int kWorkers = 3;
constexpr unsigned int kMaxWorkers = 50;
constexpr uint32_t kConnectTimeout = 10;
constexpr uint32_t kPingInterval = 30;

}  // namespace

SimServer::SimServer(SimData& data, std::ostream& log)
    : data_(data), log_(log), scheduler_(kMaxWorkers),
      ioService_(base::IPhysicalConnection::CreateIOService(kIOThreads)) {
  server_ = base::IServerConnection::CreateSpdyServer(ioService_, this);
  handlers_.add(3020, base::MakeRPCHandlerFactory<1>(this, &SimServer::InfrastructureGet));
  handlers_.add(3320, base::MakeRPCHandlerFactory<1>(this, &SimServer::OAuthSetToken));
  handlers_.add(3321, base::MakeRPCHandlerFactory<1>(this, &SimServer::OAuthGetTokens));
}

SimServer::~SimServer() { Stop(); }

bool SimServer::Start(unsigned int port, const std::string& certificateFile, const std::string& trustFile) {
  scheduler_.Start(kWorkers);
  base::RPCConnectionParameters parameters;
  parameters.port = port;
  parameters.min_version = base::RPC_MINIMUM_VERSION;
  parameters.connect_timeout = kConnectTimeout;
  parameters.ping_interval = kPingInterval;
  parameters.certificate_file = certificateFile;
  parameters.trusted_certificates_file = trustFile;
  if (!server_->bind(parameters)) return false;
  port_ = boost::static_pointer_cast<base::CSpdyServerConnection>(server_)->get_bound_port();
  return true;
}

void SimServer::Stop() {
  if (stopped_) return;
  stopped_ = true;
  server_->close(false);
  ioService_->shutdown();
  scheduler_.Stop();
}

boost::shared_ptr<base::IReceiveStream> SimServer::create_client_connection(
    const boost::shared_ptr<base::IPhysicalConnection>& /*connection*/, base::RPCConnectionHeaders& headers,
    const boost::shared_ptr<base::ILogicalConnection>& logicalConnection) {
  return base::ScheduleRPCHandler(handlers_, scheduler_, 0, headers, logicalConnection);
}

void SimServer::connection_closed(const boost::shared_ptr<base::IPhysicalConnection>& /*connection*/) {}

void SimServer::acceptor_closed(const boost::shared_ptr<base::IServerConnection>& /*acceptor*/) {}

base::CAPMModule* SimServer::GetModule() const {
  static base::CAPMModule module("Simulated Main Server", nullptr);
  return &module;
}

bool SimServer::InfrastructureGet(const protocol::InfrastructureGetInfoRequest& request,
                                  protocol::InfrastructureGetInfoResponse& response) {
  data_.GetInfrastructure(request, response);
  LogLine("3020 Infrastructure Get changeCounter=" + std::to_string(request.changeCounter) +
          " generation=" + std::to_string(request.generation) + " -> changeCounter=" +
          std::to_string(response.changeCounter) + " generation=" + std::to_string(response.generation) +
          " serviceDesks=" + std::to_string(response.infrastructure.serviceDesks.size()));
  return true;
}

bool SimServer::OAuthSetToken(const protocol::AuthToken& request, protocol::EmptyResponse& /*response*/) {
  data_.StoreToken(request);
  LogLine("3320 OAuth Set Token user=" + request.user + " target=" + std::to_string(request.target) +
          " tokenType=" + request.tokenType + " expires=" + std::to_string(request.expires));
  return true;
}

bool SimServer::OAuthGetTokens(const protocol::AuthTokenRequest& request, protocol::AuthTokenList& response) {
  response = data_.FindTokens(request);
  LogLine("3321 OAuth Get Tokens user=" + request.user + " target=" + std::to_string(request.target) +
          " tokenType=" + request.tokenType + " -> " + std::to_string(response.size()) + " token(s)");
  return true;
}

void SimServer::LogLine(const std::string& line) {
  std::lock_guard<std::mutex> lock(logMutex_);
  log_ << line << std::endl;
}

}  // namespace tools
}  // namespace apm
