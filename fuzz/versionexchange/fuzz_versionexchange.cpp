// Fuzz target of the version exchange, both sides, end to end: the engine's own
// connections over TLS on 127.0.0.1, with a hand-written peer that sends the input
// in place of the other side's message. The checks of the exchange live in the
// engine's read handlers, so they are reached through a real connection.
//
// The first input byte chooses the side under test, the rest is the message:
//   even: the engine accepts; the rest is the connecting side's request. The
//         acceptor's factory lets the connection in, or denies it by the connection
//         id (top bit: with the id as code and a text of (id & 0x3fff) bytes;
//         bit 30: with no error at all).
//   odd:  the engine connects; the rest is the accepting side's response.
// A model of the exchange says for every input whether the engine must answer, what
// it answers, and with which outcome and text a connecting caller is left. What
// follows a complete exchange that succeeded goes on as frames.
//
// After every input the engine's connection must end, report its end to the factory
// once, be destroyed, and leave as many network buffers freed as were allocated.
#include <signal.h>
#include <unistd.h>

#include <boost/pointer_cast.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/famerror.h"
#include "base/rpc/networkbuffer.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcconnectionheaders.h"
#include "base/rpc/rpcconnectionioservice.h"
#include "base/rpc/rpcconnectionparameters.h"
#include "base/rpc/rpcspdyserverconnection.h"
#include "base/rpc/rpcversionexchange.h"
#include "tests/support/rawtlspeer.h"
#include "tests/support/testcertificates.h"

using namespace apm::base;
using apm::test::GetTestIdentity;
using apm::test::RawTlsPeer;

namespace {

// The id that the connecting engine announces in its request.
constexpr uint32_t kConnectionId = 0x5eed;

[[noreturn]] void Fail(const char* what, const std::string& detail = std::string()) {
  std::fprintf(stderr, "version exchange fuzz check failed: %s%s%s\n", what, detail.empty() ? "" : ": ",
               detail.c_str());
  std::abort();
}

void Check(bool condition, const char* what, const std::string& detail = std::string()) {
  if (!condition) Fail(what, detail);
}

uint64_t LittleEndian(const uint8_t* bytes, int size) {
  uint64_t value = 0;
  for (int index = size - 1; index >= 0; --index) value = (value << 8) | bytes[index];
  return value;
}

uint32_t BigEndian32(const uint8_t* bytes) {
  return (static_cast<uint32_t>(bytes[0]) << 24) | (static_cast<uint32_t>(bytes[1]) << 16) |
         (static_cast<uint32_t>(bytes[2]) << 8) | static_cast<uint32_t>(bytes[3]);
}

// What an error record holds after SetError(code, text): the text up to its first
// NUL, less as many characters at its end as there are line feeds, carriage returns
// and blanks at the end of "SetError: %08x <text>" cut to 1023 characters.
std::string RecordMessage(uint32_t code, const std::string& text) {
  const std::string visible(text.c_str());
  char prefix[32];
  std::snprintf(prefix, sizeof(prefix), "SetError: %08x ", code);
  const std::string formatted = (prefix + (text.empty() ? std::string("<NULL>") : visible)).substr(0, 1023);
  size_t stripped = 0;
  while (stripped < formatted.size()) {
    const char c = formatted[formatted.size() - 1 - stripped];
    if (c != '\n' && c != '\r' && c != ' ') break;
    ++stripped;
  }
  return visible.size() > stripped ? visible.substr(0, visible.size() - stripped) : std::string();
}

// Takes every buffer it is given and frees it at once through its stream, which
// acknowledges it to the peer.
class DrainingStream : public IReceiveStream {
 public:
  void recv_data(const CNetworkBuffer* buffer, bool /*end_of_segment*/) override {
    if (boost::shared_ptr<ILogicalConnection> logical = connection.lock()) {
      logical->free_buffer(buffer);
    } else {
      CNetworkBuffer::Free(buffer);
    }
  }
  void recv_closed() override { receive_closed = true; }
  void recv_connection_closing() override { connection_closing = true; }
  void recv_terminated(unsigned int /*status*/, const std::string& /*text*/) override { receive_closed = true; }
  void recv_headers(RPCConnectionHeaders& /*headers*/) override {}
  boost::shared_ptr<ILogicalConnection> get_connection() override { return connection.lock(); }
  void set_connection(const boost::shared_ptr<ILogicalConnection>& logical) override { connection = logical; }
  bool is_receive_closed() override { return receive_closed; }
  bool is_connection_closing() override { return connection_closing; }

 private:
  boost::weak_ptr<ILogicalConnection> connection;
  bool receive_closed = false;
  bool connection_closing = false;
};

// Factory of both sides. Streams opened by the peer are taken when their headers
// name a function and refused otherwise; taken streams are held until the test
// lets them go. Runs on the I/O thread; the fuzzer thread waits on it.
class StubFactory : public IConnectionHandlerFactory {
 public:
  boost::shared_ptr<IReceiveStream> create_client_connection(
      const boost::shared_ptr<IPhysicalConnection>& /*connection*/, RPCConnectionHeaders& headers,
      const boost::shared_ptr<ILogicalConnection>& logical) override {
    if (headers.find(RPC_HEADER_FUNCTION) == headers.end()) return boost::shared_ptr<IReceiveStream>();
    boost::shared_ptr<DrainingStream> stream(new DrainingStream);
    stream->set_connection(logical);
    std::lock_guard<std::mutex> lock(mutex);
    held.emplace_back(stream, logical);
    return stream;
  }

  bool connection_opened(const boost::shared_ptr<IPhysicalConnection>& connection) override {
    const uint32_t id = connection->get_connection_id();
    if (id & 0x80000000u) {
      FamError::SetError(static_cast<int>(id), std::string(id & 0x3fffu, 'd'));
      return false;
    }
    return (id & 0x40000000u) == 0;
  }

  void connection_closed(const boost::shared_ptr<IPhysicalConnection>& connection) override {
    std::lock_guard<std::mutex> lock(mutex);
    ++closed;
    last_closed = connection;
    changed.notify_all();
  }

  void acceptor_closed(const boost::shared_ptr<IServerConnection>& /*server*/) override {
    Fail("the acceptor's loop ended");
  }

  unsigned int closed_count() {
    std::lock_guard<std::mutex> lock(mutex);
    return closed;
  }

  // Waits until `count` connections have ended, then drops the streams held (and
  // with them their hold on the connection) and hands out the last one that ended.
  boost::weak_ptr<IPhysicalConnection> wait_for_closed(unsigned int count) {
    std::vector<std::pair<boost::shared_ptr<IReceiveStream>, boost::shared_ptr<ILogicalConnection>>> released;
    boost::weak_ptr<IPhysicalConnection> result;
    {
      std::unique_lock<std::mutex> lock(mutex);
      if (!changed.wait_for(lock, std::chrono::seconds(10), [&]() { return closed >= count; })) {
        Fail("the connection did not report its end");
      }
      Check(closed == count, "one end reported per connection");
      released.swap(held);
      result = last_closed;
      last_closed.reset();
    }
    return result;
  }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  unsigned int closed = 0;
  boost::weak_ptr<IPhysicalConnection> last_closed;
  std::vector<std::pair<boost::shared_ptr<IReceiveStream>, boost::shared_ptr<ILogicalConnection>>> held;
};

RPCConnectionParameters BaseParameters(const std::string& certificate_file) {
  RPCConnectionParameters parameters;
  parameters.min_version = RPC_MINIMUM_VERSION;
  parameters.certificate_file = certificate_file;
  // Every exchange ends by the input or by the peer closing; no timer runs.
  parameters.connect_timeout = 0;
  parameters.ping_interval = 0;
  return parameters;
}

// One I/O thread, an acceptor on an ephemeral port and a listening peer, made once.
struct Environment {
  Environment() {
    signal(SIGPIPE, SIG_IGN);
    server_certificate = GetTestIdentity("server").certificate_file;
    client_certificate = GetTestIdentity("client").certificate_file;
    service = boost::static_pointer_cast<CConnectionIOService>(IPhysicalConnection::CreateIOService(1));
    acceptor = IServerConnection::CreateSpdyServer(service, &server_factory);
    FamError record(true);
    if (!acceptor->bind(BaseParameters(server_certificate))) Fail("bind", record.message);
    acceptor_port = boost::static_pointer_cast<CSpdyServerConnection>(acceptor)->get_bound_port();
    listener_port = listener.Listen();
    Check(listener_port != 0, "listen");
  }

  std::string server_certificate;
  std::string client_certificate;
  boost::shared_ptr<CConnectionIOService> service;
  StubFactory server_factory;
  StubFactory client_factory;
  boost::shared_ptr<IServerConnection> acceptor;
  unsigned short acceptor_port = 0;
  RawTlsPeer listener;
  unsigned short listener_port = 0;
};

Environment& Env() {
  // Never destroyed: the I/O thread runs until the process ends.
  static Environment* environment = new Environment;
  return *environment;
}

void Write(RawTlsPeer& peer, const uint8_t* data, size_t size) {
  // A failed write only means that the engine has already closed; what it does
  // then is checked by the reads and the end of the connection.
  if (size != 0) peer.Write(std::vector<uint8_t>(data, data + size));
}

// Waits until the connection object has gone and every network buffer is freed.
void CheckConnectionGone(const boost::weak_ptr<IPhysicalConnection>& connection) {
  CStaticCounterObject& counter = CNetworkBuffer::Counter();
  for (int round = 0; round < 20000; ++round) {
    if (connection.expired() && counter.allocations() == counter.frees()) return;
    usleep(round < 100 ? 0 : 500);
  }
  Check(connection.expired(), "the connection object is destroyed");
  Fail("network buffers balance",
       std::to_string(counter.allocations()) + " allocated, " + std::to_string(counter.frees()) + " freed");
}

// ---------------------------------------------------------------------------
// The engine accepts.

struct RequestOutcome {
  bool complete = false;  // the engine has all it reads
  bool answered = false;  // it writes a response
  bool accepted = false;  // the response is positive and frames follow
  size_t consumed = 0;
  std::vector<uint8_t> response;
};

RequestOutcome ModelRequest(const uint8_t* data, size_t size, uint64_t start_timestamp) {
  RequestOutcome outcome;
  if (size < RPC_HANDSHAKE_HEADER_SIZE) return outcome;
  const uint32_t body_length = static_cast<uint32_t>(LittleEndian(data + 4, 4));
  if (LittleEndian(data, 2) != 1 || LittleEndian(data + 2, 2) != 0 || body_length < 1 || body_length > 8191) {
    outcome.complete = true;
    return outcome;
  }
  if (size < RPC_HANDSHAKE_HEADER_SIZE + body_length) return outcome;
  outcome.complete = true;
  outcome.consumed = RPC_HANDSHAKE_HEADER_SIZE + body_length;
  if (body_length < RPC_HANDSHAKE_REQUEST_BODY_SIZE) return outcome;
  const uint8_t* body = data + RPC_HANDSHAKE_HEADER_SIZE;
  if (LittleEndian(body, 2) != 3 || LittleEndian(body + 2, 2) != 8 ||
      LittleEndian(body + 8, 8) < RPC_MINIMUM_VERSION) {
    return outcome;
  }
  outcome.answered = true;
  const uint32_t id = static_cast<uint32_t>(LittleEndian(body + 4, 4));
  if (id & 0x80000000u) {
    outcome.response = pack_version_denial(id, std::string(id & 0x3fffu, 'd'));
  } else if (id & 0x40000000u) {
    outcome.response = pack_version_denial(0, std::string());
  } else {
    outcome.accepted = true;
    outcome.response = pack_version_response(RPC_LOCAL_VERSION, start_timestamp);
  }
  return outcome;
}

void AcceptingSide(const uint8_t* data, size_t size) {
  Environment& environment = Env();
  const unsigned int closed_before = environment.server_factory.closed_count();
  const RequestOutcome outcome = ModelRequest(data, size, environment.service->get_start_timestamp());
  {
    RawTlsPeer peer;
    Check(peer.Connect(environment.acceptor_port, environment.client_certificate), "TLS with the acceptor");
    if (outcome.answered) {
      Write(peer, data, outcome.consumed);
      std::vector<uint8_t> response(outcome.response.size());
      Check(peer.Read(response.data(), response.size()), "the version response arrives");
      Check(response == outcome.response, "the version response");
      if (outcome.accepted) {
        Write(peer, data + outcome.consumed, size - outcome.consumed);
      } else {
        uint8_t byte;
        Check(!peer.Read(&byte, 1) && !peer.timed_out(), "nothing follows a denial");
      }
    } else {
      Write(peer, data, size);
      if (outcome.complete) {
        uint8_t byte;
        Check(!peer.Read(&byte, 1), "no response to a refused request");
        Check(!peer.timed_out(), "a refused request ends the connection");
      }
      // Otherwise the engine waits for the rest, and closing makes its read fail.
    }
  }
  CheckConnectionGone(environment.server_factory.wait_for_closed(closed_before + 1));
}

// ---------------------------------------------------------------------------
// The engine connects.

struct ResponseOutcome {
  bool complete = false;  // the engine has all it reads
  bool accepted = false;
  size_t consumed = 0;
  std::string text;  // the failure; when incomplete, the failing read's text
  uint64_t version = 0;
  uint64_t start_timestamp = 0;
};

ResponseOutcome ModelResponse(const uint8_t* data, size_t size) {
  ResponseOutcome outcome;
  if (size < 8) {
    outcome.text = "could not receive initial rpc handshake";
    return outcome;
  }
  const uint32_t status = static_cast<uint32_t>(LittleEndian(data, 4));
  const uint32_t text_length = BigEndian32(data + 4);
  size_t position = 8;
  std::string error_text;
  if (text_length >= 1 && text_length <= 8192) {
    if (size < position + text_length) {
      outcome.text = "could not receive initial rpc handshake error";
      return outcome;
    }
    error_text.assign(reinterpret_cast<const char*>(data + position), text_length);
    position += text_length;
  }
  if (size < position + 4) {
    outcome.text = "could not receive initial rpc handshake response data length";
    return outcome;
  }
  const uint32_t data_length = static_cast<uint32_t>(LittleEndian(data + position, 4));
  position += 4;
  if (data_length < 1 || data_length > 8192) {
    outcome.complete = true;
    outcome.consumed = position;
    outcome.text = status != 0 && !error_text.empty() ? error_text : "invalid initial rpc handshake response";
    return outcome;
  }
  if (size < position + data_length) {
    outcome.text = "could not receive initial rpc handshake response data";
    return outcome;
  }
  outcome.complete = true;
  outcome.consumed = position + data_length;
  if (data_length < RPC_HANDSHAKE_RESPONSE_DATA_SIZE) {
    outcome.text = "invalid initial rpc handshake response data";
    return outcome;
  }
  outcome.version = LittleEndian(data + position + 2, 8);
  outcome.start_timestamp = LittleEndian(data + position + 10, 8);
  if (outcome.version < RPC_MINIMUM_VERSION) {
    outcome.text = "remote rpc version is incompatible";
    return outcome;
  }
  outcome.accepted = true;
  return outcome;
}

void ConnectingSide(const uint8_t* data, size_t size) {
  Environment& environment = Env();
  const unsigned int closed_before = environment.client_factory.closed_count();
  const ResponseOutcome outcome = ModelResponse(data, size);
  RPCConnectionParameters parameters = BaseParameters(environment.client_certificate);
  parameters.host = "127.0.0.1";
  parameters.port = environment.listener_port;
  parameters.connection_id = kConnectionId;

  boost::weak_ptr<IPhysicalConnection> watched;
  {
    boost::shared_ptr<IPhysicalConnection> connection =
        IPhysicalConnection::CreateSpdyClientConnection(environment.service, &environment.client_factory, parameters);
    watched = connection;
    RawTlsPeer& peer = environment.listener;
    Check(peer.Accept(environment.server_certificate), "TLS with the connecting engine");
    std::vector<uint8_t> request;
    Check(peer.ReadVersionRequest(request), "the version request arrives");
    Check(request == pack_version_request(kConnectionId, RPC_LOCAL_VERSION,
                                          environment.service->get_start_timestamp()),
          "the version request");

    boost::shared_ptr<DrainingStream> stream(new DrainingStream);
    boost::shared_ptr<ILogicalConnection> logical;
    FamError record(true);
    if (outcome.complete) {
      Write(peer, data, outcome.consumed);
      logical = connection->create_connection(stream);
      if (outcome.accepted) {
        Check(logical != nullptr, "the connection opens", record.message);
        stream->set_connection(logical);
        Check(connection->get_version() == outcome.version, "the peer's version is kept");
        Check(connection->get_start_timestamp() == outcome.start_timestamp, "the peer's start time is kept");
        Write(peer, data + outcome.consumed, size - outcome.consumed);
      } else {
        Check(logical == nullptr, "the connection fails");
        Check(record.code == E_FAIL_CODE, "a refused response fails with E_FAIL", std::to_string(record.code));
        const std::string expected = RecordMessage(static_cast<uint32_t>(E_FAIL_CODE), outcome.text);
        Check(record.message == expected, "the text of a refused response",
              "'" + record.message + "', expected '" + expected + "'");
      }
    } else {
      // The engine waits for the rest; closing makes its read fail.
      Write(peer, data, size);
      peer.Close();
      logical = connection->create_connection(stream);
      Check(logical == nullptr, "a cut response fails the connection");
      Check(record.message.compare(0, outcome.text.size() + 2, outcome.text + " (") == 0,
            "the text of a cut response", "'" + record.message + "', expected '" + outcome.text + " (...)'");
    }
    peer.Close();
  }
  CheckConnectionGone(environment.client_factory.wait_for_closed(closed_before + 1));
  Check(watched.expired(), "the connecting engine is destroyed");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  Env();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  if (data[0] & 1) {
    ConnectingSide(data + 1, size - 1);
  } else {
    AcceptingSide(data + 1, size - 1);
  }
  return 0;
}
