// How a worker's frames leave: a stream's end goes out in one write with what the
// worker queued before it, acknowledgements of what a worker read wait for its
// answer but never for long, and a worker never waits for a socket whose peer has
// stopped reading. The server under test runs the handlers; a hand-written TLS
// client looks at the records on the wire.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/rpc/rpcframe.h"
#include "base/rpc/rpcstreamconnection.h"
#include "tests/support/latch.h"
#include "tests/support/rawtlspeer.h"
#include "tests/support/rpctestenvironment.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace base {
namespace {

using test::GetTestIdentity;
using test::Latch;
using test::RawFrame;
using test::RawTlsPeer;
using test::RpcTestEnvironment;

typedef boost::shared_ptr<CLogicalConnectionStream> StreamPtr;

// The frames in the plaintext of one record; fails the test on a partial frame.
std::vector<RawFrame> FramesOf(const std::vector<uint8_t>& record) {
  std::vector<RawFrame> frames;
  size_t offset = 0;
  while (offset + FRAME_HEADER_SIZE <= record.size()) {
    RawFrame frame;
    frame.header = unpack_frame_header(record.data() + offset);
    offset += FRAME_HEADER_SIZE;
    EXPECT_LE(offset + frame.header.length(), record.size());
    if (offset + frame.header.length() > record.size()) break;
    frame.payload.assign(record.begin() + offset, record.begin() + offset + frame.header.length());
    offset += frame.header.length();
    frames.push_back(frame);
  }
  EXPECT_EQ(record.size(), offset);
  return frames;
}

bool IsData(const RawFrame& frame, uint32_t stream_id, uint8_t flags, size_t length) {
  return !frame.header.is_control() && frame.header.stream_id() == stream_id && frame.header.flags() == flags &&
         frame.payload.size() == length;
}

class SendPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(0, environment.StartServer());
    ASSERT_TRUE(peer.Connect(environment.port, GetTestIdentity("client").certificate_file));
    ASSERT_TRUE(peer.Handshake());
  }

  void OpenStream(uint32_t id, uint8_t flags) {
    ASSERT_TRUE(
        peer.SendControl(SPDY_SYN_STREAM, flags, RawTlsPeer::SynStreamPayload(id, RawTlsPeer::RequestHeaders())));
  }

  // Shared with handler threads; declared before the environment, which joins
  // them, so that it outlives them.
  Latch release;
  std::atomic<int> handlers_done{0};

  RpcTestEnvironment environment;
  RawTlsPeer peer;
};

TEST_F(SendPathTest, AnswerAndEndOfStreamLeaveInOneRecord) {
  environment.server_factory.SetHandler([this](const StreamPtr& stream, const RPCConnectionHeaders&) {
    // The answer begins once the connection is idle, so that the worker sends it on
    // its own thread.
    release.Wait();
    RPCConnectionHeaders headers;
    stream->SendResponseHeaders(headers);
    stream->Write("done", 4);
    // Dropping the stream ends it: the answer's last frame and FLAG_FIN.
  });
  OpenStream(1, FLAG_FIN);
  ASSERT_TRUE(peer.Sync());
  ASSERT_TRUE(peer.kept_frames().empty());
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  release.Open();

  std::vector<uint8_t> record;
  ASSERT_TRUE(peer.ReadRecord(record));
  std::vector<RawFrame> frames = FramesOf(record);
  ASSERT_EQ(3u, frames.size());
  EXPECT_TRUE(frames[0].is_control(SPDY_SYN_REPLY));
  EXPECT_TRUE(IsData(frames[1], 1, FLAG_END_SEGMENT, 4));
  EXPECT_EQ("done", std::string(frames[1].payload.begin(), frames[1].payload.end()));
  EXPECT_TRUE(IsData(frames[2], 1, FLAG_FIN, 0));
}

TEST_F(SendPathTest, AcknowledgementOfWhatAWaitingWorkerReadLeavesOnItsOwn) {
  environment.server_factory.SetHandler([this](const StreamPtr& stream, const RPCConnectionHeaders&) {
    char request[100];
    EXPECT_TRUE(stream->Read(request, sizeof(request)));
    // The worker sends nothing for a while: its acknowledgement must not wait for it.
    release.Wait();
  });
  OpenStream(1, 0);
  ASSERT_TRUE(peer.SendData(1, FLAG_END_SEGMENT, std::vector<uint8_t>(100, 'x')));
  // Far sooner than the connection's next ping, which would take it along.
  peer.SetReadTimeout(1000);

  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrameAnsweringPings(frame));
  ASSERT_TRUE(frame.is_control(SPDY_WINDOW_UPDATE));
  EXPECT_EQ(1u, frame.word(0));
  EXPECT_EQ(100u, frame.word(1));
  release.Open();
}

TEST_F(SendPathTest, WorkersSendOnWhileThePeerReadsNothing) {
  // Sixteen streams of 1000 messages of 1 KiB each: within each stream's window,
  // and together more than the socket buffers of both ends hold while the peer
  // reads nothing, so that the send queue is full long before the workers are done.
  // The workers take turns, so that each finds the connection idle and writes on
  // its own thread for as long as the socket takes everything at once.
  const int kStreams = 16;
  const int kMessages = 1000;
  const unsigned int kMessageSize = 1024;
  std::mutex turn;
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    {
      std::lock_guard<std::mutex> lock(turn);
      const std::vector<char> message(kMessageSize, 'm');
      for (int index = 0; index < kMessages; ++index) {
        stream->Write(message.data(), kMessageSize);
        stream->Flush();
      }
    }
    ++handlers_done;
    release.Wait();
  });
  for (int index = 0; index < kStreams; ++index) OpenStream(static_cast<uint32_t>(2 * index + 1), FLAG_FIN);

  // The peer reads nothing until every worker has sent all it had.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (handlers_done.load() < kStreams && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(kStreams, handlers_done.load());

  std::map<uint32_t, int> messages;
  int total = 0;
  while (total < kStreams * kMessages) {
    RawFrame frame;
    ASSERT_TRUE(peer.ReadFrameAnsweringPings(frame));
    if (frame.header.is_control()) continue;
    ASSERT_TRUE(IsData(frame, frame.header.stream_id(), FLAG_END_SEGMENT, kMessageSize));
    ++messages[frame.header.stream_id()];
    ++total;
  }
  EXPECT_EQ(static_cast<size_t>(kStreams), messages.size());
  for (const auto& entry : messages) EXPECT_EQ(kMessages, entry.second) << "stream " << entry.first;
  release.Open();
}

}  // namespace
}  // namespace base
}  // namespace apm
