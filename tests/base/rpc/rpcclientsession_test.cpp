// Client sessions against a real acceptor over TLS on 127.0.0.1: the manager's one
// connection per target, its renewal after failures, ExecuteRPC's steps and its
// handling of error responses, and stop(). The timers run in units of 10 ms.
#include "base/rpc/rpcclientsession.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/famerror.h"
#include "base/file.h"
#include "protocol/rpcauthtoken.h"
#include "tests/fixtures/sdkstandin.h"
#include "tests/support/rpctestenvironment.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace base {
namespace {

using Stream = boost::shared_ptr<CLogicalConnectionStream>;

// A record of one string, for requests and responses.
struct TextRecord {
  template <class T>
  bool Read(unsigned long /*version*/, ReadStream<T>& stream) {
    return stream.Read(text);
  }
  template <class T>
  bool Write(unsigned long /*version*/, WriteStream<T>& stream) const {
    return stream.Write(text);
  }
  std::string text;
};

class TestManager : public SPDYRPCClientSessionManager<TestManager, RPC_MINIMUM_VERSION> {
 public:
  TestManager() : SPDYRPCClientSessionManager(IPhysicalConnection::CreateIOService(2)) {}
  ~TestManager() override { stop(); }

  // Target 0 only, with the test's parameters.
  bool get_connection_parameters(unsigned int target, RPCConnectionParameters& parameters_out) override {
    if (target != 0) return false;
    ++connections_made;
    parameters_out = parameters;
    return true;
  }

  // Counts the reports; with `forward_closed` false the entry keeps the dead
  // connection, as if the report had not arrived yet.
  void connection_closed(const boost::shared_ptr<IPhysicalConnection>& connection) override {
    if (forward_closed) SPDYRPCClientSessionManager::connection_closed(connection);
    std::lock_guard<std::mutex> lock(closed_mutex);
    ++closed;
    closed_changed.notify_all();
  }

  bool WaitForClosed(int count) {
    std::unique_lock<std::mutex> lock(closed_mutex);
    return closed_changed.wait_for(lock, std::chrono::seconds(10), [&]() { return closed >= count; });
  }

  RPCConnectionParameters parameters;
  std::atomic<int> connections_made{0};
  std::atomic<bool> forward_closed{true};

 private:
  std::mutex closed_mutex;
  std::condition_variable closed_changed;
  int closed = 0;
};

class TestSession : public SPDYRPCClientSession<TestManager> {
 public:
  explicit TestSession(TestManager* manager, uint32_t target = 0) : SPDYRPCClientSession(nullptr, target, manager) {}

  bool Call(unsigned short rpc, const std::string& request_text, std::string& response_text) {
    TextRecord request;
    request.text = request_text;
    TextRecord response;
    const bool result = ExecuteRPC<RPC_KIND_RECORD>(rpc, request, response, nullptr, nullptr, nullptr, 60);
    response_text = response.text;
    return result;
  }
};

// Answers a TextRecord request with "echo:" and its text.
void EchoHandler(const Stream& stream, const RPCConnectionHeaders& /*headers*/) {
  TextRecord request;
  ReadStream<CLogicalConnectionStream> reader(*stream);
  if (!request.Read(0, reader)) return;
  RPCConnectionHeaders reply;
  stream->SendResponseHeaders(reply);
  TextRecord response;
  response.text = "echo:" + request.text;
  WriteStream<CLogicalConnectionStream> writer(*stream);
  response.Write(0, writer);
}

// A port of 127.0.0.1 on which nothing listens.
unsigned short ClosedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

// A listening socket of 127.0.0.1 that never accepts and never answers.
class SilentListener {
 public:
  // With `full_backlog` the accept queue is filled by a connection of its own, so
  // that the kernel drops further connection attempts and their TCP connect hangs;
  // otherwise connects succeed and TLS gets no answer.
  explicit SilentListener(bool full_backlog) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(fd_, full_backlog ? 0 : 16);
    socklen_t length = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    if (full_backlog) {
      filler_ = socket(AF_INET, SOCK_STREAM, 0);
      connect(filler_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
  }
  ~SilentListener() {
    if (filler_ != -1) close(filler_);
    close(fd_);
  }
  unsigned short port() const { return port_; }

 private:
  int fd_ = -1;
  int filler_ = -1;
  unsigned short port_ = 0;
};

class RPCClientSessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    manager.parameters = environment.ClientParameters(0);
    environment.server_factory.SetHandler(EchoHandler);
  }
  void TearDown() override {
    manager.stop();
    environment.Shutdown();
  }

  unsigned short StartServer(unsigned short port = 0) {
    RPCConnectionParameters parameters = environment.ServerParameters();
    parameters.port = port;
    const unsigned short bound = environment.StartServer(parameters);
    manager.parameters.port = bound;
    return bound;
  }

  // The session's call from a thread with its own error record; the record's code
  // and text afterwards go to `code` and `text`.
  bool CallWithRecord(TestSession& session, const std::string& request, std::string& response, int& code,
                      std::string& text) {
    FamErrorBase record(true);
    const bool result = session.Call(3020, request, response);
    code = record.code;
    text = record.message;
    return result;
  }

  test::RpcTestEnvironment environment;
  TestManager manager;
};

TEST_F(RPCClientSessionTest, CallSendsTheRecordAndReadsTheResponse) {
  StartServer();
  TestSession session(&manager);
  std::string response;
  EXPECT_TRUE(session.Call(3321, "question", response));
  EXPECT_EQ(response, "echo:question");
  EXPECT_EQ(environment.server_factory.last_headers.at(RPC_HEADER_CLASS), "1");
  EXPECT_EQ(environment.server_factory.last_headers.at(RPC_HEADER_FUNCTION), "3321");
}

TEST_F(RPCClientSessionTest, CallsShareOneConnection) {
  StartServer();
  TestSession session(&manager);
  std::string response;
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(session.Call(3020, std::to_string(i), response));
  EXPECT_EQ(manager.connections_made.load(), 1);
  EXPECT_EQ(environment.server_factory.connections_opened.load(), 1);
  EXPECT_EQ(environment.server_factory.streams_created.load(), 3);
}

TEST_F(RPCClientSessionTest, ConnectionCarriesTheTargetAsConnectionId) {
  StartServer();
  TestSession session(&manager);
  std::string response;
  ASSERT_TRUE(session.Call(3020, "x", response));
  boost::shared_ptr<IPhysicalConnection> connection = manager.get_connection(0);
  ASSERT_TRUE(connection);
  EXPECT_EQ(connection->get_connection_id(), 0u);
  EXPECT_EQ(manager.get_connection(0), connection);
}

TEST_F(RPCClientSessionTest, ServerDownFailsWithCouldNotConnectAndTheNextCallTriesAnew) {
  const unsigned short port = ClosedPort();
  manager.parameters.port = port;
  TestSession session(&manager);
  std::string response;
  int code = 0;
  std::string text;
  EXPECT_FALSE(CallWithRecord(session, "x", response, code, text));
  EXPECT_EQ(text.rfind("could not connect to 127.0.0.1:" + std::to_string(port), 0), 0u) << text;
  EXPECT_NE(code, 0);
  EXPECT_EQ(manager.connections_made.load(), 1);

  EXPECT_FALSE(CallWithRecord(session, "x", response, code, text));
  EXPECT_EQ(text.rfind("could not connect to 127.0.0.1:" + std::to_string(port), 0), 0u) << text;
  EXPECT_EQ(manager.connections_made.load(), 2);
}

TEST_F(RPCClientSessionTest, ConnectTimeOutFailsWithTimeoutConnectingAndTheNextCallTriesAnew) {
  SilentListener listener(true);
  manager.parameters.port = listener.port();
  manager.parameters.connect_timeout = 10;  // 100 ms
  TestSession session(&manager);
  std::string response;
  int code = 0;
  std::string text;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(CallWithRecord(session, "x", response, code, text));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(text, "timeout connecting to 127.0.0.1:" + std::to_string(listener.port()));
  EXPECT_EQ(static_cast<unsigned int>(code), 0x80004005u);

  EXPECT_FALSE(CallWithRecord(session, "x", response, code, text));
  EXPECT_EQ(text, "timeout connecting to 127.0.0.1:" + std::to_string(listener.port()));
  EXPECT_EQ(manager.connections_made.load(), 2);
}

// The time-out spans TLS as well: a peer that accepts and never answers the TLS
// handshake ends it with the handshake's own text.
TEST_F(RPCClientSessionTest, ConnectTimeOutDuringTlsFailsWithTheHandshakeText) {
  SilentListener listener(false);
  manager.parameters.port = listener.port();
  manager.parameters.connect_timeout = 10;
  TestSession session(&manager);
  std::string response;
  int code = 0;
  std::string text;
  EXPECT_FALSE(CallWithRecord(session, "x", response, code, text));
  EXPECT_EQ(text.rfind("cannot establish secure connection", 0), 0u) << text;
  EXPECT_FALSE(CallWithRecord(session, "x", response, code, text));
  EXPECT_EQ(manager.connections_made.load(), 2);
}

TEST_F(RPCClientSessionTest, ServerRestartReconnectsOnTheNextCall) {
  const unsigned short port = StartServer();
  TestSession session(&manager);
  std::string response;
  ASSERT_TRUE(session.Call(3020, "before", response));

  environment.server->close(true);
  ASSERT_TRUE(manager.WaitForClosed(1));
  ASSERT_EQ(StartServer(port), port);

  EXPECT_TRUE(session.Call(3020, "after", response));
  EXPECT_EQ(response, "echo:after");
  EXPECT_EQ(manager.connections_made.load(), 2);
  EXPECT_EQ(environment.server_factory.connections_opened.load(), 2);
}

TEST_F(RPCClientSessionTest, TwoWorkersAfterTheConnectionDiedShareTheNewOne) {
  const unsigned short port = StartServer();
  // The table keeps the dead connection: the callers find it stopped.
  manager.forward_closed = false;
  TestSession session(&manager);
  std::string response;
  ASSERT_TRUE(session.Call(3020, "before", response));
  boost::shared_ptr<IPhysicalConnection> dead = manager.get_connection(0);

  environment.server->close(true);
  ASSERT_TRUE(manager.WaitForClosed(1));
  // The report comes first in the connection's ending; its flags follow.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!dead->is_stopped() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ASSERT_TRUE(dead->is_stopped());
  ASSERT_EQ(StartServer(port), port);

  std::atomic<int> succeeded{0};
  std::vector<std::thread> workers;
  for (int i = 0; i < 2; ++i) {
    workers.emplace_back([&, i]() {
      FamErrorBase record(true);
      TestSession worker(&manager);
      std::string answer;
      if (worker.Call(3020, std::to_string(i), answer) && answer == "echo:" + std::to_string(i)) ++succeeded;
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(succeeded.load(), 2);
  EXPECT_EQ(manager.connections_made.load(), 2);
  EXPECT_EQ(environment.server_factory.connections_opened.load(), 2);
  EXPECT_NE(manager.get_connection(0), dead);
}

TEST_F(RPCClientSessionTest, ConnectionClosedErasesOnlyTheSameConnection) {
  StartServer();
  // Each connection is used by a call, so that it is open before the test ends it.
  TestSession session(&manager);
  std::string response;
  boost::shared_ptr<IPhysicalConnection> first = manager.get_connection(0);
  ASSERT_TRUE(first);
  ASSERT_TRUE(session.Call(3020, "x", response));
  manager.SPDYRPCClientSessionManager::connection_closed(first);
  boost::shared_ptr<IPhysicalConnection> second = manager.get_connection(0);
  ASSERT_TRUE(second);
  ASSERT_TRUE(session.Call(3020, "x", response));
  EXPECT_NE(second, first);
  // A late report of the old connection leaves the newer one in place.
  manager.SPDYRPCClientSessionManager::connection_closed(first);
  EXPECT_EQ(manager.get_connection(0), second);
  EXPECT_EQ(manager.connections_made.load(), 2);
  // The first one really is alive and out of the table: stop() would not close it.
  first->close(true);
}

TEST_F(RPCClientSessionTest, UnknownTargetFailsWithInvalidTarget) {
  StartServer();
  TestSession session(&manager, 5);
  std::string response;
  int code = 0;
  std::string text;
  EXPECT_FALSE(CallWithRecord(session, "x", response, code, text));
  EXPECT_EQ(static_cast<unsigned int>(code), 0x80004005u);
  EXPECT_EQ(text, "Invalid target.");
  EXPECT_EQ(environment.server_factory.connections_opened.load(), 0);
}

// The server's answer: headers with the given keys 3 and 4 (absent when null), then
// the response record `text` unless `send_record` is false.
void AnswerWithHeaders(const Stream& stream, const char* code, const char* text, bool send_record) {
  TextRecord request;
  ReadStream<CLogicalConnectionStream> reader(*stream);
  if (!request.Read(0, reader)) return;
  RPCConnectionHeaders reply;
  if (code != nullptr) reply[RPC_HEADER_ERROR_CODE] = code;
  if (text != nullptr) reply[RPC_HEADER_ERROR_TEXT] = text;
  stream->SendResponseHeaders(reply);
  if (!send_record) return;
  TextRecord response;
  response.text = "record";
  WriteStream<CLogicalConnectionStream> writer(*stream);
  response.Write(0, writer);
}

TEST_F(RPCClientSessionTest, ErrorResponseSetsTheCodeAndTextAndReadsNoRecord) {
  environment.server_factory.SetHandler([](const Stream& stream, const RPCConnectionHeaders&) {
    AnswerWithHeaders(stream, "2147516418", "token refused", true);
  });
  StartServer();
  TestSession session(&manager);
  std::string response;
  int code = 0;
  std::string text;
  EXPECT_FALSE(CallWithRecord(session, "x", response, code, text));
  EXPECT_EQ(static_cast<unsigned int>(code), 0x80008002u);
  EXPECT_EQ(text, "token refused");
  EXPECT_EQ(response, "");
}

TEST_F(RPCClientSessionTest, KeyThreeHoldingZeroWithAnEmptyKeyFourCountsAsErrorCodeZero) {
  environment.server_factory.SetHandler([](const Stream& stream, const RPCConnectionHeaders&) {
    AnswerWithHeaders(stream, "0", "", false);
  });
  StartServer();
  TestSession session(&manager);
  std::string response;
  FamErrorBase record(true);
  FamErrorBase::SetError(E_FAIL_CODE, "earlier failure", nullptr);
  EXPECT_FALSE(session.Call(3020, "x", response));
  EXPECT_EQ(record.code, 0);
  EXPECT_EQ(record.message, "");
}

TEST_F(RPCClientSessionTest, KeyFourWithoutANumberInKeyThreeCountsAsNoError) {
  environment.server_factory.SetHandler([](const Stream& stream, const RPCConnectionHeaders&) {
    AnswerWithHeaders(stream, "none", "ignored", true);
  });
  StartServer();
  TestSession session(&manager);
  std::string response;
  EXPECT_TRUE(session.Call(3020, "x", response));
  EXPECT_EQ(response, "record");
}

TEST_F(RPCClientSessionTest, KeyFourWithoutKeyThreeCountsAsNoError) {
  environment.server_factory.SetHandler([](const Stream& stream, const RPCConnectionHeaders&) {
    AnswerWithHeaders(stream, nullptr, "ignored", true);
  });
  StartServer();
  TestSession session(&manager);
  std::string response;
  EXPECT_TRUE(session.Call(3020, "x", response));
  EXPECT_EQ(response, "record");
}

TEST_F(RPCClientSessionTest, RefusedStreamFailsWithTheResetStatus) {
  environment.server_factory.SetRefuseStreams(true);
  StartServer();
  TestSession session(&manager);
  std::string response;
  int code = 0;
  std::string text;
  EXPECT_FALSE(CallWithRecord(session, "x", response, code, text));
  EXPECT_EQ(code, 3);
  EXPECT_EQ(text, "reset");
}

TEST_F(RPCClientSessionTest, ConnectionDyingBeforeTheResponseFailsWithStreamInUse) {
  // The handler keeps its stream, unanswered, until the server's connections are gone.
  std::mutex mutex;
  std::condition_variable changed;
  bool read = false;
  bool killed = false;
  environment.server_factory.SetHandler([&](const Stream& stream, const RPCConnectionHeaders&) {
    TextRecord request;
    ReadStream<CLogicalConnectionStream> reader(*stream);
    request.Read(0, reader);
    // Until the client has ended its side: nothing of it is in flight any more.
    while (!stream->is_receive_closed()) stream->NextSegment();
    std::unique_lock<std::mutex> lock(mutex);
    read = true;
    changed.notify_all();
    changed.wait(lock, [&]() { return killed; });
  });
  StartServer();
  std::thread killer([&]() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&]() { return read; });
    environment.server->close(true);
    // The handler may end its stream only once the connection is gone for sure.
    manager.WaitForClosed(1);
    killed = true;
    changed.notify_all();
  });
  TestSession session(&manager);
  std::string response;
  int code = 0;
  std::string text;
  EXPECT_FALSE(CallWithRecord(session, "x", response, code, text));
  killer.join();
  environment.server_factory.JoinHandlers();
  EXPECT_EQ(code, 8);
  EXPECT_EQ(text, "stream in use");
}

// Nothing is read after the headers of an EmptyResponse: the call returns while
// the server still holds the stream open without having sent anything more.
TEST_F(RPCClientSessionTest, EmptyResponseReadsNothingAfterTheHeaders) {
  std::mutex mutex;
  std::condition_variable released_changed;
  bool released = false;
  environment.server_factory.SetHandler([&](const Stream& stream, const RPCConnectionHeaders&) {
    protocol::AuthToken token;
    ReadStream<CLogicalConnectionStream> reader(*stream);
    if (!token.Read(0, reader)) return;
    RPCConnectionHeaders reply;
    stream->SendResponseHeaders(reply);
    std::unique_lock<std::mutex> lock(mutex);
    released_changed.wait(lock, [&]() { return released; });
  });
  StartServer();
  TestSession session(&manager);
  protocol::AuthToken token;
  token.user = "alice";
  protocol::EmptyResponse empty;
  EXPECT_TRUE(session.ExecuteRPC<RPC_KIND_RECORD>(3320, token, empty, nullptr, nullptr, nullptr, 60));
  {
    std::lock_guard<std::mutex> lock(mutex);
    released = true;
  }
  released_changed.notify_all();
  // The handler uses this test's locals until it returns.
  environment.server_factory.JoinHandlers();
}

TEST_F(RPCClientSessionTest, CallAfterStopFailsWithoutNetworkActivity) {
  StartServer();
  manager.stop();
  TestSession session(&manager);
  std::string response;
  FamErrorBase record(true);
  FamErrorBase::SetError(E_FAIL_CODE, "last error", nullptr);
  EXPECT_FALSE(session.Call(3020, "x", response));
  // The record holds whatever was set last.
  EXPECT_EQ(record.message, "last error");
  EXPECT_EQ(manager.connections_made.load(), 0);
  EXPECT_FALSE(manager.get_connection(0));
  EXPECT_EQ(environment.server_factory.connections_opened.load(), 0);
}

TEST_F(RPCClientSessionTest, StopClosesTheOpenConnection) {
  StartServer();
  TestSession session(&manager);
  std::string response;
  ASSERT_TRUE(session.Call(3020, "x", response));
  manager.stop();
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 10000));
  manager.stop();  // again: nothing left to do
}

TEST_F(RPCClientSessionTest, RequestFileTravelsAsTheSecondSegment) {
  std::mutex mutex;
  std::string received;
  environment.server_factory.SetHandler([&](const Stream& stream, const RPCConnectionHeaders&) {
    TextRecord request;
    ReadStream<CLogicalConnectionStream> reader(*stream);
    if (!request.Read(0, reader)) return;
    stream->NextSegment();
    const std::string path = environment.PathOf("received.bin");
    File file;
    if (!file.Open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600)) return;
    const bool arrived = stream->ReadFile(file);
    file.Close();
    RPCConnectionHeaders reply;
    stream->SendResponseHeaders(reply);
    std::ifstream in(path, std::ios::binary);
    std::lock_guard<std::mutex> lock(mutex);
    received.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    TextRecord response;
    response.text = arrived ? request.text : "failed";
    WriteStream<CLogicalConnectionStream> writer(*stream);
    response.Write(0, writer);
  });
  StartServer();
  std::string content;
  for (int i = 0; i < 20000; ++i) content += static_cast<char>(i * 7);
  const std::string path = environment.PathOf("upload.bin");
  test::WriteTextFile(path, content);

  TestSession session(&manager);
  TextRecord request;
  request.text = "with file";
  TextRecord response;
  ASSERT_TRUE(session.ExecuteRPC<RPC_KIND_REQUEST_FILE>(3604, request, response, &path, nullptr, nullptr, 60));
  EXPECT_EQ(response.text, "with file");
  environment.server_factory.JoinHandlers();
  EXPECT_EQ(received, content);
}

TEST_F(RPCClientSessionTest, MissingRequestFileFailsWithTheSystemError) {
  StartServer();
  TestSession session(&manager);
  TextRecord request;
  TextRecord response;
  const std::string path = environment.PathOf("missing.bin");
  FamErrorBase record(true);
  EXPECT_FALSE(session.ExecuteRPC<RPC_KIND_REQUEST_FILE>(3604, request, response, &path, nullptr, nullptr, 60));
  EXPECT_EQ(static_cast<unsigned int>(record.code), 0x80070000u + ENOENT);
}

// The instrumentation events of a call, in order, under the session's module.
TEST_F(RPCClientSessionTest, CallReportsItsEvents) {
  test::RunWithSdk(test::SdkVariant::Full, [this] {
    StartServer();
    CAPMModule module("Client Test", nullptr);
    struct ModuleSession : SPDYRPCClientSession<TestManager> {
      ModuleSession(CAPMModule* m, TestManager* manager) : SPDYRPCClientSession(m, 0, manager) {}
    } session(&module, &manager);
    TextRecord request;
    request.text = "abc";
    TextRecord response;
    ASSERT_TRUE(session.ExecuteRPC<RPC_KIND_RECORD>(3321, request, response, nullptr, nullptr, nullptr, 60));

    const std::string id = std::to_string(module.moduleId);
    std::vector<std::string> events;
    for (const test::SdkCall& call : test::RecordedSdkCalls()) {
      if ((call.entry == "APMEvent" || call.entry == "APMEventArgs") && call.arguments[0] == id) {
        events.push_back(call.entry + " " + call.arguments[1] + " " + call.arguments[2] + " " + call.arguments[3]);
      }
    }
    const std::vector<std::string> expected = {
        "APMEvent 3321 50 5",       "APMEvent 10000 60 1", "APMEventArgs 10001 60 2",
        "APMEvent 10030 60 1",      "APMEventArgs 10031 60 2", "APMEvent 3321 50 6"};
    EXPECT_EQ(events, expected);
  });
}

TEST_F(RPCClientSessionTest, ErrorResponseReportsATextEvent) {
  test::RunWithSdk(test::SdkVariant::Full, [this] {
    environment.server_factory.SetHandler([](const Stream& stream, const RPCConnectionHeaders&) {
      AnswerWithHeaders(stream, "5", "denied", false);
    });
    StartServer();
    CAPMModule module("Client Test", nullptr);
    struct ModuleSession : SPDYRPCClientSession<TestManager> {
      ModuleSession(CAPMModule* m, TestManager* manager) : SPDYRPCClientSession(m, 0, manager) {}
    } session(&module, &manager);
    TextRecord request;
    TextRecord response;
    FamErrorBase record(true);
    ASSERT_FALSE(session.ExecuteRPC<RPC_KIND_RECORD>(3020, request, response, nullptr, nullptr, nullptr, 60));
    const std::vector<test::SdkCall> texts = test::RecordedSdkCalls("APMEventStr");
    bool found = false;
    for (const test::SdkCall& call : texts) {
      if (call.arguments[0] == std::to_string(module.moduleId)) {
        EXPECT_EQ(call.arguments, (std::vector<std::string>{std::to_string(module.moduleId),
                                                             std::to_string(0x10001000), "0", "16", "denied"}));
        found = true;
      }
    }
    EXPECT_TRUE(found);
  });
}

}  // namespace
}  // namespace base
}  // namespace apm
