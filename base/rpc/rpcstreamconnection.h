// CLogicalConnectionStream: one RPC stream seen by a worker thread, a blocking
// byte stream with Read and Write on which the field encoding of message bodies
// runs (base/rpc/streamserializer.h). It is the receiving end that the engine feeds
// (IReceiveStream): arriving buffers queue here until the worker reads them, and
// the worker blocks on this object's condition until data, headers or the end come.
//
// A stream's bytes are divided into segments, each ended by a data frame marked
// FLAG_END_SEGMENT: a request record is one segment and an attached file the next.
// Read never crosses a segment end; NextSegment moves past it.
//
// Ownership: always held by boost::shared_ptr, by its worker (and, weakly, by its
// logical connection). It holds its ILogicalConnection. Dropping the last reference
// ends the stream: what is buffered goes out with FLAG_END_SEGMENT, then FLAG_FIN,
// and unread buffers are released so that the peer's window opens.
//
// Threads: one thread reads and one writes at a time (in practice one worker does
// both). The recv_* operations run on the engine's strand and take `condition`
// only for short list operations. `condition` guards the queue, the flags, the
// received headers and the error; read_buffer, write_buffer and the totals belong
// to the worker.
//
// CLogicalConnectionStreamWriter receives whole buffers from Read(writer), a run
// of everything queued at a time; FileWriter writes each run to a file with one
// gathering write, so that a received file costs a system call per run, not per
// frame.
#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <atomic>
#include <cstdint>
#include <list>
#include <string>

#include "base/conditionvariable.h"
#include "base/file.h"
#include "base/rpc/rpcconnection.h"

namespace apm {
namespace base {

class CLogicalConnectionStreamWriter {
 public:
  virtual ~CLogicalConnectionStreamWriter() = default;
  // Takes the bytes of one received buffer; false stops the reading.
  virtual bool Write(const CNetworkBuffer* buffer) = 0;
  // Takes the bytes of `count` received buffers, in order, as Read(writer) hands
  // over everything queued at once; false stops the reading. By default each
  // buffer goes to Write in turn.
  virtual bool WriteBuffers(const CNetworkBuffer* const* buffers, size_t count);
};

// Writes received buffers to `file`: one buffer with one write, the buffers handed
// over together with one gathering write; true if all their bytes were written.
class FileWriter : public CLogicalConnectionStreamWriter {
 public:
  explicit FileWriter(File& file) : file(file) {}
  bool Write(const CNetworkBuffer* buffer) override;
  bool WriteBuffers(const CNetworkBuffer* const* buffers, size_t count) override;

 private:
  File& file;
};

class CLogicalConnectionStream : public IReceiveStream, private boost::noncopyable {
 public:
  // Connecting side: waits for the connection's outcome (the stream id is assigned
  // on the engine's strand ahead of the stream's frames). Empty, with the reason on
  // the thread's error record, when the connection is not open.
  static boost::shared_ptr<CLogicalConnectionStream> create(const boost::shared_ptr<IPhysicalConnection>& physical);
  // Accepting side: a stream around a logical connection the engine has made.
  static boost::shared_ptr<CLogicalConnectionStream> create(const boost::shared_ptr<ILogicalConnection>& connection);
  ~CLogicalConnectionStream() override;

  // Reads exactly `size` bytes; false at the end of the segment (no error set), at
  // the end of the stream (code 0, empty text) or when it failed (the status and
  // text on the thread's error record), with what was copied left in `destination`.
  bool Read(void* destination, unsigned long size);
  // Hands every buffer up to the end of the segment to `writer`, whole. The result
  // at the end: true at a segment end, or when the peer has closed or terminated
  // its side (a terminated stream thus ends with true and the error on the record).
  // The buffers go over in runs (WriteBuffers): the reader waits until a run of
  // kRunWakeBytes has queued, or the segment's end or the stream's end has come,
  // and takes everything queued up to the end of the segment, at most
  // kMaxRunBuffers; the run's buffers are released, and so acknowledged to the
  // peer, once the writer has taken them.
  bool Read(CLogicalConnectionStreamWriter& writer);
  bool ReadFile(File& file);
  // Copies into network buffers and sends each one when it is full; may block on
  // the send window. A stream whose peer has gone swallows the data and says true.
  bool Write(const void* data, unsigned int size);
  // Sends what is buffered (an empty frame if nothing is) marked FLAG_END_SEGMENT.
  void Flush();
  // Flush, then FLAG_FIN in an empty frame of its own.
  void EndStream();
  // Resets the stream (RST_STREAM status 5).
  void Terminate();
  // Skips to the start of the next segment.
  void NextSegment();
  // Makes read_buffer valid; false at a segment end or the end of the stream.
  bool WaitNextBuffer();

  // Read(writer) waits for this many queued bytes before it hands a run over: a
  // small part of a stream's window, so the peer can always send that much.
  static constexpr uint64_t kRunWakeBytes = 262144;
  // The most buffers one run hands over.
  static constexpr size_t kMaxRunBuffers = 128;

  // Request headers (connecting side): the first opens the stream with SYN_STREAM.
  // The caller's instrumentation context travels under key 100 if there is one.
  void SendRequestHeaders(RPCConnectionHeaders& headers);
  // Key 1 = `rpc_class`, key 2 = `function`, in decimal.
  void SendRequestHeaders(unsigned short rpc_class, unsigned short function);
  // Waits for the peer's headers; false, with the stream's error, if none came.
  bool ReadResponseHeaders(RPCConnectionHeaders& headers);
  // Response headers (accepting side): the first go out as SYN_REPLY, later ones
  // as HEADERS. The instrumentation sync mark travels under key 101 if there is one.
  void SendResponseHeaders(RPCConnectionHeaders& headers);

  // The peer's version.
  uint64_t GetVersion();
  uint64_t GetTotalSent() const { return total_sent; }
  uint64_t GetTotalReceived() const { return total_received; }

  // IReceiveStream, on the engine's strand.
  void recv_data(const CNetworkBuffer* buffer, bool end_of_segment) override;
  void recv_closed() override;
  void recv_connection_closing() override;
  void recv_terminated(unsigned int status, const std::string& text) override;
  void recv_headers(RPCConnectionHeaders& headers) override;
  boost::shared_ptr<ILogicalConnection> get_connection() override;
  void set_connection(const boost::shared_ptr<ILogicalConnection>& connection) override;
  bool is_receive_closed() override;
  bool is_connection_closing() override;

 private:
  struct ReceivedBuffer {
    const CNetworkBuffer* buffer;
    bool end_of_segment;
  };

  CLogicalConnectionStream() = default;
  // Puts error_code and error_text on the thread's error record; under the mutex.
  void report_stream_error();
  // WaitNextBuffer for a reader that still needs `wanted` bytes.
  bool WaitNextBuffer(uint64_t wanted);
  // The run of Read(writer): read_buffer if set, then the buffers queued up to the
  // segment's end mark, at most kMaxRunBuffers, into `run`, and their count. Waits
  // while less than kRunWakeBytes is queued and neither a mark nor the stream's
  // end has come. 0 at a segment end or the end of the stream, with the stream's
  // error on the thread's record after the end.
  size_t TakeRun(const CNetworkBuffer** run);
  // The reader's wait on `condition`, with the mutex held; marks the reader as
  // waiting, so that the engine signals only then. A reader that waits for
  // `wanted` bytes is woken by data only when that many are queued, by anything
  // else at once.
  void WaitForChange(uint64_t wanted = 1);
  // Under the mutex, for the engine's calls: whether the reader waits and must be
  // woken; it counts as woken from then on.
  bool take_reader_wake();
  void release_read_buffer();

  boost::shared_ptr<ILogicalConnection> connection;
  CNetworkBuffer* write_buffer = nullptr;
  uint64_t total_sent = 0;
  ConditionVariable condition;
  bool open = false;
  std::atomic<bool> connection_closing{false};  // read without the mutex
  bool headers_received = false;
  RPCConnectionHeaders received_headers;
  const CNetworkBuffer* read_buffer = nullptr;
  uint64_t read_offset = 0;
  std::list<ReceivedBuffer> receive_queue;
  bool receive_open = true;
  bool reader_waiting = false;  // guarded
  uint64_t queued_bytes = 0;     // guarded: the bytes of the buffers in receive_queue
  size_t queued_marks = 0;       // guarded: the entries of receive_queue with end_of_segment
  uint64_t wake_bytes = 1;       // guarded: queued bytes that wake the waiting reader
  uint64_t total_received = 0;
  unsigned int error_code = 0;
  std::string error_text;
};

}  // namespace base
}  // namespace apm
