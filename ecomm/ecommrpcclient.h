// The daemon's calls to the main server: RPCClientSessionManagerServer, the
// process-wide manager of the one outgoing connection (target 0), and
// RPCClientSessionServer, the session through which a piece of work makes its calls
// (3020 "Infrastructure Get", 3320 "OAuth Set Token", 3321 "OAuth Get Tokens").
//
// The manager is made on first use by get_instance(), which starts its two I/O
// threads; CEcomm::Shutdown ends it with stop_instance() while the workers still
// run and deletes it with delete_instance() once they have stopped. Where the main
// server is comes from the configuration at every new connection: port (setting
// 10), host (11), the client certificate (100) and its cipher list (101). No trust
// file is used: this side accepts any certificate of the server it connects to and
// proves itself with its own certificate.
//
// A session is made on the stack at the top of each piece of work and handed down by
// reference; it holds no connection of its own, so all sessions share the manager's
// one connection, each call on a stream of its own.
//
// Threads: get_instance makes the manager without a lock; the first call happens
// before several workers need it. Sessions and the manager's operations are
// otherwise thread-safe as told in base/rpc/rpcclientsession.h.
#pragma once

#include <boost/shared_ptr.hpp>

#include "base/apmmodule.h"
#include "base/rpc/rpcclientsession.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcconnectionparameters.h"

namespace apm {
namespace ecomm {

// Registration callback of the instrumentation module "Network Client": the event
// descriptions of the transport and of the RPC numbers.
void EnumNetworkClientEventDescriptionsCallback(base::CAPMModule& module);

class RPCClientSessionManagerServer
    : public base::SPDYRPCClientSessionManager<RPCClientSessionManagerServer, base::RPC_MINIMUM_VERSION> {
 public:
  // The number of I/O threads of all outgoing connections.
  static constexpr unsigned int kIOThreads = 2;

  // Stops, if that has not happened yet.
  ~RPCClientSessionManagerServer() override;

  // Any target: the main server of the configuration. Always true.
  bool get_connection_parameters(unsigned int target, base::RPCConnectionParameters& parameters) override;

  // The process-wide manager, made on first use.
  static RPCClientSessionManagerServer* get_instance();
  // stop() on the manager, if there is one.
  static void stop_instance();
  // Deletes the manager, if there is one; the next get_instance makes a new one.
  static void delete_instance();
  // The module "Network Client", under which sessions report their calls.
  static base::CAPMModule* get_module();

 private:
  explicit RPCClientSessionManagerServer(const boost::shared_ptr<base::IConnectionIOService>& service);

  static RPCClientSessionManagerServer* instance;
};

class RPCClientSessionServer : public base::SPDYRPCClientSession<RPCClientSessionManagerServer> {
 public:
  // A session on target 0 of the process-wide manager, reporting under "Network Client".
  RPCClientSessionServer();
};

}  // namespace ecomm
}  // namespace apm
