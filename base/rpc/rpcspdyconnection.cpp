#include "base/rpc/rpcspdyconnection.h"

#include <sys/time.h>

#include <boost/asio/post.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <vector>

#include "base/famerror.h"
#include "base/rpc/rpclogicalconnection.h"

namespace apm {
namespace base {

namespace {

const char kStreamInUse[] = "stream in use";
const char kRequestRefused[] = "request refused";
const char kReset[] = "reset";

uint64_t microseconds_now() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000000ull + static_cast<uint64_t>(now.tv_usec);
}

}  // namespace

CSpdyConnection::CSpdyConnection(const boost::shared_ptr<CConnectionIOService>& service,
                                 IConnectionHandlerFactory* factory,
                                 const boost::shared_ptr<IServerConnection>& server, uint32_t server_key,
                                 const RPCConnectionParameters& parameters)
    : service(service),
      handler_factory(factory),
      server(server),
      server_key(server_key),
      timer(service->get_io_service()),
      strand(service->get_io_service()),
      resolver(service->get_io_service()),
      parameters(parameters),
      connection_id(parameters.connection_id) {}

CSpdyConnection::~CSpdyConnection() {
  for (PendingFrame& frame : write_queue) CNetworkBuffer::Free(frame.buffer);
  CNetworkBuffer::Free(read_buffer);
  CNetworkBuffer::Free(handshake_buffer);
  if (server) server->unregister(server_key);
}

// ---------------------------------------------------------------------------
// Any thread

bool CSpdyConnection::connect() {
  is_server = false;
  next_stream_id = 1;
  last_ping_id = 1;
  start_connect();
  return true;
}

bool CSpdyConnection::is_stopped() {
  if (closing || peer_closed) return true;
  if (!connect_done) return false;
  return !connected;
}

void CSpdyConnection::close(bool force) {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  boost::asio::post(strand, [self, force]() { self->handle_close(force); });
}

void CSpdyConnection::stop() {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  boost::asio::post(strand, [self]() { self->handle_stop(); });
}

boost::shared_ptr<ILogicalConnection> CSpdyConnection::create_connection(
    const boost::shared_ptr<IReceiveStream>& receive_stream) {
  {
    ConditionVariable::ScopedLock lock(connect_condition);
    while (!connect_done) connect_condition.Wait();
  }
  set_error();
  if (!connected || peer_closed) return boost::shared_ptr<ILogicalConnection>();
  boost::shared_ptr<CLogicalConnection> logical = CLogicalConnection::create(get_pointer(), false);
  logical->set_receive_stream(receive_stream);
  // The id is assigned on the strand ahead of every frame this stream posts.
  post_created_connection(logical);
  return logical;
}

uint64_t CSpdyConnection::get_version() {
  set_error();
  return remote_version;
}

uint64_t CSpdyConnection::get_start_timestamp() {
  set_error();
  return remote_start_timestamp;
}

uint32_t CSpdyConnection::get_connection_id() {
  set_error();
  return connection_id;
}

uint64_t CSpdyConnection::get_round_trip_time() {
  set_error();
  return round_trip_time.load(std::memory_order_relaxed);
}

void CSpdyConnection::set_error() {
  if (connected) return;
  boost::system::error_code error;
  std::string text;
  {
    ConditionVariable::ScopedLock lock(connect_condition);
    error = last_error;
    text = error_text;
  }
  if (error) {
    FamError::SetError(error.value(), text + " (" + error.message() + ")");
  } else if (text.empty()) {
    FamError::SetError(E_FAIL_CODE, "not connected");
  } else {
    FamError::SetError(E_FAIL_CODE, text);
  }
}

void CSpdyConnection::set_connect_failure(const boost::system::error_code& error, const std::string& text) {
  ConditionVariable::ScopedLock lock(connect_condition);
  last_error = error;
  error_text = text;
}

void CSpdyConnection::set_connect_failure_text(const std::string& text) {
  ConditionVariable::ScopedLock lock(connect_condition);
  error_text = text;
}

void CSpdyConnection::post_syn_stream(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                                      uint32_t associated, uint32_t priority,
                                      const RPCConnectionHeaders& headers) {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  strand.run_or_post([self, logical, flags, associated, priority, headers]() {
    self->send_syn_stream(logical, flags, associated, priority, headers);
  });
}

void CSpdyConnection::post_syn_reply(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                                     const RPCConnectionHeaders& headers) {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  strand.run_or_post([self, logical, flags, headers]() { self->send_syn_reply(logical, flags, headers); });
}

void CSpdyConnection::post_headers(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                                   const RPCConnectionHeaders& headers) {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  strand.run_or_post([self, logical, flags, headers]() { self->send_headers(logical, flags, headers); });
}

void CSpdyConnection::post_data(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                                CNetworkBuffer* buffer) {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  strand.run_or_post([self, logical, flags, buffer]() {
    // Run by the worker itself, the end of a message (a segment's last frame, unless
    // a SendBatch holds it for what follows) and the end of the stream leave from its
    // thread at once, with everything the worker queued before; full frames of a
    // long message are written from the I/O threads, which gather them.
    const bool worker = CConnectionStrand::running_for_caller();
    const bool ends_stream = (flags & FLAG_FIN) != 0;
    const bool ends_segment = (flags & FLAG_END_SEGMENT) != 0;
    self->write_at_once = worker && (ends_stream || (ends_segment && !SendBatch::active()));
    self->write_soon = worker && !ends_stream && !ends_segment && buffer != nullptr;
    self->send_data(logical, flags, buffer);
    self->write_at_once = false;
    self->write_soon = false;
  });
}

void CSpdyConnection::post_window_update(uint32_t stream_id, uint32_t delta) {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  boost::asio::post(strand, [self, stream_id, delta]() { self->send_window_update(stream_id, delta); });
}

void CSpdyConnection::post_created_connection(const boost::shared_ptr<CLogicalConnection>& logical) {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  strand.run_or_post([self, logical]() { self->init_created_connection(logical); });
}

void CSpdyConnection::post_terminate(uint32_t stream_id, uint32_t status) {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  boost::asio::post(strand, [self, stream_id, status]() { self->send_terminate(stream_id, status); });
}

void CSpdyConnection::post_window_update(const boost::shared_ptr<CLogicalConnection>& logical, uint32_t delta) {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  strand.run_or_post([self, logical, delta]() {
    // Run by the reading worker, an acknowledgement waits for the worker's next
    // message, which takes it along, unless so much is held back that the peer's
    // sender may soon wait for it.
    self->held_acknowledgements += delta;
    self->write_soon =
        CConnectionStrand::running_for_caller() && self->held_acknowledgements >= kHeldAcknowledgementLimit;
    self->send_window_update(logical->get_stream_id(), delta);
    self->write_soon = false;
  });
}

void CSpdyConnection::post_terminate(const boost::shared_ptr<CLogicalConnection>& logical, uint32_t status) {
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  boost::asio::post(strand, [self, logical, status]() { self->send_terminate(logical->get_stream_id(), status); });
}

void CSpdyConnection::start_server() {
  is_server = true;
  connected = true;
  connect_done = true;
  last_ping_id = 2;
  next_stream_id = 2;
}

// ---------------------------------------------------------------------------
// Closing

void CSpdyConnection::handle_close(bool force) {
  closing = true;
  if (!exchange_done) {
    if (!connecting && !connect_done) {
      // An acceptor's connection still waiting for its client: its socket belongs
      // to the pending accept, so nothing touches it here. The connection reports
      // its end and, without a factory, never starts.
      signal_connection_closed();
      return;
    }
    // Connecting, in TLS or in the version exchange: no frame may go out yet and
    // no stream exists, so the connection ends at once; the connect under way fails
    // as it does at its time-out.
    handle_stop();
    return;
  }
  CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
  pack_goaway(buffer, 0, SPDY_STATUS_CANCEL);
  send_control_frame(SPDY_GOAWAY, 0, buffer);
  if (force) {
    stop();
  } else {
    signal_connection_closing();
  }
}

void CSpdyConnection::handle_stop() {
  signal_connection_closed();
  // Erase first and tell afterwards: a stream told of its end may release the last
  // reference to its logical connection.
  std::map<uint32_t, boost::weak_ptr<CLogicalConnection>> ended;
  ended.swap(streams);
  for (auto& entry : ended) {
    if (boost::shared_ptr<CLogicalConnection> logical = entry.second.lock()) {
      logical->recv_terminated(SPDY_STATUS_STREAM_IN_USE, kStreamInUse);
    }
  }
  shutdown();
  boost::system::error_code ignored;
  resolver.cancel();
  timer.cancel(ignored);
  connected = false;
  connecting = false;
}

void CSpdyConnection::signal_connection_closing() {
  std::vector<boost::shared_ptr<CLogicalConnection>> live;
  for (auto& entry : streams) {
    if (boost::shared_ptr<CLogicalConnection> logical = entry.second.lock()) live.push_back(logical);
  }
  for (auto& logical : live) logical->recv_connection_closing();
}

void CSpdyConnection::signal_connection_closed() {
  if (handler_factory == nullptr) return;
  IConnectionHandlerFactory* factory = handler_factory;
  handler_factory = nullptr;
  factory->connection_closed(get_pointer());
}

// ---------------------------------------------------------------------------
// Sending

void CSpdyConnection::send_control_frame(uint16_t type, uint8_t flags, CNetworkBuffer* buffer) {
  PendingFrame frame;
  pack_control_frame_header(frame.header, type, flags, buffer ? buffer->length : 0);
  frame.buffer = buffer;
  write_queue.push_back(frame);
  start_write();
}

void CSpdyConnection::send_ping(uint32_t id) {
  CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
  pack_ping(buffer, id);
  send_control_frame(SPDY_PING, 0, buffer);
}

void CSpdyConnection::send_rst_stream(uint32_t stream_id, uint32_t status) {
  CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
  pack_rst_stream(buffer, stream_id, status);
  send_control_frame(SPDY_RST_STREAM, 0, buffer);
}

void CSpdyConnection::send_window_update(uint32_t stream_id, uint32_t delta) {
  CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
  pack_window_update(buffer, stream_id, delta);
  send_control_frame(SPDY_WINDOW_UPDATE, 0, buffer);
}

void CSpdyConnection::report_not_connected(const boost::shared_ptr<CLogicalConnection>& logical) {
  boost::system::error_code error;
  {
    ConditionVariable::ScopedLock lock(connect_condition);
    error = last_error;
  }
  logical->recv_terminated(static_cast<unsigned int>(error.value()), error.message());
  remove_connection(logical->get_stream_id());
}

void CSpdyConnection::send_syn_stream(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                                      uint32_t associated, uint32_t priority,
                                      const RPCConnectionHeaders& headers) {
  if (!connected) {
    report_not_connected(logical);
    return;
  }
  CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
  pack_syn_stream(buffer, logical->get_stream_id(), associated, priority);
  if (!encode_headers(buffer, headers)) {
    CNetworkBuffer::Free(buffer);
    send_rst_stream(logical->get_stream_id(), SPDY_STATUS_INTERNAL_ERROR);
    return;
  }
  send_control_frame(SPDY_SYN_STREAM, flags, buffer);
}

bool CSpdyConnection::send_header_frame(uint16_t type, const boost::shared_ptr<CLogicalConnection>& logical,
                                        uint8_t flags, const RPCConnectionHeaders& headers) {
  if (!connected) {
    report_not_connected(logical);
    return false;
  }
  CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
  pack_stream_id(buffer, logical->get_stream_id());
  if (!encode_headers(buffer, headers)) {
    CNetworkBuffer::Free(buffer);
    send_rst_stream(logical->get_stream_id(), SPDY_STATUS_INTERNAL_ERROR);
    return true;
  }
  send_control_frame(type, flags, buffer);
  return true;
}

void CSpdyConnection::send_syn_reply(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                                     const RPCConnectionHeaders& headers) {
  // Headers of a stream whose sending side is already closed (reset, or opened
  // unidirectional) never go out: a reset stream shows the peer its RST_STREAM
  // and nothing behind it.
  if (!logical->is_send_open()) return;
  // FLAG_FIN on a reply does not close this side's sending direction.
  send_header_frame(SPDY_SYN_REPLY, logical, flags, headers);
}

void CSpdyConnection::send_headers(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                                   const RPCConnectionHeaders& headers) {
  if (!logical->is_send_open()) return;
  if (!send_header_frame(SPDY_HEADERS, logical, flags, headers)) return;
  if (flags & FLAG_FIN) {
    logical->close_send_side();
    if (!logical->is_receive_open()) remove_connection(logical->get_stream_id());
  }
}

void CSpdyConnection::send_data(const boost::shared_ptr<CLogicalConnection>& logical, uint8_t flags,
                                CNetworkBuffer* buffer) {
  if (logical->is_send_open() || logical->is_receive_open()) {
    if (connected) {
      PendingFrame frame;
      pack_data_frame_header(frame.header, logical->get_stream_id(), flags, buffer ? buffer->length : 0);
      frame.buffer = buffer;
      write_queue.push_back(frame);
      start_write();
      if (flags & FLAG_FIN) {
        logical->close_send_side();
        if (!logical->is_receive_open()) remove_connection(logical->get_stream_id());
      }
      return;
    }
    report_not_connected(logical);
  }
  CNetworkBuffer::Free(buffer);
  remove_connection(logical->get_stream_id());
}

void CSpdyConnection::send_terminate(uint32_t stream_id, uint32_t status) {
  send_rst_stream(stream_id, status);
  reset_stream(stream_id, SPDY_STATUS_CANCEL);
}

void CSpdyConnection::reset_stream(uint32_t stream_id, uint32_t status) {
  auto entry = streams.find(stream_id);
  if (entry == streams.end()) return;
  boost::shared_ptr<CLogicalConnection> logical = entry->second.lock();
  remove_connection(stream_id);
  if (logical) logical->recv_terminated(status, kReset);
}

void CSpdyConnection::remove_connection(uint32_t stream_id) {
  // Every removal looks whether a closing connection has now finished: the last
  // stream may end by a frame of the peer as well as by one of this side.
  streams.erase(stream_id);
  stop_if_finished();
}

void CSpdyConnection::stop_if_finished() {
  if (closing && !writing && streams.empty()) stop();
}

void CSpdyConnection::init_created_connection(const boost::shared_ptr<CLogicalConnection>& logical) {
  const uint32_t first = is_server ? 2 : 1;
  uint32_t id;
  do {
    id = next_stream_id;
    next_stream_id += 2;
    if (next_stream_id & 0x80000000u) next_stream_id = first;
  } while (streams.count(id) != 0);
  logical->assign_stream_id(id);
  streams[id] = logical;
}

boost::shared_ptr<CLogicalConnection> CSpdyConnection::find_live_stream(uint32_t stream_id) {
  auto entry = streams.find(stream_id);
  if (entry == streams.end()) return boost::shared_ptr<CLogicalConnection>();
  return entry->second.lock();
}

// ---------------------------------------------------------------------------
// Receiving

void CSpdyConnection::process_frame(const FrameHeader& header) {
  if (header.is_control()) {
    process_control_frame(header);
  } else {
    process_data_frame(header);
  }
}

void CSpdyConnection::process_control_frame(const FrameHeader& header) {
  if (read_buffer == nullptr) return;
  switch (header.type()) {
    case SPDY_SYN_STREAM:
      process_control_frame_syn_stream(header);
      break;
    case SPDY_SYN_REPLY:
      process_control_frame_syn_reply(header);
      break;
    case SPDY_RST_STREAM: {
      uint32_t stream_id, status;
      if (unpack_rst_stream(read_buffer, stream_id, status)) reset_stream(stream_id, status);
      break;
    }
    case SPDY_PING:
      process_control_frame_ping();
      break;
    case SPDY_GOAWAY:
      process_control_frame_goaway();
      break;
    case SPDY_HEADERS:
      process_control_frame_headers(header);
      break;
    case SPDY_WINDOW_UPDATE:
      process_control_frame_window_update();
      break;
    default:
      // 0, 4, 5 and everything from 10 on: read and dropped.
      break;
  }
}

void CSpdyConnection::process_control_frame_syn_stream(const FrameHeader& header) {
  if (closing) return;
  uint32_t stream_id, priority;
  unsigned long offset;
  RPCConnectionHeaders headers;
  if (!unpack_syn_stream(read_buffer, stream_id, priority, offset)) return;
  if (!decode_headers(read_buffer, offset, headers)) return;

  auto existing = streams.find(stream_id);
  if (existing != streams.end()) {
    boost::shared_ptr<CLogicalConnection> logical = existing->second.lock();
    if (logical) {
      logical->recv_terminated(SPDY_STATUS_STREAM_IN_USE, kStreamInUse);
    } else {
      streams.erase(existing);
    }
    send_rst_stream(stream_id, SPDY_STATUS_STREAM_IN_USE);
    return;
  }
  if (handler_factory == nullptr) return;

  boost::shared_ptr<CLogicalConnection> logical = CLogicalConnection::create(get_pointer(), true);
  // The id comes first: the factory may start a worker that sends at once.
  logical->assign_stream_id(stream_id);
  boost::shared_ptr<IReceiveStream> receive_stream =
      handler_factory->create_client_connection(get_pointer(), headers, logical);
  if (receive_stream) {
    streams[stream_id] = logical;
    logical->set_receive_stream(receive_stream);
    logical->init_server(priority, header.flags());
  } else {
    logical->recv_terminated(SPDY_STATUS_REFUSED_STREAM, kRequestRefused);
    send_rst_stream(stream_id, SPDY_STATUS_REFUSED_STREAM);
  }
}

void CSpdyConnection::process_control_frame_syn_reply(const FrameHeader& header) {
  uint32_t stream_id;
  unsigned long offset;
  RPCConnectionHeaders headers;
  if (!unpack_stream_id(read_buffer, stream_id, offset)) return;
  if (!decode_headers(read_buffer, offset, headers)) return;
  auto entry = streams.find(stream_id);
  if (entry == streams.end()) return;
  boost::shared_ptr<CLogicalConnection> logical = entry->second.lock();
  const bool fin = (header.flags() & FLAG_FIN) != 0;
  if (logical) {
    logical->recv_headers(headers);
    if (fin) logical->recv_closed();
  }
  if (!logical || (fin && logical->is_closed())) remove_connection(stream_id);
}

void CSpdyConnection::process_control_frame_headers(const FrameHeader& header) {
  uint32_t stream_id;
  unsigned long offset;
  RPCConnectionHeaders headers;
  if (!unpack_stream_id(read_buffer, stream_id, offset)) return;
  if (!decode_headers(read_buffer, offset, headers)) return;
  // Unlike SYN_REPLY, an entry whose logical connection has gone stays in the table.
  boost::shared_ptr<CLogicalConnection> logical = find_live_stream(stream_id);
  if (!logical) return;
  const bool fin = (header.flags() & FLAG_FIN) != 0;
  logical->recv_headers(headers);
  if (fin) {
    logical->recv_closed();
    if (logical->is_closed()) remove_connection(stream_id);
  }
}

void CSpdyConnection::process_control_frame_ping() {
  uint32_t id;
  if (!unpack_ping(read_buffer, id)) return;
  const uint32_t own_parity = is_server ? 0 : 1;
  if ((id & 1) == own_parity) {
    last_ping_echoed = id;
    if (id == last_ping_id) {
      round_trip_time.store((microseconds_now() - ping_sent_at) * 10000000ull / 1000000ull,
                            std::memory_order_relaxed);
    }
  } else {
    send_ping(id);
  }
}

void CSpdyConnection::process_control_frame_goaway() {
  peer_closed = true;
  if (read_buffer->length >= 8) signal_connection_closed();
  signal_connection_closing();
  if (!closing) close(false);
}

void CSpdyConnection::process_control_frame_window_update() {
  uint32_t stream_id, delta;
  if (!unpack_window_update(read_buffer, stream_id, delta)) return;
  if (boost::shared_ptr<CLogicalConnection> logical = find_live_stream(stream_id)) logical->acknowledge(delta);
}

void CSpdyConnection::process_data_frame(const FrameHeader& header) {
  const uint32_t stream_id = header.stream_id();
  const bool fin = (header.flags() & FLAG_FIN) != 0;
  auto entry = streams.find(stream_id);
  if (entry != streams.end()) {
    boost::shared_ptr<CLogicalConnection> logical = entry->second.lock();
    if (logical) {
      const CNetworkBuffer* buffer = read_buffer;
      read_buffer = nullptr;
      logical->recv_data(buffer, (header.flags() & FLAG_END_SEGMENT) != 0);
      if (fin) logical->recv_closed();
    }
    if (!logical || (fin && logical->is_closed())) remove_connection(stream_id);
  }
  if (read_buffer != nullptr) {
    // Nobody will read these bytes; acknowledge them so the sender does not stall.
    if (read_buffer->length != 0) post_window_update(stream_id, static_cast<uint32_t>(read_buffer->length));
    CNetworkBuffer::Free(read_buffer);
    read_buffer = nullptr;
  }
}

// ---------------------------------------------------------------------------
// Timers

uint64_t CSpdyConnection::timer_milliseconds(uint32_t units) const {
  return static_cast<uint64_t>(units) * parameters.timer_unit_milliseconds;
}

void CSpdyConnection::start_ping() {
  if (parameters.ping_interval == 0) return;
  last_ping_id += 2;
  if (static_cast<int32_t>(last_ping_id) < 0) last_ping_id = is_server ? 2 : 1;
  ping_sent_at = microseconds_now();
  send_ping(last_ping_id);
  boost::system::error_code ignored;
  timer.expires_from_now(
      boost::posix_time::milliseconds(static_cast<long>(timer_milliseconds(parameters.ping_interval))), ignored);
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  timer.async_wait(boost::asio::bind_executor(
      strand, [self](const boost::system::error_code& error) { self->handle_ping_timer(error); }));
}

void CSpdyConnection::handle_ping_timer(const boost::system::error_code& error) {
  if (error == boost::asio::error::operation_aborted) return;
  if (last_ping_echoed == last_ping_id) {
    start_ping();
  } else {
    stop();
  }
}

void CSpdyConnection::start_connect_timeout() {
  if (parameters.connect_timeout == 0) return;
  boost::system::error_code ignored;
  timer.expires_from_now(
      boost::posix_time::milliseconds(static_cast<long>(timer_milliseconds(parameters.connect_timeout))), ignored);
  boost::shared_ptr<CSpdyConnection> self = get_pointer();
  timer.async_wait(boost::asio::bind_executor(
      strand, [self](const boost::system::error_code& error) { self->handle_connect_timer(error); }));
}

void CSpdyConnection::handle_connect_timer(const boost::system::error_code& error) {
  if (error == boost::asio::error::operation_aborted) return;
  handle_stop();
}

void CSpdyConnection::_connect_result(bool ok) {
  connected = ok;
  boost::system::error_code ignored;
  timer.cancel(ignored);
  if (!ok) {
    shutdown();
    signal_connection_closed();
    peer_closed = true;
  } else {
    exchange_done = true;
    set_connect_failure_text(std::string());
  }
  CNetworkBuffer::Free(handshake_buffer);
  handshake_buffer = nullptr;
  ConditionVariable::ScopedLock lock(connect_condition);
  connect_done = true;
  connecting = false;
  connect_condition.WakeupAll();
}

}  // namespace base
}  // namespace apm
