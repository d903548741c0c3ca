#include "ecomm/ecommrpcclient.h"

#include "ecomm/ecommconfig.h"

namespace apm {
namespace ecomm {

RPCClientSessionManagerServer* RPCClientSessionManagerServer::instance = nullptr;

void EnumNetworkClientEventDescriptionsCallback(base::CAPMModule& /*module*/) {
  // Seam of the event description tables: EnumNetworkEventDescriptions(module)
  // goes here.
}

RPCClientSessionManagerServer::RPCClientSessionManagerServer(
    const boost::shared_ptr<base::IConnectionIOService>& service)
    : SPDYRPCClientSessionManager(service) {}

RPCClientSessionManagerServer::~RPCClientSessionManagerServer() { stop(); }

bool RPCClientSessionManagerServer::get_connection_parameters(unsigned int /*target*/,
                                                              base::RPCConnectionParameters& parameters) {
  EcommConfig* config = GetEcommConfig();
  config->GetConfigValue(EcommConfig::kServerPort, parameters.port);
  config->GetConfigValue(EcommConfig::kServerHost, parameters.host);
  config->GetConfigValue(EcommConfig::kClientCertificateFile, parameters.certificate_file);
  config->GetConfigValue(EcommConfig::kClientCertificateCiphers, parameters.cipher_list);
  // Any certificate of the server is accepted.
  parameters.trusted_certificates_file.clear();
  return true;
}

RPCClientSessionManagerServer* RPCClientSessionManagerServer::get_instance() {
  if (instance == nullptr) {
    instance = new RPCClientSessionManagerServer(base::IPhysicalConnection::CreateIOService(kIOThreads));
  }
  return instance;
}

void RPCClientSessionManagerServer::stop_instance() {
  if (instance != nullptr) instance->stop();
}

void RPCClientSessionManagerServer::delete_instance() {
  delete instance;
  instance = nullptr;
}

base::CAPMModule* RPCClientSessionManagerServer::get_module() {
  static base::CAPMModule module("Network Client", EnumNetworkClientEventDescriptionsCallback);
  return &module;
}

RPCClientSessionServer::RPCClientSessionServer()
    : SPDYRPCClientSession(RPCClientSessionManagerServer::get_module(), 0,
                           RPCClientSessionManagerServer::get_instance()) {}

}  // namespace ecomm
}  // namespace apm
