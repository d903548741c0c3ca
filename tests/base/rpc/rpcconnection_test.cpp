// Two-sided tests of the RPC engine over real TLS on 127.0.0.1: connecting,
// request and response streams, flow control, failures of the peer, peer
// verification, version checks and the orderly close.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "base/famerror.h"
#include "base/rpc/rpcspdyserverconnection.h"
#include "base/rpc/rpclogicalconnection.h"
#include "base/rpc/rpcstreamconnection.h"
#include "tests/support/latch.h"
#include "tests/support/rpctestenvironment.h"
#include "tests/support/tcpport.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace base {
namespace {

using test::GetTestIdentity;
using test::Latch;
using test::RpcTestEnvironment;

typedef boost::shared_ptr<CLogicalConnectionStream> StreamPtr;

// A plain TCP connect to 127.0.0.1, to see whether anything listens on a port.
class RawConnectProbe {
 public:
  bool Connects(unsigned short port) {
    int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address;
    std::memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool connected = ::connect(descriptor, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0;
    close(descriptor);
    return connected;
  }
};

// Reads a length-prefixed text (32-bit length in host order, then the bytes).
bool ReadText(CLogicalConnectionStream& stream, std::string& text) {
  uint32_t length = 0;
  if (!stream.Read(&length, sizeof(length))) return false;
  text.assign(length, '\0');
  return length == 0 || stream.Read(&text[0], length);
}

bool WriteText(CLogicalConnectionStream& stream, const std::string& text) {
  uint32_t length = static_cast<uint32_t>(text.size());
  return stream.Write(&length, sizeof(length)) && stream.Write(text.data(), length);
}

// Serves a request holding one text with a response holding "echo:" and the text.
void EchoHandler(const StreamPtr& stream, const RPCConnectionHeaders& /*headers*/) {
  std::string text;
  if (!ReadText(*stream, text)) {
    stream->Terminate();
    return;
  }
  RPCConnectionHeaders response;
  stream->SendResponseHeaders(response);
  WriteText(*stream, "echo:" + text);
}

// A client call: request headers, one text, end of stream, response headers and text.
bool Call(const boost::shared_ptr<IPhysicalConnection>& connection, const std::string& text, std::string& answer,
          RPCConnectionHeaders* response_headers = nullptr) {
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  if (!stream) return false;
  stream->SendRequestHeaders(1, 3600);
  if (!WriteText(*stream, text)) return false;
  stream->Flush();
  stream->EndStream();
  RPCConnectionHeaders headers;
  if (!stream->ReadResponseHeaders(headers)) return false;
  if (response_headers != nullptr) *response_headers = headers;
  return ReadText(*stream, answer);
}

// Waits up to 10 s for `condition`.
template <class Condition>
bool Eventually(Condition condition) {
  for (int step = 0; step < 1000; ++step) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return condition();
}

// A counter pattern: the 32-bit word at byte offset 4 * i holds i + seed.
void FillPattern(std::vector<uint32_t>& words, uint64_t first_word, uint32_t seed) {
  for (size_t index = 0; index < words.size(); ++index) words[index] = static_cast<uint32_t>(first_word + index) + seed;
}

// The index of the first word that breaks the pattern, or -1.
int64_t FirstPatternMismatch(const std::vector<uint32_t>& words, uint64_t first_word, uint32_t seed) {
  for (size_t index = 0; index < words.size(); ++index) {
    if (words[index] != static_cast<uint32_t>(first_word + index) + seed) return static_cast<int64_t>(index);
  }
  return -1;
}

// Writes `size` bytes of the pattern in frame-sized writes, counting the bytes
// whose Write has returned in `written`.
bool WritePattern(CLogicalConnectionStream& stream, uint64_t size, uint32_t seed, std::atomic<uint64_t>& written) {
  std::vector<uint32_t> words(CNetworkBuffer::CAPACITY / sizeof(uint32_t));
  for (uint64_t offset = 0; offset < size; offset += CNetworkBuffer::CAPACITY) {
    FillPattern(words, offset / sizeof(uint32_t), seed);
    if (!stream.Write(words.data(), static_cast<unsigned int>(CNetworkBuffer::CAPACITY))) return false;
    written += CNetworkBuffer::CAPACITY;
  }
  return true;
}

// Reads `size` bytes of the pattern in chunks of 64 KiB and checks them. After
// `pause_at` bytes it opens `paused` and waits for `resume` before reading on.
// Returns an empty text or what went wrong.
std::string ReadPattern(CLogicalConnectionStream& stream, uint64_t size, uint32_t seed, uint64_t pause_at,
                        Latch& paused, Latch& resume) {
  std::vector<uint32_t> words(65536 / sizeof(uint32_t));
  const uint64_t chunk = words.size() * sizeof(uint32_t);
  for (uint64_t offset = 0; offset < size; offset += chunk) {
    if (offset == pause_at) {
      paused.Open();
      if (!resume.Wait(60000)) return "not resumed";
    }
    if (!stream.Read(words.data(), chunk)) return "read failed at " + std::to_string(offset);
    int64_t mismatch = FirstPatternMismatch(words, offset / sizeof(uint32_t), seed);
    if (mismatch >= 0) return "wrong data at " + std::to_string(offset + mismatch * sizeof(uint32_t));
  }
  return std::string();
}

class RpcConnectionTest : public ::testing::Test {
 protected:
  RpcConnectionTest()
      : buffers_allocated(CNetworkBuffer::Counter().allocations()), buffers_freed(CNetworkBuffer::Counter().frees()) {}

  // After the whole environment has ended, every network buffer is freed.
  void ExpectNoBufferLeft() {
    environment.Shutdown();
    EXPECT_EQ(CNetworkBuffer::Counter().allocations() - buffers_allocated,
              CNetworkBuffer::Counter().frees() - buffers_freed);
  }

  // A writer of full frames whose reader has read `read` bytes, all of them
  // acknowledged, and then stopped: 129 more frames go out (one is let through
  // while up to 1048576 bytes are outstanding), the next write waits, and the
  // unread buffers on the receiving side stay within the window.
  void ExpectWriterStuckAtTheWindow(const std::atomic<uint64_t>& written, uint64_t read) {
    const uint64_t stuck_at = read + 129 * CNetworkBuffer::CAPACITY;
    EXPECT_TRUE(Eventually([&]() { return written.load() >= stuck_at; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(stuck_at, written.load());
    const uint32_t live_buffers = (CNetworkBuffer::Counter().allocations() - buffers_allocated) -
                                  (CNetworkBuffer::Counter().frees() - buffers_freed);
    EXPECT_LE(live_buffers, 129u + 8u);
  }

  // Shared with handler threads; declared before the environment, which joins
  // them, so that it outlives them.
  Latch first_latch;
  Latch second_latch;
  Latch third_latch;
  Latch fourth_latch;
  std::atomic<uint64_t> client_written{0};
  std::atomic<uint64_t> server_written{0};
  std::atomic<int> progress{0};
  std::atomic<int> code{-1};
  std::string text;
  uint32_t buffers_allocated;
  uint32_t buffers_freed;

  RpcTestEnvironment environment;
};

TEST_F(RpcConnectionTest, RequestAndResponseTravelOnOneStream) {
  environment.server_factory.SetHandler(EchoHandler);
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  std::string answer;
  RPCConnectionHeaders response_headers;
  ASSERT_TRUE(Call(connection, "hello", answer, &response_headers)) << record.message;
  EXPECT_EQ("echo:hello", answer);
  EXPECT_TRUE(response_headers.empty());
  EXPECT_EQ("1", environment.server_factory.last_headers[RPC_HEADER_CLASS]);
  EXPECT_EQ("3600", environment.server_factory.last_headers[RPC_HEADER_FUNCTION]);
  EXPECT_EQ(RPC_LOCAL_VERSION, connection->get_version());
  EXPECT_NE(0u, connection->get_start_timestamp());
  EXPECT_EQ("127.0.0.1", connection->get_remote_address());
  EXPECT_EQ("127.0.0.1", connection->get_local_address());
  EXPECT_FALSE(connection->is_stopped());
}

TEST_F(RpcConnectionTest, ManyConcurrentStreamsShareOneConnection) {
  environment.server_factory.SetHandler(EchoHandler);
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  std::atomic<int> succeeded{0};
  std::vector<std::thread> workers;
  for (int worker = 0; worker < 32; ++worker) {
    workers.emplace_back([&, worker]() {
      FamError record;
      for (int call = 0; call < 20; ++call) {
        std::string text = std::to_string(worker) + "/" + std::to_string(call) + std::string(worker * 300, 'x');
        std::string answer;
        if (Call(connection, text, answer) && answer == "echo:" + text) ++succeeded;
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(32 * 20, succeeded.load());
  EXPECT_EQ(32 * 20, environment.server_factory.streams_created.load());
  ExpectNoBufferLeft();
}

TEST_F(RpcConnectionTest, LargeStreamTravelsBothWaysAndEachWriterWaitsAtTheWindow) {
  const uint64_t size = 64 * 1024 * 1024;
  const uint32_t request_seed = 0;
  const uint32_t response_seed = 0x9e3779b9;
  const uint64_t pause_at = 16 * 1024 * 1024;
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    text = ReadPattern(*stream, size, request_seed, pause_at, first_latch, second_latch);
    char byte;
    if (text.empty() && stream->Read(&byte, 1)) text = "request longer than sent";
    if (!text.empty()) {
      stream->Terminate();
      return;
    }
    RPCConnectionHeaders headers;
    stream->SendResponseHeaders(headers);
    if (!WritePattern(*stream, size, response_seed, server_written)) text = "response write failed";
  });
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  stream->SendRequestHeaders(1, 3601);
  std::string client_text;
  std::thread client([&]() {
    FamError client_record;
    if (!WritePattern(*stream, size, request_seed, client_written)) {
      client_text = "request write failed";
      return;
    }
    stream->EndStream();
    RPCConnectionHeaders headers;
    if (!stream->ReadResponseHeaders(headers)) {
      client_text = "no response headers: " + client_record.message;
      return;
    }
    client_text = ReadPattern(*stream, size, response_seed, pause_at, third_latch, fourth_latch);
  });
  // The worker stops reading the request at 16 MiB: the client's writer stops at
  // the window and goes on when the worker reads again.
  EXPECT_TRUE(first_latch.Wait(60000));
  ExpectWriterStuckAtTheWindow(client_written, pause_at);
  second_latch.Open();
  // The client stops reading the response at 16 MiB: now the worker's writer waits.
  EXPECT_TRUE(third_latch.Wait(60000));
  ExpectWriterStuckAtTheWindow(server_written, pause_at);
  fourth_latch.Open();
  client.join();
  environment.server_factory.JoinHandlers();
  EXPECT_EQ("", text);
  EXPECT_EQ("", client_text);
  EXPECT_EQ(size, client_written.load());
  EXPECT_EQ(size, server_written.load());
  EXPECT_EQ(size, stream->GetTotalSent());
  EXPECT_EQ(size, stream->GetTotalReceived());
  char byte;
  EXPECT_FALSE(stream->Read(&byte, 1));
  stream.reset();
  ExpectNoBufferLeft();
}

TEST_F(RpcConnectionTest, WriterBlocksAtTheWindowUntilTheReaderReads) {
  const int chunks = 400;  // 3.2 MiB, three windows and more
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    first_latch.Wait();  // nothing is read, nothing acknowledged, until the test says so
    std::vector<uint8_t> chunk(8192);
    int read = 0;
    while (read < chunks && stream->Read(chunk.data(), chunk.size())) ++read;
    code = read;
  });
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  stream->SendRequestHeaders(1, 3601);
  std::thread writer([&]() {
    std::vector<uint8_t> chunk(8192, 1);
    for (int index = 0; index < chunks; ++index) {
      if (!stream->Write(chunk.data(), static_cast<unsigned int>(chunk.size()))) break;
      ++progress;
    }
    stream->EndStream();
  });
  // A frame goes out while at most 1048576 bytes are outstanding: 129 full buffers,
  // and the 130th write waits.
  EXPECT_TRUE(Eventually([&]() { return progress.load() >= 129; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(129, progress.load());
  first_latch.Open();
  writer.join();
  EXPECT_EQ(chunks, progress.load());
  environment.server_factory.JoinHandlers();
  EXPECT_EQ(chunks, code.load());
  stream.reset();
  ExpectNoBufferLeft();
}

TEST_F(RpcConnectionTest, SenderBlockedOnTheWindowIsFreedByATerminate) {
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    first_latch.Wait();
    stream->Terminate();
  });
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  stream->SendRequestHeaders(1, 3601);
  std::thread writer([&]() {
    std::vector<uint8_t> chunk(8192, 1);
    for (int index = 0; index < 200; ++index) {
      // A terminated stream swallows what is written.
      EXPECT_TRUE(stream->Write(chunk.data(), static_cast<unsigned int>(chunk.size())));
      ++progress;
    }
  });
  EXPECT_TRUE(Eventually([&]() { return progress.load() >= 129; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(129, progress.load());
  first_latch.Open();
  writer.join();
  EXPECT_EQ(200, progress.load());
  RPCConnectionHeaders headers;
  EXPECT_FALSE(stream->ReadResponseHeaders(headers));
  EXPECT_EQ(5, record.code);
  EXPECT_EQ("reset", record.message);
  stream.reset();
  ExpectNoBufferLeft();
}

TEST_F(RpcConnectionTest, PeerVanishingMidStreamEndsTheReadWithStreamInUse) {
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    RPCConnectionHeaders headers;
    stream->SendResponseHeaders(headers);
    stream->Write("part", 4);
    stream->Flush();
    first_latch.Wait();
    // The accepting side goes away under the stream, which the handler still holds.
    boost::static_pointer_cast<CLogicalConnection>(stream->get_connection())->get_physical_connection()->close(true);
    second_latch.Wait();
  });
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  stream->SendRequestHeaders(1, 3600);
  stream->EndStream();
  RPCConnectionHeaders headers;
  ASSERT_TRUE(stream->ReadResponseHeaders(headers));
  char part[4];
  ASSERT_TRUE(stream->Read(part, 4));
  first_latch.Open();
  // Past the end of the first segment the stream waits for more, and learns that
  // the connection has died.
  stream->NextSegment();
  char more[4];
  EXPECT_FALSE(stream->Read(more, 4));
  EXPECT_EQ(8, record.code);
  EXPECT_EQ("stream in use", record.message);
  EXPECT_TRUE(Eventually([&]() { return connection->is_stopped(); }));
  EXPECT_TRUE(environment.client_factory.WaitForClosed(1, 5000));
  // A stopped connection that had been open reports only that it is not connected.
  EXPECT_TRUE(Eventually([&]() {
    record.code = 0;
    connection->get_version();
    return record.code != 0;
  }));
  EXPECT_EQ(static_cast<int>(0x80004005), record.code);
  EXPECT_EQ("not connected", record.message);
  // Writing to the dead stream is no error; the data vanish.
  EXPECT_TRUE(stream->Write("late", 4));
  stream->Flush();
  stream.reset();
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  second_latch.Open();
  ExpectNoBufferLeft();
}

TEST_F(RpcConnectionTest, UntrustedClientCertificateIsRefused) {
  environment.server_factory.SetHandler(EchoHandler);
  ASSERT_NE(0, environment.StartServer());
  RPCConnectionParameters parameters = environment.ClientParameters(environment.port);
  parameters.certificate_file = GetTestIdentity("rogue").certificate_file;
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  // Refused within the TLS handshake, which the connecting side sees fail.
  EXPECT_EQ(record.message.find("cannot establish secure connection ("), 0u) << record.message;
  EXPECT_TRUE(connection->is_stopped());
  EXPECT_EQ(0, environment.server_factory.connections_opened.load());
  ExpectNoBufferLeft();
}

TEST_F(RpcConnectionTest, ListedFingerprintInAnyCaseIsTrusted) {
  environment.server_factory.SetHandler(EchoHandler);
  std::string fingerprint = GetTestIdentity("client").fingerprint;
  for (char& c : fingerprint) c = static_cast<char>(toupper(c));
  test::WriteTextFile(environment.PathOf("upper_trust.cfg"), "\n" + fingerprint + " any comment\n");
  RPCConnectionParameters parameters = environment.ServerParameters();
  parameters.trusted_certificates_file = environment.PathOf("upper_trust.cfg");
  ASSERT_NE(0, environment.StartServer(parameters));
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  std::string answer;
  EXPECT_TRUE(Call(connection, "trusted", answer)) << record.message;
}

TEST_F(RpcConnectionTest, ConnectingSideRefusesAPeerBelowItsMinimumVersion) {
  ASSERT_NE(0, environment.StartServer());
  RPCConnectionParameters parameters = environment.ClientParameters(environment.port);
  parameters.min_version = RPC_LOCAL_VERSION + 1;
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(static_cast<int>(0x80004005), record.code);
  EXPECT_EQ("remote rpc version is incompatible", record.message);
}

TEST_F(RpcConnectionTest, VersionEqualToTheMinimumIsAcceptedOnBothSides) {
  environment.server_factory.SetHandler(EchoHandler);
  RPCConnectionParameters server_parameters = environment.ServerParameters();
  server_parameters.min_version = RPC_LOCAL_VERSION;
  ASSERT_NE(0, environment.StartServer(server_parameters));
  RPCConnectionParameters parameters = environment.ClientParameters(environment.port);
  parameters.min_version = RPC_LOCAL_VERSION;
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  std::string answer;
  EXPECT_TRUE(Call(connection, "equal", answer)) << record.message;
}

TEST_F(RpcConnectionTest, OrderlyCloseLetsTheCallInFlightFinish) {
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders& headers) {
    std::string text;
    ReadText(*stream, text);
    first_latch.Open();
    // The client's GOAWAY reaches this stream as "closing".
    Eventually([&]() { return stream->is_connection_closing(); });
    RPCConnectionHeaders response;
    stream->SendResponseHeaders(response);
    WriteText(*stream, stream->is_connection_closing() ? "closing" : "open");
    (void)headers;
  });
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  stream->SendRequestHeaders(1, 3600);
  WriteText(*stream, "request");
  stream->EndStream();
  ASSERT_TRUE(first_latch.Wait());
  connection->close(false);
  EXPECT_TRUE(Eventually([&]() { return connection->is_stopped(); }));
  RPCConnectionHeaders headers;
  ASSERT_TRUE(stream->ReadResponseHeaders(headers)) << record.message;
  std::string answer;
  ASSERT_TRUE(ReadText(*stream, answer)) << record.message;
  EXPECT_EQ("closing", answer);
  stream.reset();
  // With its last stream gone the connection stops, and both factories hear of it.
  EXPECT_TRUE(environment.client_factory.WaitForClosed(1, 5000));
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
  EXPECT_TRUE(Eventually([&]() { return !CLogicalConnectionStream::create(connection); }));
  ExpectNoBufferLeft();
}

TEST_F(RpcConnectionTest, RefusedConnectionReportsCouldNotConnect) {
  // A port that was free a moment ago: bind and release it.
  ASSERT_NE(0, environment.StartServer());
  const unsigned short port = environment.port;
  environment.server->close(true);
  EXPECT_TRUE(Eventually([&]() {
    RawConnectProbe probe;
    return !probe.Connects(port);
  }));
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(environment.ClientParameters(port));
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(ECONNREFUSED, record.code);
  EXPECT_EQ("could not connect to 127.0.0.1:" + std::to_string(port) + " (Connection refused)", record.message);
  EXPECT_TRUE(connection->is_stopped());
  EXPECT_TRUE(environment.client_factory.WaitForClosed(1, 5000));
}

TEST_F(RpcConnectionTest, RefusedStreamReadsAsResetWithStatus3) {
  environment.server_factory.SetRefuseStreams(true);
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream);
  stream->SendRequestHeaders(1, 3605);
  stream->EndStream();
  RPCConnectionHeaders headers;
  EXPECT_FALSE(stream->ReadResponseHeaders(headers));
  EXPECT_EQ(3, record.code);
  EXPECT_EQ("reset", record.message);
  EXPECT_EQ("3605", environment.server_factory.last_headers[RPC_HEADER_FUNCTION]);
}

TEST_F(RpcConnectionTest, ErrorResponseCarriesCodeAndTextInKeys3And4) {
  environment.server_factory.SetHandler([](const StreamPtr& stream, const RPCConnectionHeaders&) {
    std::string text;
    ReadText(*stream, text);
    RPCConnectionHeaders response;
    response.set<unsigned int>(RPC_HEADER_ERROR_CODE, 0x80004005u);
    response[RPC_HEADER_ERROR_TEXT] = "it failed";
    stream->SendResponseHeaders(response);
  });
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream);
  stream->SendRequestHeaders(1, 3600);
  WriteText(*stream, "x");
  stream->EndStream();
  RPCConnectionHeaders headers;
  ASSERT_TRUE(stream->ReadResponseHeaders(headers));
  EXPECT_EQ("2147500037", headers[RPC_HEADER_ERROR_CODE]);
  EXPECT_EQ("it failed", headers[RPC_HEADER_ERROR_TEXT]);
  // No record follows: an empty marked frame, then the end.
  char byte;
  record.code = 99;
  EXPECT_FALSE(stream->Read(&byte, 1));
  EXPECT_EQ(99, record.code);
  stream->NextSegment();
  EXPECT_FALSE(stream->Read(&byte, 1));
  EXPECT_EQ(0, record.code);
}

TEST_F(RpcConnectionTest, PingMeasuresTheRoundTripAndKeepsTheConnection) {
  environment.server_factory.SetHandler(EchoHandler);
  RPCConnectionParameters server_parameters = environment.ServerParameters();
  // Intervals long enough for an echo on a slow machine: both sides ping, and each
  // interval that ends with the echo in starts the next ping.
  server_parameters.ping_interval = 25;  // 250 ms
  ASSERT_NE(0, environment.StartServer(server_parameters));
  RPCConnectionParameters parameters = environment.ClientParameters(environment.port);
  parameters.ping_interval = 25;
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  std::string answer;
  ASSERT_TRUE(Call(connection, "first", answer)) << record.message;
  EXPECT_TRUE(Eventually([&]() { return connection->get_round_trip_time() > 0; }));
  // Two intervals and more: pings have followed one another.
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  EXPECT_FALSE(connection->is_stopped());
  EXPECT_TRUE(Call(connection, "second", answer)) << record.message;
}

TEST_F(RpcConnectionTest, BindOnATakenPortFailsAndLaterAttemptsReturnAtOnce) {
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IServerConnection> second =
      IServerConnection::CreateSpdyServer(environment.server_service, &environment.server_factory);
  RPCConnectionParameters parameters = environment.ServerParameters();
  parameters.port = environment.port;
  FamError record;
  EXPECT_FALSE(second->bind(parameters));
  EXPECT_EQ(EADDRINUSE, record.code);
  // The outcome of the first attempt stands; a further attempt is only posted.
  EXPECT_FALSE(second->bind(parameters));
  // Once the port is free, a later attempt succeeds and the next poll sees it.
  environment.server->close(true);
  EXPECT_TRUE(Eventually([&]() { return second->bind(parameters); }));
  second->close(true);
}

TEST_F(RpcConnectionTest, ClosedAcceptorTakesNoNewConnections) {
  environment.server_factory.SetHandler(EchoHandler);
  ASSERT_NE(0, environment.StartServer());
  boost::shared_ptr<IPhysicalConnection> first = environment.Connect();
  FamError record;
  std::string answer;
  ASSERT_TRUE(Call(first, "before", answer)) << record.message;
  environment.server->close(false);
  // Open connections get the orderly close and stop.
  EXPECT_TRUE(Eventually([&]() { return first->is_stopped(); }));
  boost::shared_ptr<IPhysicalConnection> second = environment.Connect();
  EXPECT_FALSE(CLogicalConnectionStream::create(second));
  EXPECT_EQ(0u, record.message.find("could not connect to 127.0.0.1:")) << record.message;
}

TEST_F(RpcConnectionTest, ClientOlderThanTheServersMinimumGetsNoHandshakeResponse) {
  RPCConnectionParameters server_parameters = environment.ServerParameters();
  server_parameters.min_version = RPC_LOCAL_VERSION + 1;
  ASSERT_NE(0, environment.StartServer(server_parameters));
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(0u, record.message.find("could not receive initial rpc handshake (")) << record.message;
  EXPECT_EQ(0, environment.server_factory.connections_opened.load());
  EXPECT_TRUE(environment.client_factory.WaitForClosed(1, 5000));
}

TEST_F(RpcConnectionTest, ClientWithoutCertificateIsRefused) {
  ASSERT_NE(0, environment.StartServer());
  RPCConnectionParameters parameters = environment.ClientParameters(environment.port);
  parameters.certificate_file.clear();
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(record.message.find("cannot establish secure connection ("), 0u) << record.message;
  EXPECT_EQ(0, environment.server_factory.connections_opened.load());
}

TEST_F(RpcConnectionTest, ServerWithoutCertificateCannotCompleteTheHandshake) {
  RPCConnectionParameters server_parameters = environment.ServerParameters();
  server_parameters.certificate_file.clear();
  ASSERT_NE(0, environment.StartServer(server_parameters));
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect();
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(0u, record.message.find("cannot establish secure connection (")) << record.message;
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
}

TEST_F(RpcConnectionTest, UnreadableCertificateFileFailsBeforeConnecting) {
  RPCConnectionParameters parameters = environment.ClientParameters(1);
  parameters.certificate_file = environment.PathOf("missing.pem");
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(static_cast<int>(0x80004005), record.code);
  EXPECT_EQ(0u, record.message.find("could not create socket: invalid certificate \"" + parameters.certificate_file +
                                    "\" ("))
      << record.message;
}

TEST_F(RpcConnectionTest, InvalidCipherListFailsBeforeConnecting) {
  RPCConnectionParameters parameters = environment.ClientParameters(1);
  parameters.cipher_list = "NO-SUCH-CIPHER";
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ("could not create socket: error setting cipher list", record.message);
}

TEST_F(RpcConnectionTest, ConnectThatGetsNoAnswerRunsIntoTheTimeout) {
  test::UnansweringTcpPort unanswering;
  const unsigned short port = unanswering.port();

  RPCConnectionParameters parameters = environment.ClientParameters(port);
  parameters.connect_timeout = 20;
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(150));
  EXPECT_EQ(static_cast<int>(0x80004005), record.code);
  EXPECT_EQ("timeout connecting to 127.0.0.1:" + std::to_string(port), record.message);
  EXPECT_TRUE(environment.client_factory.WaitForClosed(1, 5000));
}

}  // namespace
}  // namespace base
}  // namespace apm
