// CSpdyServerConnection: the acceptor of RPC connections. It listens on all IPv4
// interfaces, prepares the next connection (with its TLS context) before a client
// arrives, accepts into it and starts it as an accepting-side connection.
//
// Ownership: held by boost::shared_ptr; each connection it made holds it too, and
// it holds them only weakly (`connections`, by key), so it lives until the last of
// its connections has gone. An acceptor goes from created to bound to closed, and
// cannot be bound again after close.
//
// Threads: all state lives on the acceptor's own strand. bind() blocks its caller
// until the strand has made the attempt (it must not be called on a thread of the
// same service); bind_done is never reset, so a later bind posts another attempt
// and returns the outcome of an earlier one. close and unregister post.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/strand.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/system/error_code.hpp>
#include <boost/weak_ptr.hpp>
#include <cstdint>
#include <map>

#include "base/conditionvariable.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcconnectionioservice.h"
#include "base/rpc/rpcspdyconnectionimpl.h"

namespace apm {
namespace base {

class CSpdyServerConnection : public IServerConnection,
                              public boost::enable_shared_from_this<CSpdyServerConnection> {
 public:
  CSpdyServerConnection(const boost::shared_ptr<CConnectionIOService>& service, IConnectionHandlerFactory* factory);
  ~CSpdyServerConnection() override;
  CSpdyServerConnection(const CSpdyServerConnection&) = delete;
  CSpdyServerConnection& operator=(const CSpdyServerConnection&) = delete;

  bool bind(const RPCConnectionParameters& parameters) override;
  void close(bool force) override;
  void unregister(unsigned int key) override;

  // The port actually listened on once bound (the chosen one for port 0), else 0.
  unsigned short get_bound_port();

 private:
  void handle_bind(const RPCConnectionParameters& new_parameters);
  void finish_bind(const boost::system::error_code& error);
  void start_accept_v4();
  void handle_accept_v4(const boost::shared_ptr<CSpdySslConnection>& connection,
                        const boost::system::error_code& error);
  void handle_close(bool force);
  void handle_unregister(unsigned int key);

  boost::shared_ptr<CConnectionIOService> service;
  IConnectionHandlerFactory* handler_factory;
  boost::asio::io_context& io_service;
  boost::asio::strand<boost::asio::io_context::executor_type> strand;
  boost::asio::ip::tcp::acceptor acceptor_v4;
  boost::asio::ip::tcp::acceptor acceptor_v6;
  RPCConnectionParameters parameters;
  uint32_t next_key = 1;
  bool binding = false;
  bool bound = false;     // guarded by condition
  bool bind_done = false; // guarded by condition
  bool closed = false;
  unsigned short bound_port = 0;  // guarded by condition
  ConditionVariable condition;
  boost::system::error_code last_error;  // guarded by condition
  std::map<uint32_t, boost::weak_ptr<CSpdyConnection>> connections;
};

}  // namespace base
}  // namespace apm
