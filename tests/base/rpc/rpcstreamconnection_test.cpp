// The blocking stream of one RPC (CLogicalConnectionStream) against a recording
// stand-in for its logical connection: segments, reads, writes, headers and the
// way errors reach the worker's record.
#include "base/rpc/rpcstreamconnection.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/famerror.h"
#include "tests/support/privateroot.h"

namespace apm {
namespace base {
namespace {

// Records what the stream asks of its logical connection.
class RecordingConnection : public ILogicalConnection {
 public:
  struct Sent {
    bool present;  // a buffer was passed
    std::vector<uint8_t> bytes;
    bool end_of_segment;
  };

  uint64_t get_version() override { return 42; }
  CNetworkBuffer* alloc_buffer() override { return CNetworkBuffer::Allocate(); }
  void free_buffer(const CNetworkBuffer* buffer) override {
    std::lock_guard<std::mutex> lock(mutex);
    if (buffer != nullptr && buffer->length > 0) acknowledged.push_back(buffer->length);
    CNetworkBuffer::Free(buffer);
  }
  void init(const RPCConnectionHeaders& headers) override {
    std::lock_guard<std::mutex> lock(mutex);
    init_headers = headers;
    ++inits;
  }
  void send_data(CNetworkBuffer* buffer, bool end_of_segment) override {
    std::lock_guard<std::mutex> lock(mutex);
    Sent sent{buffer != nullptr, {}, end_of_segment};
    if (buffer != nullptr) sent.bytes.assign(buffer->data, buffer->data + buffer->length);
    this->sent.push_back(sent);
    CNetworkBuffer::Free(buffer);
  }
  void send_headers(const RPCConnectionHeaders& headers) override {
    std::lock_guard<std::mutex> lock(mutex);
    sent_headers.push_back(headers);
  }
  void send_terminate() override { ++terminates; }
  void send_close() override { ++closes; }
  boost::shared_ptr<IPhysicalConnection> get_physical_connection() override {
    return boost::shared_ptr<IPhysicalConnection>();
  }

  std::mutex mutex;
  std::vector<uint64_t> acknowledged;
  std::vector<Sent> sent;
  std::vector<RPCConnectionHeaders> sent_headers;
  RPCConnectionHeaders init_headers;
  int inits = 0;
  std::atomic<int> terminates{0};
  std::atomic<int> closes{0};
};

CNetworkBuffer* BufferOf(const std::string& text) {
  CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
  std::memcpy(buffer->data, text.data(), text.size());
  buffer->length = text.size();
  return buffer;
}

class StreamTest : public ::testing::Test {
 protected:
  StreamTest() : connection(new RecordingConnection), stream(CLogicalConnectionStream::create(connection)) {}

  std::string ReadString(size_t size) {
    std::string text(size, '\0');
    EXPECT_TRUE(stream->Read(&text[0], size));
    return text;
  }

  FamError record;
  boost::shared_ptr<RecordingConnection> connection;
  boost::shared_ptr<CLogicalConnectionStream> stream;
};

TEST_F(StreamTest, ReadCrossesBuffersAndReleasesEachWhenUsedUp) {
  stream->recv_data(BufferOf("abc"), false);
  stream->recv_data(BufferOf("defg"), true);
  EXPECT_EQ("ab", ReadString(2));
  EXPECT_TRUE(connection->acknowledged.empty());
  EXPECT_EQ("cdefg", ReadString(5));
  EXPECT_EQ((std::vector<uint64_t>{3, 4}), connection->acknowledged);
  EXPECT_EQ(7u, stream->GetTotalReceived());
}

TEST_F(StreamTest, ReaderAtASegmentEndGetsFalseUntilNextSegment) {
  stream->recv_data(BufferOf("ab"), true);
  stream->recv_data(BufferOf("cd"), true);
  EXPECT_EQ("ab", ReadString(2));
  record.code = 77;
  char byte;
  EXPECT_FALSE(stream->Read(&byte, 1));
  EXPECT_FALSE(stream->Read(&byte, 1));
  EXPECT_EQ(77, record.code);  // no error is set at a segment end
  stream->NextSegment();
  EXPECT_EQ("cd", ReadString(2));
}

TEST_F(StreamTest, ReadNeverCrossesASegmentEndAndKeepsWhatWasCopied) {
  stream->recv_data(BufferOf("ab"), true);
  stream->recv_data(BufferOf("cd"), false);
  char target[4] = {0, 0, 0, 0};
  EXPECT_FALSE(stream->Read(target, 4));
  EXPECT_EQ('a', target[0]);
  EXPECT_EQ('b', target[1]);
  EXPECT_EQ(0u, stream->GetTotalReceived());
}

// A waiting reader that wants more bytes than are queued is left asleep by data
// alone, but a segment end, an empty frame or the end of the stream wakes it.
TEST_F(StreamTest, ReaderWaitingForMoreThanIsQueuedIsWokenByASegmentEnd) {
  std::vector<char> target(20000, 0);
  bool result = true;
  std::thread reader([&]() { result = stream->Read(target.data(), target.size()); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  stream->recv_data(BufferOf("abc"), false);
  stream->recv_data(BufferOf("de"), true);
  reader.join();
  EXPECT_FALSE(result);
  EXPECT_EQ("abcde", std::string(target.data(), 5));
  EXPECT_EQ(0u, stream->GetTotalReceived());
}

TEST_F(StreamTest, ReaderWaitingForMoreThanIsQueuedIsWokenByTheEndOfTheStream) {
  std::vector<char> target(20000, 0);
  bool result = true;
  std::thread reader([&]() { result = stream->Read(target.data(), target.size()); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  stream->recv_data(BufferOf("abc"), false);
  stream->recv_data(nullptr, false);
  stream->recv_closed();
  reader.join();
  EXPECT_FALSE(result);
  EXPECT_EQ("abc", std::string(target.data(), 3));
  EXPECT_EQ(0, record.code);
}

TEST_F(StreamTest, ReadOfMoreThanSixtyFourKibibytesGetsEveryByteInOrder) {
  const size_t size = 24 * 8192 + 3392;
  std::vector<char> target(size, 0);
  bool result = false;
  std::thread reader([&]() { result = stream->Read(target.data(), target.size()); });
  for (size_t done = 0; done < size; done += 8192) {
    const size_t count = std::min<size_t>(8192, size - done);
    std::string chunk(count, static_cast<char>('a' + done / 8192));
    stream->recv_data(BufferOf(chunk), false);
  }
  reader.join();
  EXPECT_TRUE(result);
  EXPECT_EQ('a', target[0]);
  EXPECT_EQ('a' + 24, target[size - 1]);
  EXPECT_EQ(25u, connection->acknowledged.size());
  EXPECT_EQ(size, stream->GetTotalReceived());
}

TEST_F(StreamTest, ZeroLengthFrameWithEndSegmentEndsASegment) {
  stream->recv_data(nullptr, true);
  stream->recv_data(BufferOf("x"), false);
  char byte;
  EXPECT_FALSE(stream->Read(&byte, 1));
  stream->NextSegment();
  EXPECT_TRUE(stream->Read(&byte, 1));
  EXPECT_EQ('x', byte);
}

TEST_F(StreamTest, ZeroLengthFrameWithoutFlagsIsSwallowed) {
  stream->recv_data(nullptr, false);
  stream->recv_data(BufferOf("y"), false);
  EXPECT_EQ("y", ReadString(1));
}

TEST_F(StreamTest, NextSegmentDropsTheRestOfTheSegmentAndAcknowledgesIt) {
  stream->recv_data(BufferOf("abc"), false);
  stream->recv_data(BufferOf("def"), true);
  stream->recv_data(BufferOf("next"), true);
  EXPECT_EQ("a", ReadString(1));
  stream->NextSegment();
  EXPECT_EQ((std::vector<uint64_t>{3, 3}), connection->acknowledged);
  EXPECT_EQ("next", ReadString(4));
}

TEST_F(StreamTest, ReadOfZeroBytesStillWaitsForABuffer) {
  std::atomic<bool> done{false};
  std::thread reader([&]() {
    char byte;
    EXPECT_TRUE(stream->Read(&byte, 0));
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(done);
  stream->recv_data(BufferOf("z"), false);
  reader.join();
  EXPECT_TRUE(done);
  EXPECT_EQ("z", ReadString(1));
}

TEST_F(StreamTest, OrderlyEndReadsAsFalseWithCodeZeroAndEmptyText) {
  stream->recv_data(BufferOf("a"), false);
  stream->recv_closed();
  EXPECT_FALSE(stream->is_receive_closed());
  EXPECT_EQ("a", ReadString(1));
  EXPECT_TRUE(stream->is_receive_closed());
  record.code = 5;
  record.message = "old";
  char byte;
  EXPECT_FALSE(stream->Read(&byte, 1));
  EXPECT_EQ(0, record.code);
  EXPECT_EQ("", record.message);
}

TEST_F(StreamTest, TerminatedStreamReportsStatusAndText) {
  std::thread terminator([&]() {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    stream->recv_terminated(5, "reset");
  });
  char byte;
  EXPECT_FALSE(stream->Read(&byte, 1));
  terminator.join();
  EXPECT_EQ(5, record.code);
  EXPECT_EQ("reset", record.message);
}

TEST_F(StreamTest, WriteFillsBuffersAndSendsOnlyFullOnes) {
  std::vector<uint8_t> data(8192 + 100, 7);
  EXPECT_TRUE(stream->Write(data.data(), 10));
  EXPECT_TRUE(connection->sent.empty());
  EXPECT_TRUE(stream->Write(data.data(), 8192 + 90));
  ASSERT_EQ(1u, connection->sent.size());
  EXPECT_EQ(8192u, connection->sent[0].bytes.size());
  EXPECT_FALSE(connection->sent[0].end_of_segment);
  stream->Flush();
  ASSERT_EQ(2u, connection->sent.size());
  EXPECT_EQ(100u, connection->sent[1].bytes.size());
  EXPECT_TRUE(connection->sent[1].end_of_segment);
  EXPECT_EQ(8192u + 100u, stream->GetTotalSent());
}

TEST_F(StreamTest, WriteOfZeroBytesAllocatesAndSendsNothing) {
  EXPECT_TRUE(stream->Write("", 0));
  EXPECT_TRUE(connection->sent.empty());
  stream->Flush();
  ASSERT_EQ(1u, connection->sent.size());
  EXPECT_TRUE(connection->sent[0].present);  // the buffer made by the empty write
  EXPECT_TRUE(connection->sent[0].bytes.empty());
}

TEST_F(StreamTest, FlushWithNothingPendingSendsAnEmptyMarkedFrame) {
  stream->Flush();
  ASSERT_EQ(1u, connection->sent.size());
  EXPECT_FALSE(connection->sent[0].present);
  EXPECT_TRUE(connection->sent[0].end_of_segment);
}

TEST_F(StreamTest, EndStreamFlushesThenCloses) {
  stream->Write("abc", 3);
  stream->EndStream();
  ASSERT_EQ(1u, connection->sent.size());
  EXPECT_TRUE(connection->sent[0].end_of_segment);
  EXPECT_EQ(1, connection->closes.load());
}

TEST_F(StreamTest, DroppingTheStreamEndsItAndReleasesUnreadBuffers) {
  stream->recv_data(BufferOf("abcd"), false);
  stream->recv_data(BufferOf("ef"), true);
  EXPECT_EQ("a", ReadString(1));
  stream.reset();
  ASSERT_EQ(1u, connection->sent.size());
  EXPECT_TRUE(connection->sent[0].end_of_segment);
  EXPECT_EQ(1, connection->closes.load());
  EXPECT_EQ((std::vector<uint64_t>{2, 4}), connection->acknowledged);
}

TEST_F(StreamTest, TerminateResetsTheStream) {
  stream->Terminate();
  EXPECT_EQ(1, connection->terminates.load());
}

TEST_F(StreamTest, RequestHeadersCarryClassAndFunction) {
  stream->SendRequestHeaders(1, 3601);
  EXPECT_EQ(1, connection->inits);
  EXPECT_EQ("1", connection->init_headers[RPC_HEADER_CLASS]);
  EXPECT_EQ("3601", connection->init_headers[RPC_HEADER_FUNCTION]);
  // Without the instrumentation library there is no context.
  EXPECT_EQ(0u, connection->init_headers.count(RPC_HEADER_CONTEXT));
}

TEST_F(StreamTest, ResponseHeadersGoToTheConnection) {
  RPCConnectionHeaders headers;
  headers.set<unsigned int>(RPC_HEADER_ERROR_CODE, 5);
  stream->SendResponseHeaders(headers);
  ASSERT_EQ(1u, connection->sent_headers.size());
  EXPECT_EQ("5", connection->sent_headers[0][RPC_HEADER_ERROR_CODE]);
  EXPECT_EQ(0u, connection->sent_headers[0].count(RPC_HEADER_SYNC_MARK));
}

TEST_F(StreamTest, LaterHeadersReplaceEarlierOnesBeforeTheyAreRead) {
  RPCConnectionHeaders first, second;
  first[3] = "1";
  second[4] = "two";
  stream->recv_headers(first);
  stream->recv_headers(second);
  RPCConnectionHeaders read;
  ASSERT_TRUE(stream->ReadResponseHeaders(read));
  EXPECT_EQ(second, read);
}

TEST_F(StreamTest, ReadResponseHeadersFailsWithTheStreamErrorWhenNoneCame) {
  stream->recv_terminated(8, "stream in use");
  RPCConnectionHeaders read;
  read[1] = "stale";
  EXPECT_FALSE(stream->ReadResponseHeaders(read));
  EXPECT_TRUE(read.empty());
  EXPECT_EQ(8, record.code);
  EXPECT_EQ("stream in use", record.message);
}

TEST_F(StreamTest, ConnectionClosingIsNoted) {
  EXPECT_FALSE(stream->is_connection_closing());
  stream->recv_connection_closing();
  EXPECT_TRUE(stream->is_connection_closing());
  EXPECT_EQ(42u, stream->GetVersion());
  EXPECT_EQ(connection, stream->get_connection());
}

class StreamFileTest : public StreamTest {
 protected:
  bool OpenFile() { return file.Open(root.Path("/tmp/received"), O_RDWR | O_CREAT | O_TRUNC, 0600); }
  std::string FileContent() { return root.ReadFile("/tmp/received"); }

  test::PrivateRoot root;
  File file;
};

TEST_F(StreamFileTest, ReadFileTakesTheSecondSegment) {
  stream->recv_data(BufferOf("rec"), true);
  stream->recv_data(BufferOf("file-"), false);
  stream->recv_data(BufferOf("data"), true);
  stream->recv_closed();
  EXPECT_EQ("rec", ReadString(3));
  stream->NextSegment();
  ASSERT_TRUE(OpenFile());
  EXPECT_TRUE(stream->ReadFile(file));
  file.Close();
  EXPECT_EQ("file-data", FileContent());
  EXPECT_EQ(12u, stream->GetTotalReceived());
}

TEST_F(StreamFileTest, ReadFileOfAnEmptySecondSegmentIsTrueAndLeavesTheFileEmpty) {
  stream->recv_data(BufferOf("rec"), true);
  stream->recv_data(nullptr, true);
  EXPECT_EQ("rec", ReadString(3));
  stream->NextSegment();
  ASSERT_TRUE(OpenFile());
  EXPECT_TRUE(stream->ReadFile(file));
  file.Close();
  EXPECT_EQ("", FileContent());
}

TEST_F(StreamFileTest, StreamTerminatedInMidFileEndsReadFileWithTrueAndTheError) {
  stream->recv_data(BufferOf("part"), false);
  stream->recv_terminated(5, "reset");
  ASSERT_TRUE(OpenFile());
  EXPECT_TRUE(stream->ReadFile(file));
  file.Close();
  EXPECT_EQ("part", FileContent());
  EXPECT_EQ(5, record.code);
  EXPECT_EQ("reset", record.message);
}

TEST_F(StreamFileTest, FailedFileWriteEndsReadFileWithFalse) {
  stream->recv_data(BufferOf("data"), true);
  ASSERT_TRUE(file.Open(root.Path("/tmp/readonly"), O_RDONLY | O_CREAT, 0600));
  EXPECT_FALSE(stream->ReadFile(file));
}

// Records the runs that Read(writer) hands over, and how many buffers the
// connection had been told were released at each run.
class RunRecorder : public CLogicalConnectionStreamWriter {
 public:
  explicit RunRecorder(RecordingConnection& connection) : connection(connection) {}

  bool Write(const CNetworkBuffer* buffer) override {
    std::lock_guard<std::mutex> lock(mutex);
    singles.emplace_back(reinterpret_cast<const char*>(buffer->data), static_cast<size_t>(buffer->length));
    return result;
  }
  bool WriteBuffers(const CNetworkBuffer* const* buffers, size_t count) override {
    std::vector<std::string> run;
    for (size_t index = 0; index < count; ++index) {
      run.emplace_back(reinterpret_cast<const char*>(buffers[index]->data), static_cast<size_t>(buffers[index]->length));
    }
    size_t released;
    {
      std::lock_guard<std::mutex> lock(connection.mutex);
      released = connection.acknowledged.size();
    }
    std::lock_guard<std::mutex> lock(mutex);
    runs.push_back(run);
    released_before_run.push_back(released);
    changed.notify_all();
    return result;
  }
  // Waits up to 10 seconds until `count` runs have come.
  bool WaitForRuns(size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10), [&]() { return runs.size() >= count; });
  }
  size_t RunCount() {
    std::lock_guard<std::mutex> lock(mutex);
    return runs.size();
  }

  RecordingConnection& connection;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::vector<std::string>> runs;
  std::vector<size_t> released_before_run;
  std::vector<std::string> singles;
  bool result = true;
};

// A writer that takes buffers only one at a time.
class SingleBufferWriter : public CLogicalConnectionStreamWriter {
 public:
  bool Write(const CNetworkBuffer* buffer) override {
    texts.emplace_back(reinterpret_cast<const char*>(buffer->data), static_cast<size_t>(buffer->length));
    return true;
  }
  std::vector<std::string> texts;
};

CNetworkBuffer* FullBuffer(char fill) {
  CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
  std::memset(buffer->data, fill, CNetworkBuffer::CAPACITY);
  buffer->length = CNetworkBuffer::CAPACITY;
  return buffer;
}

TEST_F(StreamTest, ReadHandsEverythingQueuedOverInOneRunAndReleasesItAfterwards) {
  stream->recv_data(BufferOf("ab"), false);
  stream->recv_data(nullptr, false);
  stream->recv_data(BufferOf("cd"), false);
  stream->recv_data(BufferOf("e"), true);
  stream->recv_data(BufferOf("next"), true);
  RunRecorder writer(*connection);
  EXPECT_TRUE(stream->Read(writer));
  ASSERT_EQ(1u, writer.runs.size());
  EXPECT_EQ((std::vector<std::string>{"ab", "cd", "e"}), writer.runs[0]);
  EXPECT_EQ(0u, writer.released_before_run[0]);
  EXPECT_EQ((std::vector<uint64_t>{2, 2, 1}), connection->acknowledged);
  EXPECT_EQ(5u, stream->GetTotalReceived());
  // The mark stays until NextSegment.
  EXPECT_TRUE(stream->Read(writer));
  EXPECT_EQ(1u, writer.runs.size());
  stream->NextSegment();
  EXPECT_EQ("next", ReadString(4));
}

TEST_F(StreamTest, ReadHandsAPartlyReadBufferOverWholeAtTheHeadOfTheRun) {
  stream->recv_data(BufferOf("abcd"), false);
  stream->recv_data(BufferOf("ef"), true);
  EXPECT_EQ("ab", ReadString(2));
  RunRecorder writer(*connection);
  EXPECT_TRUE(stream->Read(writer));
  ASSERT_EQ(1u, writer.runs.size());
  EXPECT_EQ((std::vector<std::string>{"abcd", "ef"}), writer.runs[0]);
}

TEST_F(StreamTest, ReaderOfRunsWaitsUntilTheSegmentEndsWhenLittleIsQueued) {
  RunRecorder writer(*connection);
  bool result = false;
  std::thread reader([&]() { result = stream->Read(writer); });
  stream->recv_data(BufferOf("ab"), false);
  stream->recv_data(BufferOf("cd"), false);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(0u, writer.RunCount());
  stream->recv_data(BufferOf("e"), true);
  reader.join();
  EXPECT_TRUE(result);
  ASSERT_EQ(1u, writer.runs.size());
  EXPECT_EQ((std::vector<std::string>{"ab", "cd", "e"}), writer.runs[0]);
}

TEST_F(StreamTest, ReaderOfRunsIsWokenOnceAFullRunIsQueued) {
  RunRecorder writer(*connection);
  bool result = false;
  std::thread reader([&]() { result = stream->Read(writer); });
  const size_t full_run = CLogicalConnectionStream::kRunWakeBytes / CNetworkBuffer::CAPACITY;
  for (size_t index = 0; index < full_run; ++index) stream->recv_data(FullBuffer('x'), false);
  EXPECT_TRUE(writer.WaitForRuns(1));
  stream->recv_data(nullptr, true);
  reader.join();
  EXPECT_TRUE(result);
  ASSERT_EQ(1u, writer.runs.size());
  EXPECT_EQ(full_run, writer.runs[0].size());
  EXPECT_EQ(CLogicalConnectionStream::kRunWakeBytes, stream->GetTotalReceived());
}

TEST_F(StreamTest, ReaderOfRunsIsWokenByTheEndOfTheStream) {
  RunRecorder writer(*connection);
  bool result = false;
  std::thread reader([&]() { result = stream->Read(writer); });
  stream->recv_data(BufferOf("ab"), false);
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  stream->recv_closed();
  reader.join();
  EXPECT_TRUE(result);
  ASSERT_EQ(1u, writer.runs.size());
  EXPECT_EQ((std::vector<std::string>{"ab"}), writer.runs[0]);
}

TEST_F(StreamTest, RunIsCutAtTheMostBuffersOneRunHandsOver) {
  const size_t queued = CLogicalConnectionStream::kMaxRunBuffers + 3;
  for (size_t index = 0; index < queued; ++index) stream->recv_data(BufferOf("z"), false);
  stream->recv_data(nullptr, true);
  RunRecorder writer(*connection);
  EXPECT_TRUE(stream->Read(writer));
  ASSERT_EQ(2u, writer.runs.size());
  EXPECT_EQ(CLogicalConnectionStream::kMaxRunBuffers, writer.runs[0].size());
  EXPECT_EQ(3u, writer.runs[1].size());
  EXPECT_EQ(CLogicalConnectionStream::kMaxRunBuffers, writer.released_before_run[1]);
  EXPECT_EQ(queued, connection->acknowledged.size());
}

TEST_F(StreamTest, FailedRunEndsReadWithFalseAndReleasesTheRun) {
  stream->recv_data(BufferOf("ab"), false);
  stream->recv_data(BufferOf("cd"), true);
  RunRecorder writer(*connection);
  writer.result = false;
  EXPECT_FALSE(stream->Read(writer));
  EXPECT_EQ((std::vector<uint64_t>{2, 2}), connection->acknowledged);
  EXPECT_EQ(4u, stream->GetTotalReceived());
}

TEST_F(StreamTest, WriterOfSingleBuffersGetsTheRunOneBufferAtATime) {
  stream->recv_data(BufferOf("ab"), false);
  stream->recv_data(BufferOf("cd"), true);
  SingleBufferWriter writer;
  EXPECT_TRUE(stream->Read(writer));
  EXPECT_EQ((std::vector<std::string>{"ab", "cd"}), writer.texts);
}

TEST_F(StreamFileTest, ReadFileWritesARunOfBuffersInOrder) {
  stream->recv_data(BufferOf("rec"), true);
  std::string expected;
  for (int index = 0; index < 40; ++index) {
    const char fill = static_cast<char>('0' + index);
    stream->recv_data(FullBuffer(fill), false);
    expected.append(CNetworkBuffer::CAPACITY, fill);
  }
  stream->recv_data(BufferOf("tail"), true);
  expected += "tail";
  stream->NextSegment();
  ASSERT_TRUE(OpenFile());
  EXPECT_TRUE(stream->ReadFile(file));
  file.Close();
  EXPECT_TRUE(FileContent() == expected);
  EXPECT_EQ(41u + 1u, connection->acknowledged.size());
}

}  // namespace
}  // namespace base
}  // namespace apm
