#include "ecomm/EcommRPCServer.h"

#include <unistd.h>

#include <cstdio>

#include "base/famerror.h"
#include "base/trace.h"
#include "ecomm/ecommconfig.h"

namespace apm {
namespace ecomm {

namespace {

const char kCannotBind[] = "cannot bind to server port, terminating process";
const char kNotImplemented[] = "not implemented";

// Connect time-out and ping interval of accepted connections, in seconds.
constexpr uint32_t kConnectTimeout = 10;
constexpr uint32_t kPingInterval = 30;

// The process-wide module "Network Server", made by the first server.
base::CAPMModule* GetModuleNetworkServer() {
  static base::CAPMModule module("Network Server", EnumNetworkServerEventDescriptionsCallback);
  return &module;
}

}  // namespace

void EnumNetworkServerEventDescriptionsCallback(base::CAPMModule& /*module*/) {
  // Seam of the event description tables: EnumNetworkEventDescriptions(module)
  // goes here.
}

bool BindWithRetries(base::IServerConnection& server, const base::RPCConnectionParameters& parameters,
                     unsigned int attempts, unsigned int pauseMicroseconds) {
  for (unsigned int attempt = 1; attempt <= attempts; ++attempt) {
    if (server.bind(parameters)) return true;
    if (attempt < attempts) usleep(pauseMicroseconds);
  }
  return false;
}

base::RPCConnectionParameters ServerConnectionParameters(const std::string& host, unsigned int port) {
  base::RPCConnectionParameters parameters;
  parameters.host = host;
  parameters.port = port;
  parameters.connection_id = 0;
  parameters.min_version = base::RPC_MINIMUM_VERSION;
  parameters.connect_timeout = kConnectTimeout;
  parameters.ping_interval = kPingInterval;
  EcommConfig* config = GetEcommConfig();
  config->GetConfigValue(EcommConfig::kServerCertificateFile, parameters.certificate_file);
  config->GetConfigValue(EcommConfig::kTrustedCertificatesFile, parameters.trusted_certificates_file);
  config->GetConfigValue(EcommConfig::kServerCertificateCiphers, parameters.cipher_list);
  parameters.trust_first_certificate = false;
  return parameters;
}

EcommRPCServer::EcommRPCServer(CEcomm& ecommObject, DataCache& cache)
    : module(GetModuleNetworkServer()), ecomm(ecommObject), dataCache(cache) {
  ioService = base::IPhysicalConnection::CreateIOService(kIOThreads);
  server = base::IServerConnection::CreateSpdyServer(ioService, this);
  handlers.add(3602, base::MakeRPCHandlerFactory<1>(this, &EcommRPCServer::AuthAccessTokenRequest));
  handlers.add(3600, base::MakeRPCHandlerFactory<1>(this, &EcommRPCServer::ProcessJsonRequest));
  handlers.add(3603, base::MakeRPCHandlerFactory<1>(this, &EcommRPCServer::ProcessTestServiceDesk));
  handlers.add(3604, base::MakeRPCHandlerFactory<2>(this, &EcommRPCServer::ServiceDeskSendFile));
  handlers.add(3601, base::MakeRPCHandlerFactory<2>(this, &EcommRPCServer::ProcessHttpRequest));
}

// The members go in reverse order of declaration: the factories of `handlers`, then
// `server`, then `ioService`.
EcommRPCServer::~EcommRPCServer() = default;

boost::shared_ptr<base::IReceiveStream> EcommRPCServer::create_client_connection(
    const boost::shared_ptr<base::IPhysicalConnection>& /*connection*/, base::RPCConnectionHeaders& headers,
    const boost::shared_ptr<base::ILogicalConnection>& logicalConnection) {
  return base::ScheduleRPCHandler(handlers, ecomm, ecomm.applicationId, headers, logicalConnection);
}

void EcommRPCServer::connection_closed(const boost::shared_ptr<base::IPhysicalConnection>& /*connection*/) {}

void EcommRPCServer::acceptor_closed(const boost::shared_ptr<base::IServerConnection>& /*acceptor*/) {}

void EcommRPCServer::Start(const std::string& host, unsigned int port) {
  const base::RPCConnectionParameters parameters = ServerConnectionParameters(host, port);
  if (BindWithRetries(*server, parameters, kBindAttempts, kBindPauseMicroseconds)) return;

  base::log(2, 65, 1, kCannotBind);
  ecomm.Shutdown();
  std::puts(kCannotBind);
  // _exit runs no stdio clean-up, and stdout may be a file or a pipe.
  std::fflush(stdout);
  _exit(1);
}

void EcommRPCServer::Stop() {
  if (server) server->close(false);
  ioService->shutdown();
}

bool EcommRPCServer::ProcessJsonRequest(const protocol::RPCCloudJsonRequest& /*request*/,
                                        protocol::RPCCloudJsonResponse& /*response*/) {
  base::FamErrorBase::SetError(base::E_FAIL_CODE, kNotImplemented, module);
  return false;
}

bool EcommRPCServer::ProcessHttpRequest(const protocol::RPCCloudHttpRequest& /*request*/,
                                        protocol::RPCCloudJsonResponse& /*response*/,
                                        const std::string& /*file*/) {
  base::FamErrorBase::SetError(base::E_FAIL_CODE, kNotImplemented, module);
  return false;
}

bool EcommRPCServer::AuthAccessTokenRequest(const protocol::AuthToken& /*request*/,
                                            protocol::AuthTokenList& /*response*/) {
  base::FamErrorBase::SetError(base::E_FAIL_CODE, kNotImplemented, module);
  return false;
}

bool EcommRPCServer::ProcessTestServiceDesk(const protocol::InfrastructureTestServiceDeskRequest& /*request*/,
                                            protocol::InfrastructureTestResponse& /*response*/) {
  base::FamErrorBase::SetError(base::E_FAIL_CODE, kNotImplemented, module);
  return false;
}

bool EcommRPCServer::ServiceDeskSendFile(const protocol::SWTServiceDeskSendFileRequest& /*request*/,
                                         protocol::SWTServiceDeskSendResponse& /*response*/,
                                         const std::string& /*file*/) {
  base::FamErrorBase::SetError(base::E_FAIL_CODE, kNotImplemented, module);
  return false;
}

}  // namespace ecomm
}  // namespace apm
