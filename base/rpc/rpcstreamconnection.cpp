#include "base/rpc/rpcstreamconnection.h"

#include <algorithm>
#include <cstring>

#include "base/famerror.h"
#include "telemetry/apmsdk.h"

namespace apm {
namespace base {

namespace {

constexpr size_t kMarkSize = 16;

// A reader waiting for more than this is woken once this much is queued: far below
// a stream's window, so the peer can always send what wakes it, and enough that a
// large read is not woken for every frame.
constexpr uint64_t kReaderWakeLimit = 65536;

}  // namespace

bool CLogicalConnectionStreamWriter::WriteBuffers(const CNetworkBuffer* const* buffers, size_t count) {
  for (size_t index = 0; index < count; ++index) {
    if (!Write(buffers[index])) return false;
  }
  return true;
}

bool FileWriter::Write(const CNetworkBuffer* buffer) {
  return file.Write(buffer->data, static_cast<size_t>(buffer->length));
}

bool FileWriter::WriteBuffers(const CNetworkBuffer* const* buffers, size_t count) {
  iovec pieces[CLogicalConnectionStream::kMaxRunBuffers];
  while (count > 0) {
    const size_t taken = std::min(count, CLogicalConnectionStream::kMaxRunBuffers);
    for (size_t index = 0; index < taken; ++index) {
      pieces[index].iov_base = const_cast<uint8_t*>(buffers[index]->data);
      pieces[index].iov_len = static_cast<size_t>(buffers[index]->length);
    }
    if (!file.Write(pieces, static_cast<int>(taken))) return false;
    buffers += taken;
    count -= taken;
  }
  return true;
}

boost::shared_ptr<CLogicalConnectionStream> CLogicalConnectionStream::create(
    const boost::shared_ptr<IPhysicalConnection>& physical) {
  boost::shared_ptr<CLogicalConnectionStream> stream(new CLogicalConnectionStream);
  boost::shared_ptr<ILogicalConnection> logical = physical->create_connection(stream);
  if (!logical) return boost::shared_ptr<CLogicalConnectionStream>();
  stream->set_connection(logical);
  return stream;
}

boost::shared_ptr<CLogicalConnectionStream> CLogicalConnectionStream::create(
    const boost::shared_ptr<ILogicalConnection>& connection) {
  boost::shared_ptr<CLogicalConnectionStream> stream(new CLogicalConnectionStream);
  stream->set_connection(connection);
  return stream;
}

CLogicalConnectionStream::~CLogicalConnectionStream() {
  if (!connection) return;
  bool was_open;
  {
    ConditionVariable::ScopedLock lock(condition);
    was_open = open;
  }
  if (was_open) {
    EndStream();
  } else if (write_buffer != nullptr) {
    connection->free_buffer(write_buffer);
    write_buffer = nullptr;
  }
  std::list<ReceivedBuffer> unread;
  {
    ConditionVariable::ScopedLock lock(condition);
    open = false;
    receive_open = false;
    unread.swap(receive_queue);
    queued_bytes = 0;
    queued_marks = 0;
  }
  // Released through the connection, so that the peer's window opens for data
  // nobody read.
  for (ReceivedBuffer& entry : unread) connection->free_buffer(entry.buffer);
  release_read_buffer();
}

void CLogicalConnectionStream::WaitForChange(uint64_t wanted) {
  wake_bytes = std::max<uint64_t>(wanted, 1);
  reader_waiting = true;
  condition.Wait();
  reader_waiting = false;
  wake_bytes = 1;
}

void CLogicalConnectionStream::release_read_buffer() {
  if (read_buffer == nullptr) return;
  connection->free_buffer(read_buffer);
  read_buffer = nullptr;
}

void CLogicalConnectionStream::report_stream_error() {
  unsigned int code;
  std::string text;
  {
    ConditionVariable::ScopedLock lock(condition);
    code = error_code;
    text = error_text;
  }
  FamError::SetError(static_cast<int>(code), text);
}

// ---------------------------------------------------------------------------
// Reading

bool CLogicalConnectionStream::WaitNextBuffer() { return WaitNextBuffer(1); }

bool CLogicalConnectionStream::WaitNextBuffer(uint64_t wanted) {
  if (read_buffer != nullptr) return true;
  bool ended = false;
  {
    ConditionVariable::ScopedLock lock(condition);
    for (;;) {
      if (!receive_queue.empty()) {
        ReceivedBuffer& head = receive_queue.front();
        read_buffer = head.buffer;
        read_offset = 0;
        head.buffer = nullptr;
        if (read_buffer != nullptr) queued_bytes -= read_buffer->length;
        if (!head.end_of_segment) {
          receive_queue.pop_front();
        } else if (read_buffer == nullptr) {
          // The end of the segment: the mark stays until NextSegment.
          return false;
        }
        if (read_buffer != nullptr) return true;
        continue;  // an empty frame without a mark carries nothing
      }
      if (!open || !receive_open) {
        ended = true;
        break;
      }
      WaitForChange(std::min(wanted, kReaderWakeLimit));
    }
  }
  if (ended) report_stream_error();
  return false;
}

size_t CLogicalConnectionStream::TakeRun(const CNetworkBuffer** run) {
  size_t count = 0;
  if (read_buffer != nullptr) {
    // Handed over whole, whatever a Read has taken from it already.
    run[count++] = read_buffer;
    read_buffer = nullptr;
  }
  bool ended = false;
  {
    ConditionVariable::ScopedLock lock(condition);
    for (;;) {
      // Enough for a run, or nothing more will come before the run's end.
      if (count != 0 || queued_bytes >= kRunWakeBytes || queued_marks != 0 || !open || !receive_open) {
        while (!receive_queue.empty() && count < kMaxRunBuffers) {
          ReceivedBuffer& head = receive_queue.front();
          if (head.buffer != nullptr) {
            queued_bytes -= head.buffer->length;
            run[count++] = head.buffer;
            head.buffer = nullptr;
          }
          // The end of the segment: the mark stays until NextSegment.
          if (head.end_of_segment) break;
          receive_queue.pop_front();  // used up: its buffer, if any, is in the run
        }
        if (count != 0) return count;
        if (!receive_queue.empty()) return 0;  // at the mark
        if (!open || !receive_open) {
          ended = true;
          break;
        }
      }
      WaitForChange(kRunWakeBytes);
    }
  }
  if (ended) report_stream_error();
  return 0;
}

bool CLogicalConnectionStream::Read(void* destination, unsigned long size) {
  unsigned long copied = 0;
  uint8_t* target = static_cast<uint8_t*>(destination);
  for (;;) {
    if (!WaitNextBuffer(size - copied)) return false;
    const unsigned long count =
        static_cast<unsigned long>(std::min<uint64_t>(size - copied, read_buffer->length - read_offset));
    if (count != 0) std::memcpy(target + copied, read_buffer->data + read_offset, count);
    copied += count;
    read_offset += count;
    if (read_offset == read_buffer->length) {
      // Releasing the buffer is what opens the peer's window.
      release_read_buffer();
    }
    if (copied == size) {
      total_received += copied;
      return true;
    }
  }
}

bool CLogicalConnectionStream::Read(CLogicalConnectionStreamWriter& writer) {
  const CNetworkBuffer* run[kMaxRunBuffers];
  while (const size_t count = TakeRun(run)) {
    const bool written = writer.WriteBuffers(run, count);
    // Releasing the buffers is what opens the peer's window.
    for (size_t index = 0; index < count; ++index) {
      total_received += run[index]->length;
      connection->free_buffer(run[index]);
    }
    if (!written) return false;
  }
  ConditionVariable::ScopedLock lock(condition);
  if (receive_queue.empty()) return !receive_open;
  return receive_queue.front().end_of_segment;
}

bool CLogicalConnectionStream::ReadFile(File& file) {
  FileWriter writer(file);
  return Read(writer);
}

void CLogicalConnectionStream::NextSegment() {
  ConditionVariable::ScopedLock lock(condition);
  release_read_buffer();
  while (open) {
    while (receive_queue.empty()) {
      if (!receive_open || !open) return;
      WaitForChange();
    }
    ReceivedBuffer head = receive_queue.front();
    receive_queue.pop_front();
    if (head.buffer != nullptr) queued_bytes -= head.buffer->length;
    if (head.end_of_segment) --queued_marks;
    // free_buffer only posts, so it is safe under this mutex.
    if (head.buffer != nullptr) connection->free_buffer(head.buffer);
    if (head.end_of_segment) return;
  }
}

// ---------------------------------------------------------------------------
// Writing

bool CLogicalConnectionStream::Write(const void* data, unsigned int size) {
  const uint8_t* source = static_cast<const uint8_t*>(data);
  unsigned int done = 0;
  for (;;) {
    if (write_buffer == nullptr) {
      write_buffer = connection->alloc_buffer();
      if (write_buffer == nullptr) {
        report_stream_error();
        return false;
      }
    }
    const unsigned int count = static_cast<unsigned int>(
        std::min<uint64_t>(size - done, CNetworkBuffer::CAPACITY - write_buffer->length));
    if (count != 0) std::memcpy(write_buffer->data + write_buffer->length, source + done, count);
    write_buffer->length += count;
    done += count;
    if (write_buffer->length == CNetworkBuffer::CAPACITY) {
      CNetworkBuffer* full = write_buffer;
      write_buffer = nullptr;
      connection->send_data(full, false);
    }
    if (done == size) {
      total_sent += size;
      return true;
    }
  }
}

void CLogicalConnectionStream::Flush() {
  CNetworkBuffer* pending = write_buffer;
  write_buffer = nullptr;
  connection->send_data(pending, true);
}

void CLogicalConnectionStream::EndStream() {
  {
    // The last data frame waits for FLAG_FIN: both leave in one write.
    SendBatch batch;
    Flush();
  }
  connection->send_close();
}

void CLogicalConnectionStream::Terminate() { connection->send_terminate(); }

// ---------------------------------------------------------------------------
// Headers

void CLogicalConnectionStream::SendRequestHeaders(RPCConnectionHeaders& headers) {
  {
    ConditionVariable::ScopedLock lock(condition);
    open = true;
  }
  APMContext context;
  if (APMGetContext(&context, nullptr) != 0) {
    headers[RPC_HEADER_CONTEXT].assign(reinterpret_cast<const char*>(&context), sizeof(context));
  }
  connection->init(headers);
}

void CLogicalConnectionStream::SendRequestHeaders(unsigned short rpc_class, unsigned short function) {
  RPCConnectionHeaders headers;
  headers.set<unsigned int>(RPC_HEADER_CLASS, rpc_class);
  headers.set<unsigned int>(RPC_HEADER_FUNCTION, function);
  SendRequestHeaders(headers);
}

bool CLogicalConnectionStream::ReadResponseHeaders(RPCConnectionHeaders& headers) {
  bool received;
  {
    ConditionVariable::ScopedLock lock(condition);
    while (!headers_received && receive_open && open) WaitForChange();
    headers = received_headers;
    received = headers_received;
    headers_received = false;
    received_headers.clear();
  }
  const std::string* mark = headers.find_value(RPC_HEADER_SYNC_MARK);
  if (mark != nullptr && mark->size() == kMarkSize) APMSetSyncMark(mark->data());
  if (!received) report_stream_error();
  return received;
}

void CLogicalConnectionStream::SendResponseHeaders(RPCConnectionHeaders& headers) {
  uint8_t mark[kMarkSize];
  if (APMGetSyncMark(mark) != 0) headers[RPC_HEADER_SYNC_MARK].assign(reinterpret_cast<const char*>(mark), kMarkSize);
  connection->send_headers(headers);
}

uint64_t CLogicalConnectionStream::GetVersion() { return connection->get_version(); }

// ---------------------------------------------------------------------------
// IReceiveStream

// The engine's calls change the state under the mutex and wake the reader only if it
// waits, after letting go of the mutex, so that the reader does not wake into a
// mutex still held. The caller holds a reference to this object throughout.

bool CLogicalConnectionStream::take_reader_wake() {
  const bool wake = reader_waiting;
  // Signalled once per wait: further changes before the reader runs need no call.
  reader_waiting = false;
  return wake;
}

void CLogicalConnectionStream::recv_data(const CNetworkBuffer* buffer, bool end_of_segment) {
  bool wake;
  {
    ConditionVariable::ScopedLock lock(condition);
    receive_queue.push_back(ReceivedBuffer{buffer, end_of_segment});
    if (buffer != nullptr) queued_bytes += buffer->length;
    if (end_of_segment) ++queued_marks;
    // Data wakes a reader only once what it waits for has come.
    wake = (end_of_segment || buffer == nullptr || queued_bytes >= wake_bytes) && take_reader_wake();
  }
  if (wake) condition.Wakeup();
}

void CLogicalConnectionStream::recv_closed() {
  bool wake;
  {
    ConditionVariable::ScopedLock lock(condition);
    receive_open = false;
    wake = take_reader_wake();
  }
  if (wake) condition.Wakeup();
}

void CLogicalConnectionStream::recv_connection_closing() {
  bool wake;
  {
    ConditionVariable::ScopedLock lock(condition);
    connection_closing = true;
    wake = take_reader_wake();
  }
  if (wake) condition.Wakeup();
}

void CLogicalConnectionStream::recv_terminated(unsigned int status, const std::string& text) {
  bool wake;
  {
    ConditionVariable::ScopedLock lock(condition);
    receive_open = false;
    error_code = status;
    error_text = text;
    wake = take_reader_wake();
  }
  if (wake) condition.Wakeup();
}

void CLogicalConnectionStream::recv_headers(RPCConnectionHeaders& headers) {
  bool wake;
  {
    ConditionVariable::ScopedLock lock(condition);
    received_headers = headers;
    headers_received = true;
    wake = take_reader_wake();
  }
  if (wake) condition.Wakeup();
}

boost::shared_ptr<ILogicalConnection> CLogicalConnectionStream::get_connection() { return connection; }

void CLogicalConnectionStream::set_connection(const boost::shared_ptr<ILogicalConnection>& new_connection) {
  connection = new_connection;
  ConditionVariable::ScopedLock lock(condition);
  open = true;
}

bool CLogicalConnectionStream::is_receive_closed() {
  ConditionVariable::ScopedLock lock(condition);
  return receive_queue.empty() && !receive_open;
}

bool CLogicalConnectionStream::is_connection_closing() { return connection_closing; }

}  // namespace base
}  // namespace apm
