// What the engine's stream table keeps and forgets, seen from a hand-written peer:
// which frames for a stream whose worker has gone remove its entry (and so free its
// id for a new SYN_STREAM) and which leave it in place.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/rpc/rpcconnectionparameters.h"
#include "base/rpc/rpcstreamconnection.h"
#include "tests/support/rawtlspeer.h"
#include "tests/support/rpctestenvironment.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace base {
namespace {

using test::RawFrame;
using test::RawTlsPeer;

typedef boost::shared_ptr<CLogicalConnectionStream> StreamPtr;

// The server under test, whose handlers return at once, with a raw client in front.
class StreamTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    environment.server_factory.SetHandler([](const StreamPtr&, const RPCConnectionHeaders&) {});
    ASSERT_NE(0, environment.StartServer(environment.ServerParameters()));
    ASSERT_TRUE(peer.Connect(environment.port, test::GetTestIdentity("client").certificate_file));
    ASSERT_TRUE(peer.Handshake());
  }

  void OpenStream(uint32_t id) {
    ASSERT_TRUE(peer.SendControl(SPDY_SYN_STREAM, 0, RawTlsPeer::SynStreamPayload(id, RawTlsPeer::RequestHeaders())));
  }

  // Opens stream `id` and reads the three frames of its handler's dropped stream:
  // the empty reply, the empty marked frame and the FLAG_FIN frame. Its entry then
  // stays in the table (the peer has not closed its side) with its worker gone.
  void OpenAndDropStream(uint32_t id) {
    OpenStream(id);
    RawFrame frame;
    ASSERT_TRUE(peer.ReadFrame(frame));
    ASSERT_TRUE(frame.is_control(SPDY_SYN_REPLY));
    ASSERT_TRUE(peer.ReadFrame(frame));
    ASSERT_EQ(FLAG_END_SEGMENT, frame.header.flags());
    ASSERT_TRUE(peer.ReadFrame(frame));
    ASSERT_EQ(FLAG_FIN, frame.header.flags());
    environment.server_factory.JoinHandlers();
    ASSERT_TRUE(peer.Sync());
    ASSERT_TRUE(peer.kept_frames().empty());
  }

  // The stream with `id` is opened anew: its handler's reply comes and a new stream
  // was made.
  void ExpectAccepted(uint32_t id, int streams) {
    OpenStream(id);
    RawFrame frame;
    ASSERT_TRUE(peer.ReadFrame(frame));
    EXPECT_TRUE(frame.is_control(SPDY_SYN_REPLY));
    EXPECT_EQ(id, frame.word(0));
    ASSERT_TRUE(environment.server_factory.WaitForStreams(streams, 5000));
  }

  test::RpcTestEnvironment environment;
  RawTlsPeer peer;
};

TEST_F(StreamTableTest, HeadersForAStreamWhoseWorkerHasGoneLeaveTheIdInUse) {
  OpenAndDropStream(1);
  ASSERT_TRUE(peer.SendControl(SPDY_HEADERS, 0, RawTlsPeer::StreamIdPayload(1, RPCConnectionHeaders())));
  ASSERT_TRUE(peer.Sync());
  EXPECT_TRUE(peer.kept_frames().empty());
  // The entry is still there: a new SYN_STREAM with the id is answered with
  // STREAM_IN_USE, which removes the expired entry.
  OpenStream(1);
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_RST_STREAM));
  EXPECT_EQ((std::vector<uint32_t>{1, 8}), (std::vector<uint32_t>{frame.word(0), frame.word(1)}));
  EXPECT_EQ(1, environment.server_factory.streams_created.load());
  // Now the id is free.
  ExpectAccepted(1, 2);
}

TEST_F(StreamTableTest, SynReplyForAStreamWhoseWorkerHasGoneRemovesItsEntry) {
  OpenAndDropStream(1);
  ASSERT_TRUE(peer.SendControl(SPDY_SYN_REPLY, 0, RawTlsPeer::StreamIdPayload(1, RPCConnectionHeaders())));
  ASSERT_TRUE(peer.Sync());
  EXPECT_TRUE(peer.kept_frames().empty());
  ExpectAccepted(1, 2);
}

TEST_F(StreamTableTest, DataForAStreamWhoseWorkerHasGoneRemovesItsEntry) {
  OpenAndDropStream(1);
  ASSERT_TRUE(peer.SendData(1, 0, std::vector<uint8_t>(10, 7)));
  ASSERT_TRUE(peer.Sync());
  ASSERT_EQ(1u, peer.kept_frames().size());
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_WINDOW_UPDATE));
  ExpectAccepted(1, 2);
}

TEST_F(StreamTableTest, EmptyDataFrameForAStreamWhoseWorkerHasGoneRemovesItsEntryUnacknowledged) {
  OpenAndDropStream(1);
  ASSERT_TRUE(peer.SendData(1, 0, {}));
  ASSERT_TRUE(peer.Sync());
  EXPECT_TRUE(peer.kept_frames().empty());
  ExpectAccepted(1, 2);
}

TEST_F(StreamTableTest, RstStreamForAStreamWhoseWorkerHasGoneRemovesItsEntrySilently) {
  OpenAndDropStream(1);
  ASSERT_TRUE(peer.SendControl(SPDY_RST_STREAM, 0, RawTlsPeer::Words({1, 5})));
  ASSERT_TRUE(peer.Sync());
  EXPECT_TRUE(peer.kept_frames().empty());
  ExpectAccepted(1, 2);
}

TEST_F(StreamTableTest, SynStreamWithTheTopBitSetIsKeptUnderItsWholeId) {
  // The id of a SYN_STREAM is taken whole, and the reply names it so.
  OpenStream(0x80000001u);
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_SYN_REPLY));
  EXPECT_EQ(0x80000001u, frame.word(0));
}

}  // namespace
}  // namespace base
}  // namespace apm
