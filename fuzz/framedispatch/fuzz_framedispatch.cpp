// Fuzz target of the frame dispatch of CSpdyConnection: received bytes cut into
// frames and handed to process_frame, beside the actions of the streams' users, on
// an open connection of either side.
//
// CapturingConnection stands in for the socket half of the engine: it keeps the
// protocol logic of CSpdyConnection whole and replaces TLS by the input. Its read
// loop cuts frames like the engine's (a header announcing more than 8192 bytes is
// answered by RST_STREAM for stream 0 with status 11 and stops the connection, the
// payload unread; a payload of 0 bytes gets no buffer), and its writer takes the
// queued frames off asynchronously, as a socket write would, and checks them. The
// connection's I/O service has no threads: the fuzzer's thread polls it, so it is
// the connection's strand.
//
// Input: the first byte chooses the side (bit 0 set: accepting), the rest is a
// sequence of operations, each an opcode byte and its operands:
//   0 FEED   n:u16 bytes[n]           raw bytes into the read loop
//   1 FRAME  h0 h1 h2 h3 flags n:u16 payload[n]
//                                     a frame whose length field is n
//   2 POLL                            run the handlers posted to the strand
//   3 FREE   s                        stream s frees its oldest received buffer
//   4 FREEALL s                       stream s frees all its received buffers
//   5 DROP   s                        stream s is let go (its logical connection
//                                     expires unless the engine holds it)
//   6 REPLY  s how flags n:u16        headers with an error text of n bytes, by the
//                                     stream (how 0), as SYN_REPLY or as HEADERS
//   7 DATA   s flags n:u16            n bytes of data (at most 8192; flags bit 2:
//                                     end of segment, as the stream sends it; or,
//                                     with bit 7, posted with the flags as they are)
//   8 CLOSE  s                        the stream's send_close
//   9 TERM   s                        the stream's send_terminate
//  10 OPEN                            a stream opened by this side (SYN_STREAM)
//  11 CONN   what id:u32              close(false), close(true), stop(),
//                                     post_terminate(id, 5), post_window_update(id, 1)
// Stream numbers s index the streams held so far, modulo their count. The handler
// factory takes a stream opened by the peer when its headers name a function and
// refuses it otherwise.
//
// Checked: no crash, no sanitizer report; every queued frame has a length field
// equal to its payload and no payload above 8192 bytes, control frames carry
// version 3; an oversized header leaves RST_STREAM(0, 11) at the back of the queue;
// refused streams, duplicate stream ids, pings of the peer and data that nobody
// reads give their RST_STREAM, echo or WINDOW_UPDATE; streams opened here get ids
// of this side's parity; the factory hears of the end once; after the end the
// connection object is destroyed and the "CNetworkBuffer" counters balance.
#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/pointer_cast.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "base/rpc/networkbuffer.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcconnectionheaders.h"
#include "base/rpc/rpcconnectionioservice.h"
#include "base/rpc/rpcframe.h"
#include "base/rpc/rpclogicalconnection.h"
#include "base/rpc/rpcspdyconnection.h"

using namespace apm::base;

namespace {

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "frame dispatch fuzz check failed: %s\n", what);
  std::abort();
}

void Check(bool condition, const char* what) {
  if (!condition) Fail(what);
}

// A frame as it left the connection: the kind and the first two payload words.
typedef std::tuple<uint16_t, uint32_t, uint32_t> FrameKey;  // control type, word 0, word 1

uint32_t Word(const CNetworkBuffer* buffer, size_t index) {
  if (buffer == nullptr || buffer->length < 4 * (index + 1)) return 0;
  const uint8_t* bytes = buffer->data + 4 * index;
  return (static_cast<uint32_t>(bytes[0]) << 24) | (static_cast<uint32_t>(bytes[1]) << 16) |
         (static_cast<uint32_t>(bytes[2]) << 8) | static_cast<uint32_t>(bytes[3]);
}

// What the frames that must leave the connection are checked against.
struct Expectations {
  std::multiset<FrameKey> required;
  std::multiset<FrameKey> sent;

  void check() const {
    std::multiset<FrameKey> missing;
    std::set_difference(required.begin(), required.end(), sent.begin(), sent.end(),
                        std::inserter(missing, missing.end()));
    if (!missing.empty()) {
      const FrameKey& first = *missing.begin();
      std::fprintf(stderr, "missing frame: type %u, words %u %u\n", std::get<0>(first), std::get<1>(first),
                   std::get<2>(first));
      Fail("a required frame was sent");
    }
  }
};

class CapturingConnection : public CSpdyConnection, public boost::enable_shared_from_this<CapturingConnection> {
 public:
  static boost::shared_ptr<CapturingConnection> create(const boost::shared_ptr<CConnectionIOService>& service,
                                                       IConnectionHandlerFactory* factory,
                                                       Expectations& expectations) {
    return boost::shared_ptr<CapturingConnection>(new CapturingConnection(service, factory, expectations));
  }

  boost::shared_ptr<CSpdyConnection> get_pointer() override { return shared_from_this(); }
  std::string get_remote_address() override { return std::string(); }
  std::string get_local_address() override { return std::string(); }

  // As after a successful version exchange, on the accepting or the connecting side.
  void open(bool accepting) {
    if (accepting) {
      start_server();
    } else {
      connect();
    }
    _connect_result(true);
  }

  // The engine's read loop over the next received bytes: dispatches every complete
  // frame. False once reading has ended.
  bool receive(const uint8_t* bytes, size_t size) {
    if (!reading) return false;
    staging.insert(staging.end(), bytes, bytes + size);
    size_t begin = 0;
    while (reading && staging.size() - begin >= FRAME_HEADER_SIZE) {
      const FrameHeader header = unpack_frame_header(staging.data() + begin);
      const uint32_t length = header.length();
      if (length > MAX_FRAME_PAYLOAD) {
        send_rst_stream(0, SPDY_STATUS_FRAME_TOO_LARGE);
        Check(!write_queue.empty(), "the answer to an oversized frame is queued");
        const PendingFrame& answer = write_queue.back();
        Check(unpack_frame_header(answer.header).type() == SPDY_RST_STREAM && Word(answer.buffer, 0) == 0 &&
                  Word(answer.buffer, 1) == SPDY_STATUS_FRAME_TOO_LARGE,
              "an oversized frame is answered by RST_STREAM(0, 11)");
        stop();
        reading = false;
        break;
      }
      if (staging.size() - begin < FRAME_HEADER_SIZE + length) break;
      if (length != 0) {
        read_buffer = CNetworkBuffer::Allocate();
        std::memcpy(read_buffer->data, staging.data() + begin + FRAME_HEADER_SIZE, length);
        read_buffer->length = length;
      }
      begin += FRAME_HEADER_SIZE + length;
      expect_answers(header);
      process_frame(header);
      CNetworkBuffer::Free(read_buffer);
      read_buffer = nullptr;
    }
    staging.erase(staging.begin(), staging.begin() + static_cast<std::ptrdiff_t>(begin));
    return reading;
  }

  // A stream opened by this side, as create_connection does it on the strand.
  boost::shared_ptr<CLogicalConnection> open_stream(const boost::shared_ptr<IReceiveStream>& receive_stream) {
    boost::shared_ptr<CLogicalConnection> logical = CLogicalConnection::create(get_pointer(), false);
    logical->set_receive_stream(receive_stream);
    init_created_connection(logical);
    const uint32_t id = logical->get_stream_id();
    Check(id != 0 && (id & 0x80000000u) == 0, "a stream id of 31 bits");
    Check((id & 1) == (is_server ? 0u : 1u), "stream ids of this side's parity");
    return logical;
  }

  bool is_shut_down() const { return shut_down; }

 protected:
  void start_connect() override {}

  // Like the socket writer: the queue is taken off by a handler on the strand, and
  // when it has drained the same decision about stopping is made.
  void start_write() override {
    if (writing) return;
    if (write_queue.empty()) {
      if (closing && streams.empty()) stop();
      return;
    }
    writing = true;
    boost::shared_ptr<CapturingConnection> self = shared_from_this();
    boost::asio::post(strand, [self]() { self->write_queued_frames(); });
  }

  void shutdown() override {
    shut_down = true;
    reading = false;
  }

 private:
  CapturingConnection(const boost::shared_ptr<CConnectionIOService>& service, IConnectionHandlerFactory* factory,
                      Expectations& expectations)
      : CSpdyConnection(service, factory, boost::shared_ptr<IServerConnection>(), 0, Parameters()),
        expectations(expectations) {}

  static RPCConnectionParameters Parameters() {
    RPCConnectionParameters parameters;
    parameters.min_version = RPC_MINIMUM_VERSION;
    parameters.connect_timeout = 0;
    parameters.ping_interval = 0;
    return parameters;
  }

  // The frames that the engine must send because of a received frame.
  void expect_answers(const FrameHeader& header) {
    if (!header.is_control()) {
      auto entry = streams.find(header.stream_id());
      const bool live = entry != streams.end() && !entry->second.expired();
      if (!live && read_buffer != nullptr) {
        expectations.required.emplace(SPDY_WINDOW_UPDATE, header.stream_id(),
                                      static_cast<uint32_t>(read_buffer->length));
      }
      return;
    }
    if (read_buffer == nullptr) return;
    if (header.type() == SPDY_PING && read_buffer->length >= 4) {
      const uint32_t id = Word(read_buffer, 0);
      if ((id & 1) != (is_server ? 0u : 1u)) expectations.required.emplace(SPDY_PING, id, 0);
    }
    uint32_t id;
    if (header.type() == SPDY_SYN_STREAM && !closing) {
      uint32_t priority;
      unsigned long offset;
      RPCConnectionHeaders headers;
      if (unpack_syn_stream(read_buffer, id, priority, offset) && decode_headers(read_buffer, offset, headers)) {
        if (streams.count(id) != 0) {
          expectations.required.emplace(SPDY_RST_STREAM, id, SPDY_STATUS_STREAM_IN_USE);
        } else if (handler_factory != nullptr && headers.find(RPC_HEADER_FUNCTION) == headers.end()) {
          expectations.required.emplace(SPDY_RST_STREAM, id, SPDY_STATUS_REFUSED_STREAM);
        }
      }
    }
  }

  void write_queued_frames() {
    while (!write_queue.empty()) {
      PendingFrame frame = write_queue.front();
      write_queue.pop_front();
      const FrameHeader header = unpack_frame_header(frame.header);
      const uint64_t length = frame.buffer != nullptr ? frame.buffer->length : 0;
      Check(length <= MAX_FRAME_PAYLOAD, "no payload above 8192 bytes is queued");
      Check(header.length() == length, "the length field is the payload's length");
      if (header.is_control()) {
        Check(frame.header[0] == 0x80 && frame.header[1] == SPDY_VERSION, "control frames carry version 3");
        expectations.sent.emplace(header.type(), Word(frame.buffer, 0),
                                  header.type() == SPDY_PING ? 0 : Word(frame.buffer, 1));
      }
      CNetworkBuffer::Free(frame.buffer);
    }
    writing = false;
    start_write();
  }

  Expectations& expectations;
  std::vector<uint8_t> staging;
  bool reading = true;
  bool shut_down = false;
};

// The receiving end of one stream, as a worker's stream would hold it: it keeps the
// logical connection and the buffers it has not read yet.
class StubStream : public IReceiveStream {
 public:
  ~StubStream() override { free_all(); }

  void recv_data(const CNetworkBuffer* buffer, bool /*end_of_segment*/) override {
    if (buffer == nullptr) return;
    Check(buffer->length != 0 && buffer->length <= MAX_FRAME_PAYLOAD, "received buffers hold 1 to 8192 bytes");
    pending.push_back(buffer);
  }
  void recv_closed() override { receive_closed = true; }
  void recv_connection_closing() override { connection_closing = true; }
  void recv_terminated(unsigned int /*status*/, const std::string& /*text*/) override { receive_closed = true; }
  void recv_headers(RPCConnectionHeaders& /*headers*/) override {}
  boost::shared_ptr<ILogicalConnection> get_connection() override { return logical; }
  void set_connection(const boost::shared_ptr<ILogicalConnection>& connection) override { logical = connection; }
  bool is_receive_closed() override { return receive_closed; }
  bool is_connection_closing() override { return connection_closing; }

  void free_one() {
    if (pending.empty()) return;
    logical->free_buffer(pending.front());
    pending.pop_front();
  }
  void free_all() {
    while (!pending.empty()) free_one();
  }
  boost::shared_ptr<CLogicalConnection> engine_view() const {
    return boost::static_pointer_cast<CLogicalConnection>(logical);
  }

  // Bytes handed to the stream's send_data, kept within the send window so that it
  // never waits.
  uint64_t bytes_sent = 0;

 private:
  boost::shared_ptr<ILogicalConnection> logical;
  std::deque<const CNetworkBuffer*> pending;
  bool receive_closed = false;
  bool connection_closing = false;
};

class StubFactory : public IConnectionHandlerFactory {
 public:
  explicit StubFactory(std::vector<boost::shared_ptr<StubStream>>& streams) : streams(streams) {}

  boost::shared_ptr<IReceiveStream> create_client_connection(
      const boost::shared_ptr<IPhysicalConnection>& /*connection*/, RPCConnectionHeaders& headers,
      const boost::shared_ptr<ILogicalConnection>& logical) override {
    if (headers.find(RPC_HEADER_FUNCTION) == headers.end()) return boost::shared_ptr<IReceiveStream>();
    boost::shared_ptr<StubStream> stream(new StubStream);
    stream->set_connection(logical);
    streams.push_back(stream);
    return stream;
  }
  void connection_closed(const boost::shared_ptr<IPhysicalConnection>& /*connection*/) override {
    Check(++closed == 1, "the end of a connection is reported once");
  }
  void acceptor_closed(const boost::shared_ptr<IServerConnection>& /*server*/) override {
    Fail("a connection reported an acceptor");
  }

  int closed = 0;

 private:
  std::vector<boost::shared_ptr<StubStream>>& streams;
};

// Reads the operands of the operations front to back; past the end every read is 0.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : data(data), size(size) {}
  bool done() const { return position >= size; }
  uint8_t byte() { return position < size ? data[position++] : 0; }
  uint16_t u16() {
    const uint16_t high = byte();
    return static_cast<uint16_t>((high << 8) | byte());
  }
  uint32_t u32() {
    const uint32_t high = u16();
    return (high << 16) | u16();
  }
  // Up to `count` bytes, fewer at the end of the input.
  std::pair<const uint8_t*, size_t> bytes(size_t count) {
    const size_t available = position < size ? size - position : 0;
    const size_t taken = count < available ? count : available;
    const uint8_t* start = data + position;
    position += taken;
    return std::make_pair(start, taken);
  }

 private:
  const uint8_t* data;
  size_t size;
  size_t position = 0;
};

CConnectionIOService& Service(boost::shared_ptr<CConnectionIOService>* shared = nullptr) {
  // No threads: the fuzzer's thread runs the handlers.
  static boost::shared_ptr<CConnectionIOService>* service =
      new boost::shared_ptr<CConnectionIOService>(new CConnectionIOService);
  if (shared != nullptr) *shared = *service;
  return **service;
}

void Poll() {
  boost::asio::io_service& io = Service().get_io_service();
  do {
    io.restart();
  } while (io.poll() != 0);
}

RPCConnectionHeaders ReplyHeaders(size_t text_length) {
  RPCConnectionHeaders headers;
  headers.set<unsigned int>(RPC_HEADER_ERROR_CODE, 0);
  if (text_length != 0) headers[RPC_HEADER_ERROR_TEXT] = std::string(text_length, 't');
  return headers;
}

void Run(Reader& input, const boost::shared_ptr<CapturingConnection>& connection,
         std::vector<boost::shared_ptr<StubStream>>& streams) {
  while (!input.done()) {
    const uint8_t opcode = input.byte() % 12;
    if (opcode == 0) {
      const auto chunk = input.bytes(input.u16());
      connection->receive(chunk.first, chunk.second);
    } else if (opcode == 1) {
      uint8_t frame[FRAME_HEADER_SIZE];
      for (int index = 0; index < 5; ++index) frame[index] = input.byte();
      const auto payload = input.bytes(input.u16());
      frame[5] = static_cast<uint8_t>(payload.second >> 16);
      frame[6] = static_cast<uint8_t>(payload.second >> 8);
      frame[7] = static_cast<uint8_t>(payload.second);
      std::vector<uint8_t> bytes(frame, frame + FRAME_HEADER_SIZE);
      bytes.insert(bytes.end(), payload.first, payload.first + payload.second);
      connection->receive(bytes.data(), bytes.size());
    } else if (opcode == 2) {
      Poll();
    } else if (opcode == 10) {
      boost::shared_ptr<StubStream> stream(new StubStream);
      stream->set_connection(connection->open_stream(stream));
      RPCConnectionHeaders headers;
      headers.set<unsigned int>(RPC_HEADER_CLASS, 1);
      headers.set<unsigned int>(RPC_HEADER_FUNCTION, 3600);
      stream->get_connection()->init(headers);
      streams.push_back(stream);
    } else if (opcode == 11) {
      const uint8_t what = input.byte() % 5;
      const uint32_t id = input.u32();
      if (what == 0) connection->close(false);
      if (what == 1) connection->close(true);
      if (what == 2) connection->stop();
      if (what == 3) connection->post_terminate(id, SPDY_STATUS_CANCEL);
      if (what == 4) connection->post_window_update(id, 1);
    } else {
      const uint8_t index = input.byte();
      if (streams.empty()) continue;
      const size_t slot = index % streams.size();
      StubStream& stream = *streams[slot];
      if (opcode == 3) {
        stream.free_one();
      } else if (opcode == 4) {
        stream.free_all();
      } else if (opcode == 5) {
        streams.erase(streams.begin() + static_cast<std::ptrdiff_t>(slot));
      } else if (opcode == 6) {
        const uint8_t how = input.byte() % 3;
        const uint8_t flags = input.byte();
        const RPCConnectionHeaders headers = ReplyHeaders(input.u16());
        if (how == 0) stream.get_connection()->send_headers(headers);
        if (how == 1) connection->post_syn_reply(stream.engine_view(), flags, headers);
        if (how == 2) connection->post_headers(stream.engine_view(), flags, headers);
      } else if (opcode == 7) {
        const uint8_t flags = input.byte();
        const uint16_t length = static_cast<uint16_t>(input.u16() % (MAX_FRAME_PAYLOAD + 1));
        const bool posted = (flags & 0x80) != 0;
        if (!posted) {
          // A stream that would fill its window does not send here: send_data would wait.
          if (stream.bytes_sent + length > RPC_STREAM_WINDOW) continue;
          stream.bytes_sent += length;
        }
        CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
        std::memset(buffer->data, 'd', length);
        buffer->length = length;
        if (posted) {
          connection->post_data(stream.engine_view(), flags & 0x7f, buffer);
        } else {
          stream.get_connection()->send_data(buffer, (flags & FLAG_END_SEGMENT) != 0);
        }
      } else if (opcode == 8) {
        stream.get_connection()->send_close();
      } else if (opcode == 9) {
        stream.get_connection()->send_terminate();
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  CStaticCounterObject& counter = CNetworkBuffer::Counter();
  const uint32_t allocations_before = counter.allocations();
  const uint32_t frees_before = counter.frees();

  boost::shared_ptr<CConnectionIOService> service;
  Service(&service);
  Expectations expectations;
  std::vector<boost::shared_ptr<StubStream>> streams;
  StubFactory factory(streams);
  boost::weak_ptr<CapturingConnection> watched;
  {
    boost::shared_ptr<CapturingConnection> connection = CapturingConnection::create(service, &factory, expectations);
    watched = connection;
    connection->open((data[0] & 1) != 0);
    Reader input(data + 1, size - 1);
    Run(input, connection, streams);

    // The end: everything posted runs, the connection stops, the streams go.
    Poll();
    connection->stop();
    Poll();
    Check(connection->is_shut_down(), "a stopped connection shuts its socket");
    Check(factory.closed == 1, "the factory hears of the end");
    streams.clear();
    Poll();
  }
  Check(watched.expired(), "the connection object is destroyed once nothing holds it");
  expectations.check();
  Check(counter.allocations() - allocations_before == counter.frees() - frees_before,
        "every network buffer allocated is freed");
  return 0;
}
