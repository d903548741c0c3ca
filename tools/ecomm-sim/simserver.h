// SimServer: ecomm-sim in the role of the main server. It listens with TLS on all
// IPv4 interfaces, accepts the clients whose fingerprints are in its trust file and
// answers the daemon's calls from a SimData: 3020 "Infrastructure Get", 3320
// "OAuth Set Token" and 3321 "OAuth Get Tokens". Every call received is reported
// as one line to the call log, e.g.
//   3321 OAuth Get Tokens user=alice target=12 tokenType= -> 1 token(s)
//
// It owns its I/O threads, its acceptor, a scheduler whose workers run the
// handlers, and the handler table; it refers to the SimData and the log stream,
// which must outlive it. Start and Stop belong to one thread; the handlers run on
// any worker at once, and the log takes a lock per line.
#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <mutex>
#include <ostream>
#include <string>

#include "base/apmmodule.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpchandler.h"
#include "base/scheduler.h"
#include "protocol/rpcauthtoken.h"
#include "protocol/rpcinfrastructure.h"
#include "tools/ecomm-sim/simdata.h"

namespace apm {
namespace tools {

class SimServer : public base::IConnectionHandlerFactory, private boost::noncopyable {
 public:
  SimServer(SimData& data, std::ostream& log);
  ~SimServer() override;

  // Listens on `port` (0: a free one) with the certificate file and trust file
  // given; false with the reason on the thread's error record.
  bool Start(unsigned int port, const std::string& certificateFile, const std::string& trustFile);
  // The port listened on, once started.
  unsigned short GetPort() const { return port_; }
  // Closes the acceptor and the connections, joins the I/O threads and the workers.
  void Stop();

  boost::shared_ptr<base::IReceiveStream> create_client_connection(
      const boost::shared_ptr<base::IPhysicalConnection>& connection, base::RPCConnectionHeaders& headers,
      const boost::shared_ptr<base::ILogicalConnection>& logicalConnection) override;
  void connection_closed(const boost::shared_ptr<base::IPhysicalConnection>& connection) override;
  void acceptor_closed(const boost::shared_ptr<base::IServerConnection>& acceptor) override;

  // The module the handlers report under.
  base::CAPMModule* GetModule() const;

  // RPC 3020.
  bool InfrastructureGet(const protocol::InfrastructureGetInfoRequest& request,
                         protocol::InfrastructureGetInfoResponse& response);
  // RPC 3320.
  bool OAuthSetToken(const protocol::AuthToken& request, protocol::EmptyResponse& response);
  // RPC 3321.
  bool OAuthGetTokens(const protocol::AuthTokenRequest& request, protocol::AuthTokenList& response);

 private:
  void LogLine(const std::string& line);

  SimData& data_;
  std::ostream& log_;
  std::mutex logMutex_;
  base::Scheduler scheduler_;
  boost::shared_ptr<base::IConnectionIOService> ioService_;
  boost::shared_ptr<base::IServerConnection> server_;
  base::GenericRPCHandlerMap<unsigned short> handlers_;
  unsigned short port_ = 0;
  bool stopped_ = false;
};

}  // namespace tools
}  // namespace apm
