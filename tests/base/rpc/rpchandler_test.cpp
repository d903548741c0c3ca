// RPC handler dispatch: the handler table, Execute of both shapes step by step on a
// stand-in logical connection (with the instrumentation events against the
// stand-in library), and dispatch from a stream to a scheduled handler two-sided
// over real TLS on 127.0.0.1, down to the frames on the wire.
#include "base/rpc/rpchandler.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/apmmodule.h"
#include "base/famerror.h"
#include "base/rpc/rpcframe.h"
#include "base/rpc/rpcspdyserverconnection.h"
#include "base/rpc/rpcstreamconnection.h"
#include "base/scheduler.h"
#include "tests/fixtures/sdkstandin.h"
#include "tests/support/fakebytestream.h"
#include "tests/support/privateroot.h"
#include "tests/support/rawtlspeer.h"
#include "tests/support/rpctestenvironment.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace base {
namespace {

using test::Bytes;
using test::Chars;
using test::Join;
using test::RawTlsPeer;

typedef boost::shared_ptr<CLogicalConnectionStream> StreamPtr;

// ---------------------------------------------------------------------------
// A server with an echo handler of each shape

// `outcome` selects what the test server's functions do.
enum Outcome : uint32_t {
  kSucceed = 0,
  kFailWithText = 1,      // SetError(E_FAIL_CODE, text), false
  kFailWithoutError = 2,  // false, no error set by the function
  kFailWithLongText = 3,  // an error text of 9000 bytes, false
};

class EchoRequest {
 public:
  template <class T>
  bool Read(unsigned long /*version*/, ReadStream<T>& stream) {
    return stream.Read(outcome) && stream.Read(text);
  }
  template <class T>
  bool Write(unsigned long /*version*/, WriteStream<T>& stream) const {
    return stream.Write(outcome) && stream.Write(text);
  }

  uint32_t outcome = kSucceed;
  std::string text;
};

class EchoResponse {
 public:
  template <class T>
  bool Read(unsigned long /*version*/, ReadStream<T>& stream) {
    return stream.Read(text) && stream.Read(fileSize);
  }
  template <class T>
  bool Write(unsigned long /*version*/, WriteStream<T>& stream) const {
    return stream.Write(text) && stream.Write(fileSize);
  }

  std::string text;
  uint64_t fileSize = 0;
};

// What one call of a test server function saw.
struct CallRecord {
  std::string threadName;
  std::string path;
  bool fileExisted = false;
  Bytes file;
};

CAPMModule* GetModuleHandlerTest() {
  static CAPMModule module("RPC Handler Test", nullptr);
  return &module;
}

// A factory that makes no handler.
class NullFactory : public GenericRPCHandlerFactory<unsigned short> {
 public:
  CRefPtr<GenericRPCHandler<unsigned short>> create_rpc_handler(
      const unsigned short& /*number*/, unsigned int /*application*/, const RPCConnectionHeaders& /*headers*/,
      const boost::shared_ptr<ILogicalConnection>& /*connection*/) override {
    return CRefPtr<GenericRPCHandler<unsigned short>>();
  }
};

class TestServer : public IConnectionHandlerFactory {
 public:
  static constexpr unsigned int kApplication = 7;
  static constexpr unsigned short kEcho = 3600;      // shape 1
  static constexpr unsigned short kEchoFile = 3601;  // shape 2
  static constexpr unsigned short kNullEntry = 3606;
  static constexpr unsigned short kNullHandler = 3607;

  explicit TestServer(Scheduler* workers = nullptr) : scheduler(workers) {
    handlers.add(kEcho, MakeRPCHandlerFactory<1>(this, &TestServer::Echo));
    handlers.add(kEchoFile, MakeRPCHandlerFactory<2>(this, &TestServer::EchoFile));
    handlers.add(kNullEntry, nullptr);
    handlers.add(kNullHandler, new NullFactory);
  }

  boost::shared_ptr<IReceiveStream> create_client_connection(
      const boost::shared_ptr<IPhysicalConnection>& /*connection*/, RPCConnectionHeaders& headers,
      const boost::shared_ptr<ILogicalConnection>& logical_connection) override {
    return ScheduleRPCHandler(handlers, *scheduler, kApplication, headers, logical_connection);
  }
  void connection_closed(const boost::shared_ptr<IPhysicalConnection>& /*connection*/) override {}
  void acceptor_closed(const boost::shared_ptr<IServerConnection>& /*server*/) override {}

  CAPMModule* GetModule() const { return GetModuleHandlerTest(); }

  bool Echo(const EchoRequest& request, EchoResponse& response) {
    Record(CallRecord());
    response.text = "echo:" + request.text;
    return Finish(request);
  }

  bool EchoFile(const EchoRequest& request, EchoResponse& response, const std::string& file) {
    CallRecord call;
    call.path = file;
    boost::system::error_code error;
    call.fileExisted = boost::filesystem::is_regular_file(file, error);
    std::ifstream in(file, std::ios::binary);
    call.file.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    response.fileSize = call.file.size();
    Record(call);
    response.text = "file:" + request.text;
    return Finish(request);
  }

  // A handler made directly by the factory of `number`, not scheduled.
  CRefPtr<GenericRPCHandler<unsigned short>> MakeHandler(unsigned short number, const RPCConnectionHeaders& headers,
                                                         const boost::shared_ptr<ILogicalConnection>& connection) {
    return handlers.find(number)->create_rpc_handler(number, kApplication, headers, connection);
  }

  std::vector<CallRecord> Calls() {
    std::lock_guard<std::mutex> lock(mutex);
    return calls;
  }

 private:
  void Record(CallRecord call) {
    char name[16] = {};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    call.threadName = name;
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(call);
  }

  bool Finish(const EchoRequest& request) {
    switch (request.outcome) {
      case kFailWithText:
        _FamError<_apm_traits_none>::SetError(E_FAIL_CODE, request.text);
        return false;
      case kFailWithoutError:
        return false;
      case kFailWithLongText:
        _FamError<_apm_traits_none>::SetError(E_FAIL_CODE, std::string(9000, 'x'));
        return false;
      default:
        return true;
    }
  }

  Scheduler* scheduler;
  GenericRPCHandlerMap<unsigned short> handlers;
  std::mutex mutex;
  std::vector<CallRecord> calls;
};

EchoRequest Request(uint32_t outcome, const std::string& text) {
  EchoRequest request;
  request.outcome = outcome;
  request.text = text;
  return request;
}

Bytes Pattern(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  return bytes;
}

// ---------------------------------------------------------------------------
// The handler table

class CountingFactory : public GenericRPCHandlerFactory<unsigned short> {
 public:
  explicit CountingFactory(int* deleted) : deleted_(deleted) {}
  ~CountingFactory() override { ++*deleted_; }
  CRefPtr<GenericRPCHandler<unsigned short>> create_rpc_handler(
      const unsigned short& /*number*/, unsigned int /*application*/, const RPCConnectionHeaders& /*headers*/,
      const boost::shared_ptr<ILogicalConnection>& /*connection*/) override {
    return CRefPtr<GenericRPCHandler<unsigned short>>();
  }

 private:
  int* deleted_;
};

TEST(GenericRPCHandlerMapTest, FindsItsFactoriesAndNothingElse) {
  int deleted = 0;
  GenericRPCHandlerMap<unsigned short> map;
  GenericRPCHandlerFactory<unsigned short>* first = new CountingFactory(&deleted);
  GenericRPCHandlerFactory<unsigned short>* second = new CountingFactory(&deleted);
  map.add(1, first);
  map.add(65535, second);
  EXPECT_EQ(first, map.find(1));
  EXPECT_EQ(second, map.find(65535));
  EXPECT_EQ(nullptr, map.find(2));
}

TEST(GenericRPCHandlerMapTest, DeletesItsFactories) {
  int deleted = 0;
  {
    GenericRPCHandlerMap<unsigned short> map;
    map.add(1, new CountingFactory(&deleted));
    map.add(2, new CountingFactory(&deleted));
    map.add(3, nullptr);
  }
  EXPECT_EQ(2, deleted);
}

TEST(GenericRPCHandlerMapDeathTest, DuplicateNumberAborts) {
  EXPECT_DEATH(
      {
        int deleted = 0;
        GenericRPCHandlerMap<unsigned short> map;
        map.add(3600, new CountingFactory(&deleted));
        map.add(3600, new CountingFactory(&deleted));
      },
      "");
}

// ---------------------------------------------------------------------------
// Execute on a stand-in logical connection, on the test thread

// What a handler sent through its logical connection, in order.
struct Sent {
  std::string kind;  // "init", "headers", "data", "terminate", "close"
  RPCConnectionHeaders headers;
  Bytes data;
  bool endOfSegment = false;
};

class FakeLogicalConnection : public ILogicalConnection {
 public:
  uint64_t get_version() override { return RPC_LOCAL_VERSION; }
  CNetworkBuffer* alloc_buffer() override { return refuseBuffers ? nullptr : CNetworkBuffer::Allocate(); }
  void free_buffer(const CNetworkBuffer* buffer) override { CNetworkBuffer::Free(buffer); }
  void init(const RPCConnectionHeaders& headers) override { Add("init", &headers, nullptr, false); }
  void send_data(CNetworkBuffer* buffer, bool end_of_segment) override {
    Add("data", nullptr, buffer, end_of_segment);
    CNetworkBuffer::Free(buffer);
  }
  void send_headers(const RPCConnectionHeaders& headers) override { Add("headers", &headers, nullptr, false); }
  void send_terminate() override { Add("terminate", nullptr, nullptr, false); }
  void send_close() override { Add("close", nullptr, nullptr, false); }
  boost::shared_ptr<IPhysicalConnection> get_physical_connection() override {
    return boost::shared_ptr<IPhysicalConnection>();
  }

  std::vector<Sent> sent;
  bool refuseBuffers = false;

 private:
  void Add(const char* kind, const RPCConnectionHeaders* headers, const CNetworkBuffer* buffer, bool end) {
    Sent item;
    item.kind = kind;
    if (headers != nullptr) item.headers = *headers;
    if (buffer != nullptr) item.data.assign(buffer->data, buffer->data + buffer->length);
    item.endOfSegment = end;
    sent.push_back(item);
  }
};

// Hands `bytes` to the stream as the engine would, in buffers of up to 8192 bytes;
// with `endOfSegment` the last one is marked. Empty bytes give one empty buffer.
void Feed(IReceiveStream& stream, const Bytes& bytes, bool endOfSegment) {
  size_t offset = 0;
  do {
    CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
    const size_t count = std::min<size_t>(CNetworkBuffer::CAPACITY, bytes.size() - offset);
    if (count > 0) std::memcpy(buffer->data, bytes.data() + offset, count);
    buffer->length = count;
    offset += count;
    stream.recv_data(buffer, endOfSegment && offset == bytes.size());
  } while (offset < bytes.size());
}

class HandlerExecuteTest : public ::testing::Test {
 protected:
  // How the peer's side of the stream ends after the segments.
  enum class Ending { Closed, Reset };

  // Makes the handler of `number`, feeds it `segments` (each ending with a mark;
  // the last one unmarked if `lastMarked` is false), ends the peer's side, runs
  // Execute on this thread and drops the handler.
  void Run(unsigned short number, const std::vector<Bytes>& segments, Ending ending = Ending::Closed,
           bool lastMarked = true, const RPCConnectionHeaders& headers = RPCConnectionHeaders(),
           uint64_t threadContext = 0) {
    RPCConnectionHeaders requestHeaders =
        headers.empty() ? RawTlsPeer::RequestHeaders(std::to_string(number)) : headers;
    CRefPtr<GenericRPCHandler<unsigned short>> handler = server.MakeHandler(number, requestHeaders, connection);
    ASSERT_TRUE(handler);
    if (threadContext != 0) handler->set_thread_context(threadContext);
    StreamPtr stream = handler->get_stream();
    ASSERT_TRUE(stream);
    for (size_t i = 0; i < segments.size(); ++i) {
      Feed(*stream, segments[i], lastMarked || i + 1 < segments.size());
    }
    if (ending == Ending::Closed) {
      stream->recv_closed();
    } else {
      stream->recv_terminated(SPDY_STATUS_CANCEL, "reset");
    }
    stream.reset();
    handler->Execute();
  }

  // The kinds of what was sent, in order.
  std::vector<std::string> Kinds() const {
    std::vector<std::string> kinds;
    for (const Sent& item : connection->sent) kinds.push_back(item.kind);
    return kinds;
  }

  // The response record sent in the data frames.
  bool ResponseOf(EchoResponse& response) const {
    Bytes data;
    for (const Sent& item : connection->sent) {
      if (item.kind == "data") data.insert(data.end(), item.data.begin(), item.data.end());
    }
    size_t unread = 0;
    return test::DecodeRecord(data, response, 0, &unread) && unread == 0;
  }

  std::string TemporaryFolder() const { return root.Path("/tmp/kelvora-ecomm/"); }

  test::PrivateRoot root;
  TestServer server;
  boost::shared_ptr<FakeLogicalConnection> connection = boost::make_shared<FakeLogicalConnection>();
};

TEST_F(HandlerExecuteTest, Shape1ReadsTheRecordCallsTheFunctionAndWritesTheResponse) {
  Run(TestServer::kEcho, {test::EncodeRecord(Request(kSucceed, "hi"))});
  ASSERT_EQ((std::vector<std::string>{"headers", "data", "close"}), Kinds());
  EXPECT_TRUE(connection->sent[0].headers.empty());
  EXPECT_TRUE(connection->sent[1].endOfSegment);
  EXPECT_EQ(test::EncodeRecord(EchoResponse{"echo:hi", 0}), connection->sent[1].data);
  EXPECT_EQ(1u, server.Calls().size());
}

TEST_F(HandlerExecuteTest, WorkerThreadIsNamedRPCAndTheNumber) {
  Run(TestServer::kEcho, {test::EncodeRecord(Request(kSucceed, "hi"))});
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_EQ("RPC3600", server.Calls()[0].threadName);
}

TEST_F(HandlerExecuteTest, RecordEndingEarlyResetsTheStreamWithoutHeadersOrCall) {
  Bytes record = test::EncodeRecord(Request(kSucceed, "hello"));
  record.resize(record.size() - 2);
  Run(TestServer::kEcho, {record});
  ASSERT_FALSE(connection->sent.empty());
  EXPECT_EQ("terminate", connection->sent[0].kind);
  for (const Sent& item : connection->sent) EXPECT_NE("headers", item.kind);
  EXPECT_TRUE(server.Calls().empty());
}

TEST_F(HandlerExecuteTest, PeerEndingBeforeTheRecordResetsTheStream) {
  Run(TestServer::kEcho, {});
  ASSERT_FALSE(connection->sent.empty());
  EXPECT_EQ("terminate", connection->sent[0].kind);
  EXPECT_TRUE(server.Calls().empty());
}

TEST_F(HandlerExecuteTest, FailedFunctionSendsCodeAndTextAsKeys3And4AndNoRecord) {
  Run(TestServer::kEcho, {test::EncodeRecord(Request(kFailWithText, "went wrong"))});
  ASSERT_EQ((std::vector<std::string>{"headers", "data", "close"}), Kinds());
  RPCConnectionHeaders expected;
  expected[RPC_HEADER_ERROR_CODE] = "2147500037";
  expected[RPC_HEADER_ERROR_TEXT] = "went wrong";
  EXPECT_EQ(expected, connection->sent[0].headers);
  EXPECT_TRUE(connection->sent[1].data.empty());
  EXPECT_TRUE(connection->sent[1].endOfSegment);
}

TEST_F(HandlerExecuteTest, FailedFunctionWithoutAnErrorSendsCode0AndAnEmptyText) {
  Run(TestServer::kEcho, {test::EncodeRecord(Request(kFailWithoutError, ""))});
  ASSERT_FALSE(connection->sent.empty());
  RPCConnectionHeaders expected;
  expected[RPC_HEADER_ERROR_CODE] = "0";
  expected[RPC_HEADER_ERROR_TEXT] = "";
  EXPECT_EQ(expected, connection->sent[0].headers);
}

TEST_F(HandlerExecuteTest, ExtraBytesBehindAShape1RecordStayUnread) {
  Run(TestServer::kEcho, {Join({test::EncodeRecord(Request(kSucceed, "a")), Bytes{1, 2, 3}})});
  EchoResponse response;
  ASSERT_TRUE(ResponseOf(response));
  EXPECT_EQ("echo:a", response.text);
}

TEST_F(HandlerExecuteTest, ResponseThatCannotBeWrittenStillEndsTheCall) {
  connection->refuseBuffers = true;
  Run(TestServer::kEcho, {test::EncodeRecord(Request(kSucceed, "hi"))});
  ASSERT_EQ((std::vector<std::string>{"headers", "data", "close"}), Kinds());
  EXPECT_TRUE(connection->sent[1].data.empty());
}

TEST_F(HandlerExecuteTest, Shape2GivesTheFunctionThePathOfTheWholeFile) {
  const Bytes file = Pattern(3 * 8192 + 100);
  Run(TestServer::kEchoFile, {test::EncodeRecord(Request(kSucceed, "f")), file});
  ASSERT_EQ(1u, server.Calls().size());
  const CallRecord call = server.Calls()[0];
  EXPECT_TRUE(call.fileExisted);
  EXPECT_EQ(file, call.file);
  EXPECT_EQ(0u, call.path.find(TemporaryFolder() + "data_")) << call.path;
  EXPECT_EQ(".tmp", call.path.substr(call.path.size() - 4));
  EchoResponse response;
  ASSERT_TRUE(ResponseOf(response));
  EXPECT_EQ("file:f", response.text);
  EXPECT_EQ(file.size(), response.fileSize);
}

TEST_F(HandlerExecuteTest, Shape2WithAnEmptyFileGivesThePathOfAnEmptyFile) {
  Run(TestServer::kEchoFile, {test::EncodeRecord(Request(kSucceed, "f")), Bytes()});
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_TRUE(server.Calls()[0].fileExisted);
  EXPECT_TRUE(server.Calls()[0].file.empty());
  EXPECT_FALSE(server.Calls()[0].path.empty());
}

TEST_F(HandlerExecuteTest, Shape2ThrowsAwayWhatTheRecordLeftInItsSegment) {
  const Bytes file = Pattern(5000);
  Run(TestServer::kEchoFile, {Join({test::EncodeRecord(Request(kSucceed, "f")), Pattern(9000)}), file});
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_EQ(file, server.Calls()[0].file);
}

TEST_F(HandlerExecuteTest, Shape2StreamResetInTheMiddleOfTheFileRunsTheFunctionWithAShortFile) {
  // Two full buffers of the file arrive, then the peer resets the stream.
  Run(TestServer::kEchoFile, {test::EncodeRecord(Request(kFailWithoutError, "f")), Pattern(2 * 8192)},
      Ending::Reset, false);
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_EQ(Pattern(2 * 8192), server.Calls()[0].file);
  // The reset stood on the thread's record while the function ran.
  ASSERT_FALSE(connection->sent.empty());
  EXPECT_EQ("headers", connection->sent[0].kind);
  EXPECT_EQ("5", connection->sent[0].headers[RPC_HEADER_ERROR_CODE]);
  EXPECT_EQ("reset", connection->sent[0].headers[RPC_HEADER_ERROR_TEXT]);
}

TEST_F(HandlerExecuteTest, TemporaryFileIsGoneAfterTheCall) {
  Run(TestServer::kEchoFile, {test::EncodeRecord(Request(kSucceed, "f")), Pattern(10)});
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_TRUE(server.Calls()[0].fileExisted);
  EXPECT_FALSE(boost::filesystem::exists(server.Calls()[0].path));
  EXPECT_TRUE(boost::filesystem::is_empty(TemporaryFolder()));
}

TEST_F(HandlerExecuteTest, TemporaryFileIsGoneAlsoWhenTheFunctionFailed) {
  Run(TestServer::kEchoFile, {test::EncodeRecord(Request(kFailWithText, "no")), Pattern(10)});
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_TRUE(server.Calls()[0].fileExisted);
  EXPECT_FALSE(boost::filesystem::exists(server.Calls()[0].path));
  EXPECT_EQ("no", connection->sent[0].headers[RPC_HEADER_ERROR_TEXT]);
}

TEST_F(HandlerExecuteTest, FileThatCannotBeMadeFailsTheCallWithoutCallingTheFunction) {
  // A plain file where the temporary folder should be.
  root.WriteFile("/tmp/kelvora-ecomm", "in the way");
  Run(TestServer::kEchoFile, {test::EncodeRecord(Request(kSucceed, "f")), Pattern(10)});
  EXPECT_TRUE(server.Calls().empty());
  ASSERT_FALSE(connection->sent.empty());
  EXPECT_EQ("headers", connection->sent[0].kind);
  EXPECT_NE("0", connection->sent[0].headers[RPC_HEADER_ERROR_CODE]);
  EXPECT_FALSE(connection->sent[0].headers[RPC_HEADER_ERROR_TEXT].empty());
}

TEST_F(HandlerExecuteTest, ReadOfTheRecordFailsAtItsSegmentEnd) {
  // The record's segment ends after the outcome field; the text follows in the next
  // segment, which a record read never reaches.
  const Bytes record = test::EncodeRecord(Request(kSucceed, "hi"));
  Run(TestServer::kEcho, {Bytes(record.begin(), record.begin() + 4), Bytes(record.begin() + 4, record.end())});
  ASSERT_FALSE(connection->sent.empty());
  EXPECT_EQ("terminate", connection->sent[0].kind);
  EXPECT_TRUE(server.Calls().empty());
}

// ---------------------------------------------------------------------------
// Instrumentation of Execute against the stand-in library

// The calls that Execute makes of the instrumentation library: events under the
// test server's module, and the context calls.
std::vector<std::string> ExecuteEvents() {
  const std::string module = std::to_string(GetModuleHandlerTest()->moduleId);
  std::vector<std::string> events;
  for (const test::SdkCall& call : test::RecordedSdkCalls()) {
    const bool event = call.entry == "APMEvent" || call.entry == "APMEventArgs" || call.entry == "APMEventStr";
    const bool context = call.entry == "APMAttachContext" || call.entry == "APMAttachThread" ||
                         call.entry == "APMReleaseContext";
    if (event && call.arguments.at(0) != module) continue;
    if (!event && !context) continue;
    std::string line = call.entry;
    for (size_t i = event ? 1 : 0; i < call.arguments.size(); ++i) {
      // The address of the context is not a fixed value.
      line += " " + (call.entry == "APMAttachContext" && i == 1 ? std::string("<context>") : call.arguments[i]);
    }
    events.push_back(line);
  }
  return events;
}

RPCConnectionHeaders HeadersWithContext(unsigned short number) {
  RPCConnectionHeaders headers = RawTlsPeer::RequestHeaders(std::to_string(number));
  headers[RPC_HEADER_CONTEXT] = std::string(16, '\x5a');
  return headers;
}

TEST(HandlerEventsTest, EventsOfASuccessfulShape1Call) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    TestServer server;
    GetModuleHandlerTest();
    boost::shared_ptr<FakeLogicalConnection> connection = boost::make_shared<FakeLogicalConnection>();
    CRefPtr<GenericRPCHandler<unsigned short>> handler =
        server.MakeHandler(TestServer::kEcho, HeadersWithContext(TestServer::kEcho), connection);
    Feed(*handler->get_stream(), test::EncodeRecord(Request(kSucceed, "hi")), true);  // 10 bytes
    handler->get_stream()->recv_closed();
    handler->Execute();
    // Response: 4 + 7 bytes of text and 8 of size, 19 in all.
    EXPECT_EQ((std::vector<std::string>{
                  "APMAttachContext 7 <context>",
                  "APMEvent 10010 60 1",
                  "APMEventArgs 10011 60 2 1 2 0a00000000000000 8",
                  "APMEvent 3600 50 1",
                  "APMEvent 3600 50 2",
                  "APMEvent 10020 60 1",
                  "APMEventArgs 10021 60 2 1 2 1300000000000000 8",
                  "APMReleaseContext 0",
              }),
              ExecuteEvents());
  });
}

TEST(HandlerEventsTest, EventsOfAShape2Call) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    TestServer server;
    GetModuleHandlerTest();
    boost::shared_ptr<FakeLogicalConnection> connection = boost::make_shared<FakeLogicalConnection>();
    CRefPtr<GenericRPCHandler<unsigned short>> handler =
        server.MakeHandler(TestServer::kEchoFile,
                           RawTlsPeer::RequestHeaders(std::to_string(TestServer::kEchoFile)), connection);
    Feed(*handler->get_stream(), test::EncodeRecord(Request(kSucceed, "hi")), true);
    Feed(*handler->get_stream(), Pattern(0x1234), true);
    handler->get_stream()->recv_closed();
    handler->Execute();
    EXPECT_EQ((std::vector<std::string>{
                  "APMEvent 10010 60 1",
                  "APMEventArgs 10011 60 2 1 2 0a00000000000000 8",
                  "APMEvent 10040 60 1",
                  "APMEventArgs 10041 60 2 1 2 3412000000000000 8",
                  "APMEvent 3601 50 1",
                  "APMEvent 3601 50 2",
                  "APMEvent 10020 60 1",
                  "APMEventArgs 10021 60 2 1 2 1300000000000000 8",
                  "APMReleaseContext 0",
              }),
              ExecuteEvents());
  });
}

TEST(HandlerEventsTest, EventsOfAFailedFunction) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    TestServer server;
    GetModuleHandlerTest();
    boost::shared_ptr<FakeLogicalConnection> connection = boost::make_shared<FakeLogicalConnection>();
    CRefPtr<GenericRPCHandler<unsigned short>> handler =
        server.MakeHandler(TestServer::kEcho, RawTlsPeer::RequestHeaders(std::to_string(TestServer::kEcho)),
                           connection);
    Feed(*handler->get_stream(), test::EncodeRecord(Request(kFailWithText, "bad")), true);  // 11 bytes
    handler->get_stream()->recv_closed();
    handler->Execute();
    EXPECT_EQ((std::vector<std::string>{
                  "APMEvent 10010 60 1",
                  "APMEventArgs 10011 60 2 1 2 0b00000000000000 8",
                  "APMEvent 3600 50 1",
                  "APMEvent 3600 50 2",
                  "APMEventStr 268439552 0 16 bad",
                  "APMReleaseContext 0",
              }),
              ExecuteEvents());
  });
}

TEST(HandlerEventsTest, EventsOfARequestThatCannotBeRead) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    TestServer server;
    GetModuleHandlerTest();
    boost::shared_ptr<FakeLogicalConnection> connection = boost::make_shared<FakeLogicalConnection>();
    CRefPtr<GenericRPCHandler<unsigned short>> handler =
        server.MakeHandler(TestServer::kEcho, RawTlsPeer::RequestHeaders(std::to_string(TestServer::kEcho)),
                           connection);
    Feed(*handler->get_stream(), Bytes{0, 0}, true);
    handler->get_stream()->recv_closed();
    handler->Execute();
    EXPECT_EQ((std::vector<std::string>{
                  "APMEvent 10010 60 1",
                  "APMEvent 10011 60 18",
                  "APMEvent 3600 50 0",
                  "APMReleaseContext 0",
              }),
              ExecuteEvents());
  });
}

TEST(HandlerEventsTest, EventsOfAFileThatCannotBeMade) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    root.WriteFile("/tmp/kelvora-ecomm", "in the way");
    TestServer server;
    GetModuleHandlerTest();
    boost::shared_ptr<FakeLogicalConnection> connection = boost::make_shared<FakeLogicalConnection>();
    CRefPtr<GenericRPCHandler<unsigned short>> handler =
        server.MakeHandler(TestServer::kEchoFile,
                           RawTlsPeer::RequestHeaders(std::to_string(TestServer::kEchoFile)), connection);
    Feed(*handler->get_stream(), test::EncodeRecord(Request(kSucceed, "hi")), true);
    Feed(*handler->get_stream(), Pattern(10), true);
    handler->get_stream()->recv_closed();
    handler->Execute();
    std::vector<std::string> events = ExecuteEvents();
    ASSERT_EQ(7u, events.size());
    EXPECT_EQ("APMEvent 10040 60 1", events[2]);
    EXPECT_EQ("APMEvent 10041 60 18", events[3]);
    EXPECT_EQ("APMEvent 3601 50 0", events[4]);
    EXPECT_EQ(0u, events[5].find("APMEventStr 268439552 0 16 ")) << events[5];
    EXPECT_EQ("APMReleaseContext 0", events[6]);
  });
}

TEST(HandlerEventsTest, EventsOfAResponseThatCannotBeWritten) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    TestServer server;
    GetModuleHandlerTest();
    boost::shared_ptr<FakeLogicalConnection> connection = boost::make_shared<FakeLogicalConnection>();
    connection->refuseBuffers = true;
    CRefPtr<GenericRPCHandler<unsigned short>> handler =
        server.MakeHandler(TestServer::kEcho, RawTlsPeer::RequestHeaders(std::to_string(TestServer::kEcho)),
                           connection);
    Feed(*handler->get_stream(), test::EncodeRecord(Request(kSucceed, "hi")), true);
    handler->get_stream()->recv_closed();
    handler->Execute();
    std::vector<std::string> events = ExecuteEvents();
    ASSERT_EQ(7u, events.size());
    EXPECT_EQ("APMEvent 10020 60 1", events[4]);
    EXPECT_EQ("APMEvent 10021 60 18", events[5]);
  });
}

TEST(HandlerEventsTest, ThreadContextIsAttachedInPlaceOfTheHeaderContext) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    TestServer server;
    GetModuleHandlerTest();
    boost::shared_ptr<FakeLogicalConnection> connection = boost::make_shared<FakeLogicalConnection>();
    CRefPtr<GenericRPCHandler<unsigned short>> handler =
        server.MakeHandler(TestServer::kEcho, HeadersWithContext(TestServer::kEcho), connection);
    handler->set_thread_context(42);
    Feed(*handler->get_stream(), test::EncodeRecord(Request(kSucceed, "hi")), true);
    handler->get_stream()->recv_closed();
    handler->Execute();
    std::vector<std::string> events = ExecuteEvents();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ("APMAttachThread 42", events[0]);
    for (const std::string& event : events) EXPECT_EQ(std::string::npos, event.find("APMAttachContext"));
  });
}

TEST(HandlerEventsTest, ContextOfTheWrongSizeIsNotAttached) {
  test::RunWithSdk(test::SdkVariant::Full, [] {
    test::PrivateRoot root;
    TestServer server;
    GetModuleHandlerTest();
    boost::shared_ptr<FakeLogicalConnection> connection = boost::make_shared<FakeLogicalConnection>();
    RPCConnectionHeaders headers = RawTlsPeer::RequestHeaders(std::to_string(TestServer::kEcho));
    headers[RPC_HEADER_CONTEXT] = std::string(15, '\x5a');
    CRefPtr<GenericRPCHandler<unsigned short>> handler = server.MakeHandler(TestServer::kEcho, headers, connection);
    Feed(*handler->get_stream(), test::EncodeRecord(Request(kSucceed, "hi")), true);
    handler->get_stream()->recv_closed();
    handler->Execute();
    std::vector<std::string> events = ExecuteEvents();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ("APMEvent 10010 60 1", events[0]);
  });
}

// ---------------------------------------------------------------------------
// Dispatch two-sided over TLS on 127.0.0.1

// What the client side of one call got.
struct Reply {
  bool headersReceived = false;
  RPCConnectionHeaders headers;
  int errorCode = 0;  // of a failed ReadResponseHeaders (the reset status)
  std::string errorText;
  bool recordRead = false;
  EchoResponse response;
  bool endedCleanly = false;  // the response segment, then the orderly end of the stream
};

// The orderly end: nothing more in the segment, and the stream ends with code 0.
bool EndsCleanly(CLogicalConnectionStream& stream) {
  FamError record;
  uint8_t byte;
  if (stream.Read(&byte, 1)) return false;
  stream.NextSegment();
  record.code = -1;
  return !stream.Read(&byte, 1) && record.code == 0;
}

class HandlerDispatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(scheduler.Start(3));
    environment.server = IServerConnection::CreateSpdyServer(environment.server_service, &server);
    FamError record;
    ASSERT_TRUE(environment.server->bind(environment.ServerParameters())) << record.message;
    environment.port = boost::static_pointer_cast<CSpdyServerConnection>(environment.server)->get_bound_port();
    connection = environment.Connect();
  }

  void TearDown() override {
    connection.reset();
    for (auto& client : environment.clients) client->close(true);
    scheduler.Stop();
    environment.Shutdown();
  }

  // One call: header 2 = `number` (left out if "-"), the request record, and with
  // `file` a file segment behind it.
  Reply Call(const std::string& number, const EchoRequest& request, const Bytes* file = nullptr) {
    Reply reply;
    FamError record;
    StreamPtr stream = CLogicalConnectionStream::create(connection);
    EXPECT_TRUE(stream) << record.message;
    if (!stream) return reply;
    RPCConnectionHeaders headers;
    headers[RPC_HEADER_CLASS] = "1";
    if (number != "-") headers[RPC_HEADER_FUNCTION] = number;
    stream->SendRequestHeaders(headers);
    WriteStream<CLogicalConnectionStream> writer(*stream);
    EXPECT_TRUE(request.Write(stream->GetVersion(), writer));
    if (file != nullptr) {
      stream->Flush();
      if (!file->empty()) {
        EXPECT_TRUE(stream->Write(file->data(), static_cast<unsigned int>(file->size())));
      }
    }
    stream->EndStream();
    reply.headersReceived = stream->ReadResponseHeaders(reply.headers);
    if (!reply.headersReceived) {
      reply.errorCode = record.code;
      reply.errorText = record.message;
      return reply;
    }
    if (reply.headers.find(RPC_HEADER_ERROR_CODE) == reply.headers.end()) {
      ReadStream<CLogicalConnectionStream> reader(*stream);
      reply.recordRead = reply.response.Read(stream->GetVersion(), reader);
    }
    reply.endedCleanly = EndsCleanly(*stream);
    return reply;
  }

  test::PrivateRoot root;
  test::RpcTestEnvironment environment;
  Scheduler scheduler{100};
  TestServer server{&scheduler};
  boost::shared_ptr<IPhysicalConnection> connection;
};

TEST_F(HandlerDispatchTest, CallReachesItsFunctionOnAWorkerAndTheResponseComesBack) {
  Reply reply = Call("3600", Request(kSucceed, "hello"));
  ASSERT_TRUE(reply.headersReceived) << reply.errorText;
  EXPECT_TRUE(reply.headers.empty());
  ASSERT_TRUE(reply.recordRead);
  EXPECT_EQ("echo:hello", reply.response.text);
  EXPECT_TRUE(reply.endedCleanly);
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_EQ("RPC3600", server.Calls()[0].threadName);
}

TEST_F(HandlerDispatchTest, Key2Holding3600xIsRefusedWithStatus3) {
  Reply reply = Call("3600x", Request(kSucceed, "x"));
  EXPECT_FALSE(reply.headersReceived);
  EXPECT_EQ(3, reply.errorCode);
  EXPECT_TRUE(server.Calls().empty());
}

TEST_F(HandlerDispatchTest, Key2Holding69136IsCutTo16BitsAndReaches3600) {
  Reply reply = Call("69136", Request(kSucceed, "wrapped"));
  ASSERT_TRUE(reply.headersReceived) << reply.errorText;
  ASSERT_TRUE(reply.recordRead);
  EXPECT_EQ("echo:wrapped", reply.response.text);
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_EQ("RPC3600", server.Calls()[0].threadName);
}

TEST_F(HandlerDispatchTest, UnknownNumberNonNumberAndMissingKey2AreRefusedWithStatus3) {
  for (const char* number : {"3605", "abc", "", "-"}) {
    Reply reply = Call(number, Request(kSucceed, "x"));
    EXPECT_FALSE(reply.headersReceived) << number;
    EXPECT_EQ(3, reply.errorCode) << number;
  }
  EXPECT_TRUE(server.Calls().empty());
}

TEST_F(HandlerDispatchTest, NullEntryAndFactoryWithoutHandlerAreRefusedWithStatus3) {
  for (unsigned short number : {TestServer::kNullEntry, TestServer::kNullHandler}) {
    Reply reply = Call(std::to_string(number), Request(kSucceed, "x"));
    EXPECT_FALSE(reply.headersReceived) << number;
    EXPECT_EQ(3, reply.errorCode) << number;
  }
}

TEST_F(HandlerDispatchTest, Key1IsNotConsulted) {
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  RPCConnectionHeaders headers;
  headers[RPC_HEADER_FUNCTION] = "3600";
  stream->SendRequestHeaders(headers);
  WriteStream<CLogicalConnectionStream> writer(*stream);
  ASSERT_TRUE(Request(kSucceed, "no class").Write(0, writer));
  stream->EndStream();
  RPCConnectionHeaders response;
  ASSERT_TRUE(stream->ReadResponseHeaders(response)) << record.message;
  EchoResponse echo;
  ReadStream<CLogicalConnectionStream> reader(*stream);
  ASSERT_TRUE(echo.Read(0, reader));
  EXPECT_EQ("echo:no class", echo.text);
}

TEST_F(HandlerDispatchTest, RecordEndingEarlyIsResetWithStatus5AndNoHeaders) {
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  stream->SendRequestHeaders(1, 3600);
  const uint32_t outcome = kSucceed;
  ASSERT_TRUE(stream->Write(&outcome, sizeof(outcome)));
  stream->EndStream();
  RPCConnectionHeaders headers;
  EXPECT_FALSE(stream->ReadResponseHeaders(headers));
  EXPECT_EQ(5, record.code);
  EXPECT_TRUE(headers.empty());
  EXPECT_TRUE(server.Calls().empty());
}

TEST_F(HandlerDispatchTest, ErrorResultArrivesAsKeys3And4) {
  Reply reply = Call("3600", Request(kFailWithText, "went wrong"));
  ASSERT_TRUE(reply.headersReceived) << reply.errorText;
  EXPECT_EQ("2147500037", reply.headers[RPC_HEADER_ERROR_CODE]);
  EXPECT_EQ("went wrong", reply.headers[RPC_HEADER_ERROR_TEXT]);
  EXPECT_FALSE(reply.recordRead);
  EXPECT_TRUE(reply.endedCleanly) << "no record follows an error";
}

TEST_F(HandlerDispatchTest, ErrorTextTooLongForABufferIsReplacedByStatus6) {
  Reply reply = Call("3600", Request(kFailWithLongText, ""));
  EXPECT_FALSE(reply.headersReceived);
  EXPECT_EQ(6, reply.errorCode);
}

TEST_F(HandlerDispatchTest, Shape2CarriesTheFileBehindTheRecord) {
  const Bytes file = Pattern(100000);
  Reply reply = Call("3601", Request(kSucceed, "f"), &file);
  ASSERT_TRUE(reply.headersReceived) << reply.errorText;
  ASSERT_TRUE(reply.recordRead);
  EXPECT_EQ(file.size(), reply.response.fileSize);
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_EQ(file, server.Calls()[0].file);
  EXPECT_FALSE(boost::filesystem::exists(server.Calls()[0].path));
}

TEST_F(HandlerDispatchTest, Shape2WithAnEmptyFileGivesThePathOfAnEmptyFile) {
  const Bytes file;
  Reply reply = Call("3601", Request(kSucceed, "f"), &file);
  ASSERT_TRUE(reply.recordRead) << reply.errorText;
  EXPECT_EQ(0u, reply.response.fileSize);
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_TRUE(server.Calls()[0].fileExisted);
  EXPECT_TRUE(server.Calls()[0].file.empty());
}

TEST_F(HandlerDispatchTest, TemporaryFileIsGoneAfterAFailedCall) {
  const Bytes file = Pattern(20000);
  Reply reply = Call("3601", Request(kFailWithText, "refused"), &file);
  ASSERT_TRUE(reply.headersReceived) << reply.errorText;
  EXPECT_EQ("refused", reply.headers[RPC_HEADER_ERROR_TEXT]);
  // The end of the stream comes after the handler has finished.
  EXPECT_TRUE(reply.endedCleanly);
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_TRUE(server.Calls()[0].fileExisted);
  EXPECT_FALSE(boost::filesystem::exists(server.Calls()[0].path));
}

TEST_F(HandlerDispatchTest, Shape2StreamResetInTheMiddleOfTheFileRunsTheFunctionWithAShortFile) {
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  stream->SendRequestHeaders(1, 3601);
  WriteStream<CLogicalConnectionStream> writer(*stream);
  ASSERT_TRUE(Request(kSucceed, "f").Write(0, writer));
  stream->Flush();
  // Two full frames go out; the rest stays in the stream's buffer when it is reset.
  const Bytes file = Pattern(2 * 8192 + 1000);
  ASSERT_TRUE(stream->Write(file.data(), static_cast<unsigned int>(file.size())));
  stream->Terminate();
  stream.reset();
  for (int waited = 0; server.Calls().empty() && waited < 10000; waited += 10) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(1u, server.Calls().size());
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 2 * 8192), server.Calls()[0].file);
}

TEST_F(HandlerDispatchTest, TwoHundredCallsInParallelOverOneConnectionAllComplete) {
  constexpr int kCalls = 200;
  std::atomic<int> completed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kCalls; ++i) {
    threads.emplace_back([this, i, &completed]() {
      Reply reply = Call("3600", Request(kSucceed, std::to_string(i)));
      if (reply.recordRead && reply.response.text == "echo:" + std::to_string(i) && reply.endedCleanly) {
        ++completed;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(kCalls, completed.load());
  EXPECT_EQ(static_cast<size_t>(kCalls), server.Calls().size());
}

// ---------------------------------------------------------------------------
// The frames on the wire, seen by a hand-written client

class HandlerWireTest : public HandlerDispatchTest {
 protected:
  void SetUp() override {
    HandlerDispatchTest::SetUp();
    ASSERT_TRUE(peer.Connect(environment.port, test::GetTestIdentity("client").certificate_file));
    ASSERT_TRUE(peer.Handshake());
  }

  void TearDown() override {
    peer.Close();
    HandlerDispatchTest::TearDown();
  }

  // Opens stream 1 with header 2 = 3600 and sends `body` as one data frame with
  // `flags`.
  void Send(const Bytes& body, uint8_t flags) {
    ASSERT_TRUE(peer.SendControl(SPDY_SYN_STREAM, 0, RawTlsPeer::SynStreamPayload(1, RawTlsPeer::RequestHeaders())));
    ASSERT_TRUE(peer.SendData(1, flags, body));
  }

  // The frames of stream 1 up to its end (FLAG_FIN or RST_STREAM), window updates
  // left out.
  std::vector<test::RawFrame> StreamFrames() {
    std::vector<test::RawFrame> frames;
    test::RawFrame frame;
    while (peer.ReadFrameAnsweringPings(frame)) {
      if (frame.is_control(SPDY_WINDOW_UPDATE)) continue;
      frames.push_back(frame);
      if (frame.is_control(SPDY_RST_STREAM)) break;
      if (!frame.header.is_control() && (frame.header.flags() & FLAG_FIN) != 0) break;
    }
    return frames;
  }

  test::RawTlsPeer peer;
};

TEST_F(HandlerWireTest, SuccessIsSynReplyThenTheRecordMarkedThenAnEmptyFin) {
  Send(test::EncodeRecord(Request(kSucceed, "hi")), FLAG_END_SEGMENT | FLAG_FIN);
  std::vector<test::RawFrame> frames = StreamFrames();
  ASSERT_EQ(3u, frames.size());
  ASSERT_TRUE(frames[0].is_control(SPDY_SYN_REPLY));
  RPCConnectionHeaders headers;
  ASSERT_TRUE(test::RawTlsPeer::DecodeHeaders(frames[0], headers));
  EXPECT_TRUE(headers.empty());
  EXPECT_FALSE(frames[1].header.is_control());
  EXPECT_EQ(FLAG_END_SEGMENT, frames[1].header.flags());
  EXPECT_EQ(test::EncodeRecord(EchoResponse{"echo:hi", 0}), frames[1].payload);
  EXPECT_EQ(FLAG_FIN, frames[2].header.flags());
  EXPECT_TRUE(frames[2].payload.empty());
}

TEST_F(HandlerWireTest, FailureIsSynReplyWithKeys3And4ThenAnEmptyMarkedFrameThenAnEmptyFin) {
  Send(test::EncodeRecord(Request(kFailWithText, "went wrong")), FLAG_END_SEGMENT | FLAG_FIN);
  std::vector<test::RawFrame> frames = StreamFrames();
  ASSERT_EQ(3u, frames.size());
  ASSERT_TRUE(frames[0].is_control(SPDY_SYN_REPLY));
  RPCConnectionHeaders headers;
  ASSERT_TRUE(test::RawTlsPeer::DecodeHeaders(frames[0], headers));
  RPCConnectionHeaders expected;
  expected[RPC_HEADER_ERROR_CODE] = "2147500037";
  expected[RPC_HEADER_ERROR_TEXT] = "went wrong";
  EXPECT_EQ(expected, headers);
  EXPECT_EQ(FLAG_END_SEGMENT, frames[1].header.flags());
  EXPECT_TRUE(frames[1].payload.empty());
  EXPECT_EQ(FLAG_FIN, frames[2].header.flags());
  EXPECT_TRUE(frames[2].payload.empty());
}

TEST_F(HandlerWireTest, RecordEndingEarlyIsRstStreamStatus5WithNoResponseBeforeOrAfterIt) {
  Send(Bytes{0, 0, 0, 0, 9, 0, 0, 0, 'x'}, FLAG_END_SEGMENT | FLAG_FIN);
  std::vector<test::RawFrame> frames = StreamFrames();
  ASSERT_EQ(1u, frames.size());
  ASSERT_TRUE(frames[0].is_control(SPDY_RST_STREAM));
  EXPECT_EQ(1u, frames[0].word(0));
  EXPECT_EQ(SPDY_STATUS_CANCEL, frames[0].word(1));
  // Up to the echo of a ping: no response headers and no data. (Ending the dropped
  // stream may still put out an empty reply for the stream, which the peer has
  // already forgotten.)
  ASSERT_TRUE(peer.SendControl(SPDY_PING, 0, test::RawTlsPeer::Words({101})));
  test::RawFrame frame;
  while (peer.ReadFrame(frame) && !frame.is_control(SPDY_PING)) {
    if (frame.is_control(SPDY_SYN_REPLY) || frame.is_control(SPDY_HEADERS)) {
      RPCConnectionHeaders headers;
      ASSERT_TRUE(test::RawTlsPeer::DecodeHeaders(frame, headers));
      EXPECT_TRUE(headers.empty());
    }
    if (!frame.header.is_control()) {
      EXPECT_TRUE(frame.payload.empty());
    }
  }
  EXPECT_TRUE(frame.is_control(SPDY_PING));
}

TEST_F(HandlerWireTest, UnknownNumberIsRstStreamStatus3) {
  RPCConnectionHeaders headers = RawTlsPeer::RequestHeaders(std::to_string(3600));
  headers[RPC_HEADER_FUNCTION] = "3600x";
  ASSERT_TRUE(peer.SendControl(SPDY_SYN_STREAM, FLAG_FIN, test::RawTlsPeer::SynStreamPayload(1, headers)));
  std::vector<test::RawFrame> frames = StreamFrames();
  ASSERT_EQ(1u, frames.size());
  ASSERT_TRUE(frames[0].is_control(SPDY_RST_STREAM));
  EXPECT_EQ(SPDY_STATUS_REFUSED_STREAM, frames[0].word(1));
}

}  // namespace
}  // namespace base
}  // namespace apm
