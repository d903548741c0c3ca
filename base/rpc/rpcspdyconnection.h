// CSpdyConnection: one TCP-and-TLS connection seen as a machine that turns bytes
// into frames and frames into calls on logical connections, and back: the handling
// of every frame, the write queue, stream ids, the acknowledging side of flow
// control, ping, the connect time-out and the way a connection ends. The socket,
// TLS, the connector, the version exchange and the read loop are in the derived
// CSpdyConnectionImpl (base/rpc/rpcspdyconnectionimpl.h), so that this logic does
// not see the socket type.
//
// Ownership: always held by boost::shared_ptr; every posted handler and pending
// operation holds one, so the object lives until the last of them has run. It
// holds its I/O service, the acceptor that made it (if any) and its logical
// connections only weakly (the stream table).
//
// Threads: all state belongs to one strand and is touched there without a lock.
// Other threads come in only by the operations marked "any thread", which post to
// the strand; of these only create_connection blocks. Flags read by other threads
// are atomic; the stored failure is read and written under connect_condition.
#pragma once

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/deadline_timer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/system/error_code.hpp>
#include <boost/weak_ptr.hpp>
#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include "base/conditionvariable.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcconnectionioservice.h"
#include "base/rpc/rpcconnectionstrand.h"
#include "base/rpc/rpcframe.h"

namespace apm {
namespace base {

class CLogicalConnection;

class CSpdyConnection : public IPhysicalConnection {
 public:
  typedef CConnectionStrand Strand;

  ~CSpdyConnection() override;
  CSpdyConnection(const CSpdyConnection&) = delete;
  CSpdyConnection& operator=(const CSpdyConnection&) = delete;

  // IPhysicalConnection; any thread.
  bool connect() override;
  bool is_stopped() override;
  void close(bool force) override;
  boost::shared_ptr<ILogicalConnection> create_connection(
      const boost::shared_ptr<IReceiveStream>& receive_stream) override;
  uint64_t get_version() override;
  uint64_t get_start_timestamp() override;
  uint32_t get_connection_id() override;
  uint64_t get_round_trip_time() override;

  // Any thread: posts handle_stop.
  void stop();

  // Any thread: bind a copy of the arguments to the send_... operation of the same
  // name and post it to the strand. They never block. Those that a worker calls for
  // its stream (syn_stream, syn_reply, headers, data, created_connection and the
  // window update by stream) run the operation on the calling thread instead when
  // the strand is idle: their handlers take no lock but those of the stream's
  // logical connection and stream, which no caller holds when it sends, and the
  // window update none at all (a reader frees buffers under the stream's mutex).
  void post_syn_stream(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                       uint32_t associated, uint32_t priority, const RPCConnectionHeaders& headers);
  void post_syn_reply(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                      const RPCConnectionHeaders& headers);
  void post_headers(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                    const RPCConnectionHeaders& headers);
  void post_data(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags, CNetworkBuffer* buffer);
  void post_window_update(uint32_t stream_id, uint32_t delta);
  void post_created_connection(const boost::shared_ptr<CLogicalConnection>& logical);
  void post_terminate(uint32_t stream_id, uint32_t status);
  // The same for a stream of a worker, whose id is read on the strand: the id of a
  // stream opened by this side may not be assigned yet when the worker posts.
  void post_window_update(const boost::shared_ptr<CLogicalConnection>& logical, uint32_t delta);
  void post_terminate(const boost::shared_ptr<CLogicalConnection>& logical, uint32_t status);

  // The virtual functions this class adds, in their slot order: get_pointer,
  // start_connect, start_write, start_server, shutdown.

  // A shared pointer to this object.
  virtual boost::shared_ptr<CSpdyConnection> get_pointer() = 0;

 protected:
  // Implemented by the derived class, on the strand unless told otherwise.
  virtual void start_connect() = 0;  // any thread: posts the connector
  virtual void start_write() = 0;

 public:
  // Accepting side, called once the socket has been accepted: sets the flags of an
  // accepted connection (the derived class goes on with TLS).
  virtual void start_server();

 protected:
  virtual void shutdown() = 0;

  CSpdyConnection(const boost::shared_ptr<CConnectionIOService>& service, IConnectionHandlerFactory* factory,
                  const boost::shared_ptr<IServerConnection>& server, uint32_t server_key,
                  const RPCConnectionParameters& parameters);

  // A pending frame: the 8 header bytes ready for the wire and the payload, if any.
  struct PendingFrame {
    uint8_t header[FRAME_HEADER_SIZE];
    CNetworkBuffer* buffer;
  };

  // Strand only, from here on.
  void handle_close(bool force);
  void handle_stop();

  void send_control_frame(uint16_t type, uint8_t flags, CNetworkBuffer* buffer);
  void send_ping(uint32_t id);
  void send_rst_stream(uint32_t stream_id, uint32_t status);
  void send_window_update(uint32_t stream_id, uint32_t delta);
  void send_syn_stream(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                       uint32_t associated, uint32_t priority, const RPCConnectionHeaders& headers);
  void send_syn_reply(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                      const RPCConnectionHeaders& headers);
  void send_headers(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                    const RPCConnectionHeaders& headers);
  void send_data(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags, CNetworkBuffer* buffer);
  void send_terminate(uint32_t stream_id, uint32_t status);
  void reset_stream(uint32_t stream_id, uint32_t status);
  void remove_connection(uint32_t stream_id);
  // A closing connection with no write on its way and no stream left stops.
  void stop_if_finished();
  void signal_connection_closing();
  void signal_connection_closed();
  void init_created_connection(const boost::shared_ptr<CLogicalConnection>& logical);

  // A received frame whose payload, if any, is in read_buffer.
  void process_frame(const FrameHeader& header);
  void process_control_frame(const FrameHeader& header);
  void process_control_frame_syn_stream(const FrameHeader& header);
  void process_control_frame_syn_reply(const FrameHeader& header);
  void process_control_frame_headers(const FrameHeader& header);
  void process_control_frame_ping();
  void process_control_frame_goaway();
  void process_control_frame_window_update();
  void process_data_frame(const FrameHeader& header);

  void start_ping();
  void handle_ping_timer(const boost::system::error_code& error);
  void start_connect_timeout();
  void handle_connect_timer(const boost::system::error_code& error);
  // The outcome of connecting and the version exchange, on either side.
  void _connect_result(bool ok);

  // Puts the stored failure on the calling thread's error record, unless connected.
  void set_error();
  // Stores a failure of connecting (the code and the text).
  void set_connect_failure(const boost::system::error_code& error, const std::string& text);
  void set_connect_failure_text(const std::string& text);

  // Sends a header frame (SYN_REPLY or HEADERS: stream id and block); false when
  // nothing was queued because the connection is not open.
  bool send_header_frame(uint16_t type, const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                         const RPCConnectionHeaders& headers);
  // Tells a stream that a frame could not go out because the connection is not open.
  void report_not_connected(const boost::shared_ptr<CLogicalConnection>& logical);
  boost::shared_ptr<CLogicalConnection> find_live_stream(uint32_t stream_id);
  uint64_t timer_milliseconds(uint32_t units) const;

  boost::shared_ptr<CConnectionIOService> service;
  IConnectionHandlerFactory* handler_factory;
  boost::shared_ptr<IServerConnection> server;
  uint32_t server_key;
  boost::asio::deadline_timer timer;
  Strand strand;
  boost::asio::ip::tcp::resolver resolver;
  RPCConnectionParameters parameters;
  bool is_server = false;
  uint32_t next_stream_id = 1;
  uint32_t last_ping_id = 1;
  CNetworkBuffer* read_buffer = nullptr;
  // A frame is on its way to the socket: a write is posted or under way, or held
  // frames wait for the flush timer.
  bool writing = false;
  // Two of the parts of `writing`: write_outgoing is posted and has not run yet, and
  // the socket's write is under way.
  bool write_posted = false;
  bool write_in_flight = false;
  // Set while a worker's message end or stream end is handled on the worker's own
  // thread: the write happens there at once instead of being posted.
  bool write_at_once = false;
  // Set while a worker's full data frame, or an acknowledgement beyond the held
  // limit, is handled on its thread: the write is posted to the I/O threads at once
  // rather than left for the worker's next message.
  bool write_soon = false;
  // Bytes acknowledged by window updates that wait in `outgoing` for a write.
  uint64_t held_acknowledgements = 0;
  // Held acknowledgements beyond this are written without waiting: far below a
  // stream's window, so that a sender never waits for an acknowledgement held here.
  static constexpr uint64_t kHeldAcknowledgementLimit = 65536;
  std::deque<PendingFrame> write_queue;
  std::atomic<bool> connecting{false};
  std::atomic<bool> connected{false};
  std::atomic<bool> connect_done{false};
  std::atomic<bool> closing{false};
  std::atomic<bool> peer_closed{false};
  // The version exchange has succeeded: frames may flow.
  bool exchange_done = false;
  CNetworkBuffer* handshake_buffer = nullptr;
  ConditionVariable connect_condition;
  boost::system::error_code last_error;  // guarded by connect_condition
  std::string error_text;                // guarded by connect_condition
  uint32_t handshake_status = 0;
  std::string handshake_error_text;
  uint32_t last_ping_echoed = 0;
  uint64_t ping_sent_at = 0;
  std::atomic<uint64_t> round_trip_time{0};
  std::map<uint32_t, boost::weak_ptr<CLogicalConnection>> streams;
  uint64_t remote_version = 0;
  uint64_t remote_start_timestamp = 0;
  uint32_t connection_id = 0;
};

}  // namespace base
}  // namespace apm
