#include "base/rpc/rpclogicalconnection.h"

#include "base/rpc/rpcframe.h"
#include "base/rpc/rpcspdyconnection.h"

namespace apm {
namespace base {

namespace {

// A frame goes out while at most this many bytes are outstanding.
constexpr uint64_t kOutstandingLimit = RPC_STREAM_WINDOW;

}  // namespace

boost::shared_ptr<CLogicalConnection> CLogicalConnection::create(const boost::shared_ptr<CSpdyConnection>& physical,
                                                                 bool /*server*/) {
  return boost::shared_ptr<CLogicalConnection>(new CLogicalConnection(physical));
}

CLogicalConnection::CLogicalConnection(const boost::shared_ptr<CSpdyConnection>& physical) : physical(physical) {}

CLogicalConnection::~CLogicalConnection() = default;

uint64_t CLogicalConnection::get_version() { return physical->get_version(); }

CNetworkBuffer* CLogicalConnection::alloc_buffer() { return CNetworkBuffer::Allocate(); }

void CLogicalConnection::free_buffer(const CNetworkBuffer* buffer) {
  if (buffer == nullptr) return;
  if (buffer->length > 0) physical->post_window_update(shared_from_this(), static_cast<uint32_t>(buffer->length));
  CNetworkBuffer::Free(buffer);
}

void CLogicalConnection::init(const RPCConnectionHeaders& headers) {
  initiated = true;
  physical->post_syn_stream(shared_from_this(), 0, 0, SPDY_DEFAULT_PRIORITY, headers);
}

void CLogicalConnection::send_data(CNetworkBuffer* buffer, bool end_of_segment) {
  if (!initiated) {
    // Data without headers first: the peer gets an empty reply in front.
    initiated = true;
    physical->post_syn_reply(shared_from_this(), 0, RPCConnectionHeaders());
  }
  if (buffer != nullptr && buffer->length != 0) {
    if (window_closed()) wait_for_window();
    // Written by this thread only.
    bytes_sent.store(bytes_sent.load(std::memory_order_relaxed) + buffer->length, std::memory_order_seq_cst);
  }
  if (!is_send_open()) {
    CNetworkBuffer::Free(buffer);
    return;
  }
  physical->post_data(shared_from_this(), end_of_segment ? FLAG_END_SEGMENT : 0, buffer);
}

bool CLogicalConnection::window_closed() const {
  // Compared without subtracting: a peer that acknowledges more than was sent must
  // not make the outstanding count wrap around and hold this worker for good.
  return is_send_open() && bytes_sent.load(std::memory_order_relaxed) >
                               bytes_acknowledged.load(std::memory_order_seq_cst) + kOutstandingLimit;
}

void CLogicalConnection::wait_for_window() {
  ConditionVariable::ScopedLock lock(condition);
  for (;;) {
    // Announced before the window is looked at again: an acknowledgement either
    // comes early enough to be seen here, or it sees the flag and wakes this thread.
    sender_waiting.store(true, std::memory_order_seq_cst);
    if (!window_closed()) break;
    condition.Wait();
  }
  sender_waiting.store(false, std::memory_order_relaxed);
}

void CLogicalConnection::send_headers(const RPCConnectionHeaders& headers) {
  if (!is_send_open()) return;
  if (initiated) {
    physical->post_headers(shared_from_this(), 0, headers);
  } else {
    initiated = true;
    physical->post_syn_reply(shared_from_this(), 0, headers);
  }
}

void CLogicalConnection::send_close() {
  if (!is_send_open()) return;
  if (initiated) {
    physical->post_data(shared_from_this(), FLAG_FIN, nullptr);
  } else {
    initiated = true;
    physical->post_syn_reply(shared_from_this(), FLAG_FIN, RPCConnectionHeaders());
  }
}

void CLogicalConnection::send_terminate() {
  if (is_send_open()) physical->post_terminate(shared_from_this(), SPDY_STATUS_CANCEL);
}

boost::shared_ptr<IPhysicalConnection> CLogicalConnection::get_physical_connection() { return physical; }

void CLogicalConnection::init_server(unsigned int new_priority, unsigned int flags) {
  priority = new_priority;
  if (flags & FLAG_FIN) {
    receive_open.store(false, std::memory_order_release);
    if (boost::shared_ptr<IReceiveStream> stream = receive_stream.lock()) stream->recv_closed();
  }
  if (flags & FLAG_UNIDIRECTIONAL) send_open.store(false, std::memory_order_release);
}

void CLogicalConnection::recv_data(const CNetworkBuffer* buffer, bool end_of_segment) {
  if (boost::shared_ptr<IReceiveStream> stream = receive_stream.lock()) {
    stream->recv_data(buffer, end_of_segment);
  } else {
    CNetworkBuffer::Free(buffer);
  }
}

void CLogicalConnection::recv_headers(RPCConnectionHeaders& headers) {
  if (boost::shared_ptr<IReceiveStream> stream = receive_stream.lock()) stream->recv_headers(headers);
}

void CLogicalConnection::recv_closed() {
  receive_open.store(false, std::memory_order_release);
  if (boost::shared_ptr<IReceiveStream> stream = receive_stream.lock()) stream->recv_closed();
}

void CLogicalConnection::recv_connection_closing() {
  if (boost::shared_ptr<IReceiveStream> stream = receive_stream.lock()) stream->recv_connection_closing();
}

void CLogicalConnection::recv_terminated(unsigned int status, const std::string& text) {
  boost::shared_ptr<IReceiveStream> stream = receive_stream.lock();
  bool wake;
  {
    // Under the mutex, so that a sender about to wait on the window sees the flag.
    ConditionVariable::ScopedLock lock(condition);
    send_open.store(false, std::memory_order_release);
    receive_open.store(false, std::memory_order_release);
    wake = stream && sender_waiting.load(std::memory_order_relaxed);
    if (wake) sender_waiting.store(false, std::memory_order_relaxed);
  }
  if (wake) condition.WakeupAll();
  if (stream) stream->recv_terminated(status, text);
}

void CLogicalConnection::assign_stream_id(uint32_t id) { stream_id.store(id, std::memory_order_release); }

void CLogicalConnection::acknowledge(uint32_t delta) {
  bytes_acknowledged.fetch_add(delta, std::memory_order_seq_cst);
  // The mutex only when the sender waits on the window.
  if (!sender_waiting.load(std::memory_order_seq_cst)) return;
  bool wake;
  {
    ConditionVariable::ScopedLock lock(condition);
    // Only when the waiting sender may go on, and once per wait: the acknowledgements
    // that follow before it runs need no call.
    wake = sender_waiting.load(std::memory_order_relaxed) && !window_closed();
    if (wake) sender_waiting.store(false, std::memory_order_relaxed);
  }
  // Outside the mutex.
  if (wake) condition.WakeupAll();
}

}  // namespace base
}  // namespace apm
