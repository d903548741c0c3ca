// CLogicalConnection: the engine's view of one stream of a physical connection:
// its id, its two open flags, its flow-control counters, and the posting of its
// frames onto the connection's strand.
//
// Ownership: the stream object (CLogicalConnectionStream) holds this by shared
// pointer, this holds the physical connection by shared pointer and the receive
// stream only weakly; the physical connection's stream table holds this weakly.
//
// Threads: the operations of ILogicalConnection are called by the one worker that
// uses the stream; they post to the strand and block only in send_data, while more
// than 1048576 bytes sent on this stream are not yet acknowledged by the peer. The
// engine side (init_server, recv_*, assign_stream_id, acknowledge) runs on the
// strand and never blocks. The stream id is assigned on the strand before any frame
// of the stream is handled there (a new stream's id is the first thing posted), and
// the worker's frames name their stream through this object, read on the strand: so
// the worker never waits for the id. The byte counts are atomic, each written by one
// side (bytes_sent by the worker, bytes_acknowledged on the strand), so a frame
// within the window costs no lock; `condition` is taken only by a sender that waits
// on the window and by whoever wakes it. The open flags are written on the strand
// and read anywhere without a lock (a stale read costs at most one posted frame,
// which the strand then discards).
#pragma once

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <atomic>
#include <cstdint>
#include <string>

#include "base/conditionvariable.h"
#include "base/rpc/rpcconnection.h"

namespace apm {
namespace base {

class CSpdyConnection;

// Bytes a stream may have sent and not yet had acknowledged before a further
// frame waits.
constexpr uint64_t RPC_STREAM_WINDOW = 1048576;

class CLogicalConnection : public ILogicalConnection,
                           public boost::enable_shared_from_this<CLogicalConnection> {
 public:
  // A new stream of `physical`, nothing sent; `server` marks the accepting side,
  // which nothing in the engine depends on, so it is not kept.
  static boost::shared_ptr<CLogicalConnection> create(const boost::shared_ptr<CSpdyConnection>& physical,
                                                      bool server);
  ~CLogicalConnection() override;
  CLogicalConnection(const CLogicalConnection&) = delete;
  CLogicalConnection& operator=(const CLogicalConnection&) = delete;

  // ILogicalConnection, on the worker's thread.
  uint64_t get_version() override;
  CNetworkBuffer* alloc_buffer() override;
  void free_buffer(const CNetworkBuffer* buffer) override;
  void init(const RPCConnectionHeaders& headers) override;
  void send_data(CNetworkBuffer* buffer, bool end_of_segment) override;
  void send_headers(const RPCConnectionHeaders& headers) override;
  void send_terminate() override;
  void send_close() override;
  boost::shared_ptr<IPhysicalConnection> get_physical_connection() override;

  // The engine's side, on the strand.
  void set_receive_stream(const boost::shared_ptr<IReceiveStream>& stream) { receive_stream = stream; }
  // After a SYN_STREAM: keeps the priority; FLAG_FIN closes receiving at once,
  // FLAG_UNIDIRECTIONAL closes sending.
  void init_server(unsigned int priority, unsigned int flags);
  // Hands the buffer to the receive stream, or frees it (unacknowledged) if that
  // stream is gone.
  void recv_data(const CNetworkBuffer* buffer, bool end_of_segment);
  void recv_headers(RPCConnectionHeaders& headers);
  void recv_closed();
  void recv_connection_closing();
  // Closes both directions, tells the receive stream and releases a worker blocked
  // in send_data.
  void recv_terminated(unsigned int status, const std::string& text);

  // On the strand, before any frame of this stream is handled there.
  void assign_stream_id(uint32_t id);
  uint32_t get_stream_id() const { return stream_id.load(std::memory_order_acquire); }
  // A WINDOW_UPDATE: adds `delta` to the acknowledged bytes and wakes the sender.
  void acknowledge(uint32_t delta);

  bool is_send_open() const { return send_open.load(std::memory_order_acquire); }
  bool is_receive_open() const { return receive_open.load(std::memory_order_acquire); }
  bool is_closed() const { return !is_send_open() && !is_receive_open(); }
  // This side has sent FLAG_FIN.
  void close_send_side() { send_open.store(false, std::memory_order_release); }
  unsigned int get_priority() const { return priority; }

 private:
  explicit CLogicalConnection(const boost::shared_ptr<CSpdyConnection>& physical);
  // More than the window is outstanding and sending is open: the next frame waits.
  bool window_closed() const;
  // Blocks until the window lets a frame go or sending closes.
  void wait_for_window();

  boost::shared_ptr<CSpdyConnection> physical;
  boost::weak_ptr<IReceiveStream> receive_stream;
  std::atomic<uint32_t> stream_id{0};
  // The opening frame of this side (SYN_STREAM or SYN_REPLY) has been posted.
  bool initiated = false;
  unsigned int priority = 7;
  std::atomic<bool> receive_open{true};
  std::atomic<bool> send_open{true};
  std::atomic<uint64_t> bytes_sent{0};
  std::atomic<uint64_t> bytes_acknowledged{0};
  // The worker waits in send_data; the engine wakes it only then. Set under the
  // mutex of `condition` before the sender looks at the window a last time and
  // waits; read by the engine after it has added to bytes_acknowledged.
  std::atomic<bool> sender_waiting{false};
  ConditionVariable condition;
};

}  // namespace base
}  // namespace apm
