// EcommRPCServer: what makes this process an RPC server. It owns the pool of four
// I/O threads and the listening acceptor, holds the table of the RPCs it serves,
// and turns each stream that a peer opens into a handler that runs on a worker of
// CEcomm's scheduler (base/rpc/rpchandler.h).
//
// The RPCs served, by number: 3600 ProcessJsonRequest, 3601 ProcessHttpRequest
// (with a file), 3602 AuthAccessTokenRequest, 3603 ProcessTestServiceDesk, 3604
// ServiceDeskSendFile (with a file). Each member function takes the request record
// and fills the response record; false sends the thread's error back instead.
//
// `main` makes one on its stack, calls Start, later Stop, and destroys it, all on
// the main thread. A listening port that cannot be bound ends the process from
// inside Start with status 1. The object holds CEcomm and the DataCache by
// reference; both outlive it.
//
// Threads: the handler table is filled by the constructor and only read afterwards,
// so the I/O threads use it without a lock. create_client_connection runs on an I/O
// thread and never blocks; the member functions run on scheduler workers, any
// number at once.
#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <string>

#include "base/apmmodule.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcconnectionparameters.h"
#include "base/rpc/rpchandler.h"
#include "ecomm/datacache.h"
#include "ecomm/ecomm.h"
#include "protocol/rpcauthtoken.h"
#include "protocol/rpccloud.h"
#include "protocol/rpcservicedesk.h"

namespace apm {
namespace ecomm {

// Registration callback of the instrumentation module "Network Server": the event
// descriptions of the transport and of the RPC numbers.
void EnumNetworkServerEventDescriptionsCallback(base::CAPMModule& module);

// Calls `server.bind(parameters)` up to `attempts` times, with `pauseMicroseconds`
// of sleep between two attempts; true as soon as one reports success. A repeated
// bind of the acceptor reports the outcome of an earlier attempt, so a later
// attempt that succeeds is seen by the next one.
bool BindWithRetries(base::IServerConnection& server, const base::RPCConnectionParameters& parameters,
                     unsigned int attempts, unsigned int pauseMicroseconds);

// The settings of the listening port: `host` (passed on, not used by the acceptor)
// and `port`, connection id 0, the lowest peer version accepted, a connect time-out
// of 10 and a ping interval of 30 seconds, and the server certificate, trust file
// and cipher list of the configuration; the first certificate met is not trusted.
base::RPCConnectionParameters ServerConnectionParameters(const std::string& host, unsigned int port);

class EcommRPCServer : public base::IConnectionHandlerFactory, private boost::noncopyable {
 public:
  static constexpr unsigned int kIOThreads = 4;
  // 51 attempts with 50 pauses of 100 ms: about five seconds.
  static constexpr unsigned int kBindAttempts = 51;
  static constexpr unsigned int kBindPauseMicroseconds = 100000;

  // Makes the module on first use, starts the I/O threads, makes the acceptor (not
  // yet bound) and fills the handler table.
  EcommRPCServer(CEcomm& ecomm, DataCache& dataCache);
  // Deletes the factories, then releases the acceptor, then the I/O service.
  ~EcommRPCServer() override;

  // The handler of a stream opened by the peer, scheduled on CEcomm; empty for an
  // RPC number that is missing, not a number or not served.
  boost::shared_ptr<base::IReceiveStream> create_client_connection(
      const boost::shared_ptr<base::IPhysicalConnection>& connection, base::RPCConnectionHeaders& headers,
      const boost::shared_ptr<base::ILogicalConnection>& logicalConnection) override;
  void connection_closed(const boost::shared_ptr<base::IPhysicalConnection>& connection) override;
  void acceptor_closed(const boost::shared_ptr<base::IServerConnection>& acceptor) override;

  // Listens on `port` of all IPv4 interfaces, with the server certificate, trust
  // file and cipher list of the configuration (`host` is passed on and not used).
  // If the port cannot be bound within kBindAttempts attempts, logs and prints
  // "cannot bind to server port, terminating process", shuts CEcomm down and ends
  // the process with status 1.
  void Start(const std::string& host, unsigned int port);
  // Closes the acceptor and its connections and joins the I/O threads. Handlers still
  // running on workers are left to CEcomm::Shutdown.
  void Stop();

  // The module "Network Server", under which the handlers report.
  base::CAPMModule* GetModule() const { return module; }

  // RPC 3600: a cloud request with a string body on behalf of a user.
  bool ProcessJsonRequest(const protocol::RPCCloudJsonRequest& request, protocol::RPCCloudJsonResponse& response);
  // RPC 3601: a cloud request whose body is the attached `file`.
  bool ProcessHttpRequest(const protocol::RPCCloudHttpRequest& request, protocol::RPCCloudJsonResponse& response,
                          const std::string& file);
  // RPC 3602: redeems an OAuth2 authorization code at the target's token endpoint.
  bool AuthAccessTokenRequest(const protocol::AuthToken& request, protocol::AuthTokenList& response);
  // RPC 3603: tests the settings of a service desk.
  bool ProcessTestServiceDesk(const protocol::InfrastructureTestServiceDeskRequest& request,
                              protocol::InfrastructureTestResponse& response);
  // RPC 3604: sends the saved session in `file` to a service desk as a new ticket.
  bool ServiceDeskSendFile(const protocol::SWTServiceDeskSendFileRequest& request,
                           protocol::SWTServiceDeskSendResponse& response, const std::string& file);

 private:
  base::CAPMModule* module;
  CEcomm& ecomm;
  DataCache& dataCache;
  boost::shared_ptr<base::IConnectionIOService> ioService;
  boost::shared_ptr<base::IServerConnection> server;
  base::GenericRPCHandlerMap<unsigned short> handlers;
};

}  // namespace ecomm
}  // namespace apm
