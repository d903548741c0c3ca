// Two-sided test set-up of the RPC engine over real TLS on 127.0.0.1: an acceptor
// and outgoing connections, each side with its own I/O service and a handler
// factory whose streams are served by a function of the test, one thread per
// stream (in place of the scheduler). Certificates come from GetTestIdentity; the
// timers run in units of 10 ms.
//
// Shutdown order matters and is done by Shutdown() (also from the destructor):
// streams held by the test must be released first; then outgoing connections are
// stopped, the acceptor closed, the handler threads joined and the services shut
// down, client first. A watchdog aborts the process if that takes over 30 s.
// Not thread-safe: one test thread drives it.
#pragma once

#include <boost/shared_ptr.hpp>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcstreamconnection.h"

namespace apm {
namespace test {

class TestHandlerFactory : public base::IConnectionHandlerFactory {
 public:
  typedef std::function<void(const boost::shared_ptr<base::CLogicalConnectionStream>& stream,
                             const base::RPCConnectionHeaders& headers)>
      Handler;

  ~TestHandlerFactory() override;

  // The function that serves each accepted stream, on a thread of its own.
  void SetHandler(const Handler& handler) { handler_ = handler; }
  // Refuse every stream (the engine answers RST_STREAM status 3).
  void SetRefuseStreams(bool refuse) { refuse_ = refuse; }
  // Deny connections in the version exchange with this code and text.
  void SetDenyConnections(int code, const std::string& text);

  boost::shared_ptr<base::IReceiveStream> create_client_connection(
      const boost::shared_ptr<base::IPhysicalConnection>& connection, base::RPCConnectionHeaders& headers,
      const boost::shared_ptr<base::ILogicalConnection>& logical_connection) override;
  bool connection_opened(const boost::shared_ptr<base::IPhysicalConnection>& connection) override;
  void connection_closed(const boost::shared_ptr<base::IPhysicalConnection>& connection) override;
  void acceptor_closed(const boost::shared_ptr<base::IServerConnection>& server) override;

  // Waits until at least `count` connections have been reported closed.
  bool WaitForClosed(int count, int milliseconds);
  // Waits until at least `count` streams have been created.
  bool WaitForStreams(int count, int milliseconds);
  void JoinHandlers();

  std::atomic<int> streams_created{0};
  std::atomic<int> streams_refused{0};
  std::atomic<int> connections_opened{0};
  std::atomic<int> connections_closed{0};
  std::atomic<int> acceptors_closed{0};
  // Headers of the latest stream created.
  base::RPCConnectionHeaders last_headers;

 private:
  Handler handler_;
  bool refuse_ = false;
  bool deny_ = false;
  int deny_code_ = 0;
  std::string deny_text_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::thread> threads_;
};

class RpcTestEnvironment {
 public:
  RpcTestEnvironment();
  ~RpcTestEnvironment();

  // Acceptor parameters: identity "server", trusting "client", short timers.
  base::RPCConnectionParameters ServerParameters();
  // Connector parameters towards `port` with identity "client".
  base::RPCConnectionParameters ClientParameters(unsigned short port);
  // Binds the acceptor on an ephemeral port and returns it (0 on failure).
  unsigned short StartServer(const base::RPCConnectionParameters& parameters);
  unsigned short StartServer() { return StartServer(ServerParameters()); }
  boost::shared_ptr<base::IPhysicalConnection> Connect(const base::RPCConnectionParameters& parameters);
  // A connection to the running acceptor with ClientParameters.
  boost::shared_ptr<base::IPhysicalConnection> Connect() { return Connect(ClientParameters(port)); }
  // A path in the environment's private temporary directory.
  std::string PathOf(const std::string& name) const { return directory_ + "/" + name; }

  void Shutdown();

  TestHandlerFactory server_factory;
  TestHandlerFactory client_factory;
  boost::shared_ptr<base::IConnectionIOService> server_service;
  boost::shared_ptr<base::IConnectionIOService> client_service;
  boost::shared_ptr<base::IServerConnection> server;
  std::vector<boost::shared_ptr<base::IPhysicalConnection>> clients;
  unsigned short port = 0;

 private:
  std::string directory_;
  bool shut_down_ = false;
};

}  // namespace test
}  // namespace apm
