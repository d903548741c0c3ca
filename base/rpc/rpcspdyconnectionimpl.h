// CSpdyConnectionImpl<Stream>: what a CSpdyConnection needs of its socket: the TLS
// context and stream, the connector (resolve, connect to each address in turn),
// the TLS handshake with peer verification against the trusted fingerprints, the
// version exchange on both sides, the read loop and the writing of the queue.
// The one instantiation is over boost::asio::ssl::stream<tcp::socket>.
//
// The TLS context is made anew for every connection, so that a changed certificate
// file is used by the next connection. The acceptor makes its connections ahead of
// the client's arrival (create, then init_socket(true)) and accepts into
// lowest_layer().
//
// Ownership and threads as for CSpdyConnection: shared pointers, and all state on
// the connection's strand. The address getters may be called from any thread.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <atomic>
#include <memory>
#include <vector>

#include "base/rpc/rpcspdyconnection.h"

namespace apm {
namespace base {

template <class Stream>
class CSpdyConnectionImpl : public CSpdyConnection,
                            public boost::enable_shared_from_this<CSpdyConnectionImpl<Stream>> {
 public:
  typedef boost::asio::ip::tcp::resolver::results_type ResolveResults;
  typedef ResolveResults::iterator ResolveIterator;

  // The one maker of connections: the connector passes an empty `server` and key 0,
  // the acceptor itself and its next key.
  static boost::shared_ptr<CSpdyConnectionImpl> create(const boost::shared_ptr<CConnectionIOService>& service,
                                                       IConnectionHandlerFactory* factory,
                                                       const boost::shared_ptr<IServerConnection>& server,
                                                       uint32_t server_key,
                                                       const RPCConnectionParameters& parameters);
  ~CSpdyConnectionImpl() override;

  boost::shared_ptr<CSpdyConnection> get_pointer() override;
  std::string get_remote_address() override;
  std::string get_local_address() override;

  // Sets up the TLS context from the parameters (unless there is no certificate
  // file) and makes the stream over a new TCP socket. True at once if the stream
  // exists. On failure the reason is on the thread's error record.
  bool init_socket(bool server);
  // The TCP socket under TLS, for the acceptor. init_socket must have succeeded.
  typename Stream::lowest_layer_type& lowest_layer() { return socket->lowest_layer(); }

  // Accepting side, after the accept (any thread): posts handle_start_server, which
  // sets the flags, the socket options and the connect time-out, and begins the TLS
  // handshake as server.
  void start_server() override;

 protected:
  void start_connect() override;
  void start_write() override;
  void shutdown() override;

 private:
  CSpdyConnectionImpl(const boost::shared_ptr<CConnectionIOService>& service, IConnectionHandlerFactory* factory,
                      const boost::shared_ptr<IServerConnection>& server, uint32_t server_key,
                      const RPCConnectionParameters& parameters);

  bool verify_callback(bool preverified, boost::asio::ssl::verify_context& context);
  void note_socket_descriptor();

  // Connecting side.
  void handle_connect();
  void handle_resolve(const boost::system::error_code& error, const ResolveResults& results);
  void start_socket_connect(ResolveIterator first);
  void handle_socket_connect(const boost::system::error_code& error, ResolveIterator next);
  void handle_client_handshake(const boost::system::error_code& error);
  void handle_send_version_rpc(const boost::system::error_code& error);
  void handle_read_version_rpc_response_head(const boost::system::error_code& error, std::size_t bytes);
  void handle_read_version_rpc_response_error(const boost::system::error_code& error, std::size_t bytes);
  void read_version_rpc_response_data();
  void handle_read_version_rpc_response_data_length(const boost::system::error_code& error, std::size_t bytes);
  void handle_read_version_rpc_response_data(const boost::system::error_code& error, std::size_t bytes);
  // Stores a failure with its text and reports the outcome.
  void fail_connect(const boost::system::error_code& error, const std::string& text);

  // Accepting side.
  void handle_start_server();
  void handle_server_handshake(const boost::system::error_code& error);
  void handle_read_version_rpc_request_header(const boost::system::error_code& error, std::size_t bytes);
  void handle_read_version_rpc_request_data(const boost::system::error_code& error, std::size_t bytes);
  void handle_send_version_rpc_response(const boost::system::error_code& error);
  void handle_send_version_rpc_deny(const boost::system::error_code& error);

  // The read loop: one read outstanding for the life of the connection.
  void recv_frame();
  void handle_recv(const boost::system::error_code& error, std::size_t bytes);
  // Dispatches every complete frame received; false when the loop must end.
  bool process_received();
  // Moves the frames of the queue into `outgoing` and frees their buffers.
  void gather_queued_frames();
  // Writes what `outgoing` holds in one write, unless a write is under way.
  void write_outgoing();
  // A worker's frames, written on its thread and completed there if they are few
  // and the socket's send queue is empty; false if they must take the asynchronous
  // way.
  bool write_outgoing_at_once();
  // A worker's frames that need not leave at once wait for its next message, or for
  // this timer; any thread that writes takes them along.
  void arm_flush_timer();
  void handle_flush_timer();
  // `writing` is true while a write is posted, under way or waiting for the timer.
  void update_writing();
  // The write posted by start_write.
  void handle_posted_write();
  void handle_write(const boost::system::error_code& error);
  // Begins the TLS shutdown (close_notify); only with no write in progress.
  void start_tls_shutdown();
  void handle_shutdown(const boost::system::error_code& error);

  // A completion handler that runs on the connection's strand.
  template <class Handler>
  boost::asio::executor_binder<Handler, Strand> on_strand(Handler handler) {
    return boost::asio::bind_executor(strand, handler);
  }

  boost::asio::ssl::context ssl_context;
  std::unique_ptr<Stream> socket;
  bool secured = false;
  // The TLS shutdown waits for the write in progress: a close_notify produced
  // while a write is under way would never be flushed.
  bool tls_shutdown_deferred = false;
  bool tls_shutdown_started = false;
  boost::asio::steady_timer flush_timer;
  bool flush_armed = false;
  std::atomic<int> socket_descriptor{-1};
  ResolveResults resolved;
  // The version exchange message being written.
  std::vector<uint8_t> handshake_message;
  // Bytes received and not yet dispatched as frames.
  std::vector<uint8_t> receive_staging;
  std::size_t receive_begin = 0;
  std::size_t receive_end = 0;
  // Where the payload of a received control frame lands: it is read only while the
  // frame is handled, so it needs no buffer of its own (a data frame's payload is
  // handed on, in a buffer allocated for it).
  CNetworkBuffer control_payload;
  // The bytes of frames queued and not yet written, and those of the write in
  // progress. Both keep their capacity, so that a busy connection does not
  // allocate for every write.
  std::vector<uint8_t> outgoing;
  std::vector<uint8_t> in_flight;
};

typedef CSpdyConnectionImpl<boost::asio::ssl::stream<boost::asio::ip::tcp::socket>> CSpdySslConnection;

}  // namespace base
}  // namespace apm
