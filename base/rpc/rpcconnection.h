// The interfaces between the RPC connection engine, its streams and its users.
//
// IPhysicalConnection is one TLS connection carrying many streams (implemented by
// CSpdyConnection, base/rpc/rpcspdyconnection.h). ILogicalConnection is the
// engine's view of one stream (CLogicalConnection), IReceiveStream the receiving
// end that the engine feeds (CLogicalConnectionStream). IConnectionHandlerFactory
// is what a user of the engine implements to hear of connections and to accept
// streams opened by the peer. IServerConnection is the acceptor, and
// IConnectionIOService the pool of I/O threads that runs connections.
//
// Objects behind these interfaces live by boost::shared_ptr. Which operations may
// be called from which thread is told with each implementation; the factory's
// operations are called on a connection's I/O strand and must not block.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>

#include "base/rpc/networkbuffer.h"
#include "base/rpc/rpcconnectionheaders.h"
#include "base/rpc/rpcconnectionparameters.h"

namespace apm {
namespace base {

class IConnectionHandlerFactory;
class IConnectionIOService;
class ILogicalConnection;
class IReceiveStream;
class IServerConnection;

class IPhysicalConnection {
 public:
  virtual ~IPhysicalConnection() = default;

  // Starts connecting (connecting side); the result shows in create_connection.
  virtual bool connect() = 0;
  // True once the connection is closing, closed by the peer, failed or stopped.
  virtual bool is_stopped() = 0;
  // Orderly close (GOAWAY, streams finish) or, with `force`, an immediate stop.
  virtual void close(bool force) = 0;
  // Waits for the outcome of connecting, then opens a new stream fed into
  // `receive_stream`. Empty with the reason on the thread's error record when the
  // connection is not open. Blocks: never call it on an I/O thread.
  virtual boost::shared_ptr<ILogicalConnection> create_connection(
      const boost::shared_ptr<IReceiveStream>& receive_stream) = 0;
  // The peer's version, its service's start timestamp, this connection's id and the
  // latest ping round trip in units of 100 ns. Each first puts the connection's
  // failure, if any, on the thread's error record.
  virtual uint64_t get_version() = 0;
  virtual uint64_t get_start_timestamp() = 0;
  virtual uint32_t get_connection_id() = 0;
  virtual uint64_t get_round_trip_time() = 0;
  virtual std::string get_remote_address() = 0;
  virtual std::string get_local_address() = 0;

  // A new pool of `threads` I/O threads, already running.
  static boost::shared_ptr<IConnectionIOService> CreateIOService(unsigned int threads);
  // A new outgoing connection that has begun connecting; it does not wait for the
  // outcome.
  static boost::shared_ptr<IPhysicalConnection> CreateSpdyClientConnection(
      const boost::shared_ptr<IConnectionIOService>& service, IConnectionHandlerFactory* factory,
      const RPCConnectionParameters& parameters);
};

class ILogicalConnection {
 public:
  virtual ~ILogicalConnection() = default;

  virtual uint64_t get_version() = 0;
  virtual CNetworkBuffer* alloc_buffer() = 0;
  // Releases a received buffer; one with data acknowledges its length to the peer.
  virtual void free_buffer(const CNetworkBuffer* buffer) = 0;
  // Opens the stream from the connecting side (SYN_STREAM).
  virtual void init(const RPCConnectionHeaders& headers) = 0;
  // Sends a buffer, taking it over; may block while the send window is full.
  virtual void send_data(CNetworkBuffer* buffer, bool end_of_segment) = 0;
  virtual void send_headers(const RPCConnectionHeaders& headers) = 0;
  virtual void send_terminate() = 0;
  virtual void send_close() = 0;
  virtual boost::shared_ptr<IPhysicalConnection> get_physical_connection() = 0;
};

// While an object of this class lives on a thread, the data frames with which that
// thread ends a segment wait for its next frame instead of leaving at once, so that
// a message's end, an empty segment and the stream's FLAG_FIN go out in one write.
// A frame with FLAG_FIN always leaves at once. Thread-local; objects may nest.
class SendBatch {
 public:
  SendBatch() { ++depth(); }
  ~SendBatch() { --depth(); }
  SendBatch(const SendBatch&) = delete;
  SendBatch& operator=(const SendBatch&) = delete;
  static bool active() { return depth() != 0; }

 private:
  static int& depth() {
    static thread_local int batches = 0;
    return batches;
  }
};

class IReceiveStream {
 public:
  virtual ~IReceiveStream() = default;

  // Called by the engine on the connection's strand; they must not block.
  virtual void recv_data(const CNetworkBuffer* buffer, bool end_of_segment) = 0;
  virtual void recv_closed() = 0;
  virtual void recv_connection_closing() = 0;
  virtual void recv_terminated(unsigned int status, const std::string& text) = 0;
  virtual void recv_headers(RPCConnectionHeaders& headers) = 0;

  virtual boost::shared_ptr<ILogicalConnection> get_connection() = 0;
  virtual void set_connection(const boost::shared_ptr<ILogicalConnection>& connection) = 0;
  virtual bool is_receive_closed() = 0;
  virtual bool is_connection_closing() = 0;
};

class IConnectionHandlerFactory {
 public:
  virtual ~IConnectionHandlerFactory() = default;

  // A stream opened by the peer with `headers`: the receive stream that takes it,
  // or empty to refuse it (RST_STREAM status 3).
  virtual boost::shared_ptr<IReceiveStream> create_client_connection(
      const boost::shared_ptr<IPhysicalConnection>& connection, RPCConnectionHeaders& headers,
      const boost::shared_ptr<ILogicalConnection>& logical_connection) = 0;
  // An accepted connection has passed TLS and the version check; false denies it,
  // with the code and text on the thread's error record sent to the peer.
  virtual bool connection_opened(const boost::shared_ptr<IPhysicalConnection>& /*connection*/) {
    return true;
  }
  // The connection has ended; called once, after which it takes no new streams.
  virtual void connection_closed(const boost::shared_ptr<IPhysicalConnection>& connection) = 0;
  // The acceptor's loop has ended for good.
  virtual void acceptor_closed(const boost::shared_ptr<IServerConnection>& server) = 0;
};

// The factory of outgoing connections' users (the client session manager).
class IClientConnectionHandlerFactory : public IConnectionHandlerFactory {};

class IServerConnection {
 public:
  virtual ~IServerConnection() = default;

  // Listens on `parameters.port` of all IPv4 interfaces. Blocks until the first
  // attempt is done; never call it on a thread of the acceptor's service.
  virtual bool bind(const RPCConnectionParameters& parameters) = 0;
  virtual void close(bool force) = 0;
  virtual void unregister(unsigned int key) = 0;

  // A new, unbound acceptor whose connections report to `factory`.
  static boost::shared_ptr<IServerConnection> CreateSpdyServer(
      const boost::shared_ptr<IConnectionIOService>& service, IConnectionHandlerFactory* factory);
};

class IConnectionIOService {
 public:
  virtual ~IConnectionIOService() = default;
  // Lets the threads end once no work is left, and joins them.
  virtual void shutdown() = 0;
};

}  // namespace base
}  // namespace apm
