// The engine against a hand-written peer: exact frames on the wire, and what the
// engine does with frames that a well-behaved peer never sends.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "base/famerror.h"
#include "base/rpc/rpcconnectionparameters.h"
#include "base/rpc/rpcspdyserverconnection.h"
#include "base/rpc/rpcstreamconnection.h"
#include "base/rpc/rpcversionexchange.h"
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

// A handler's wait until its connection is closing (the peer's GOAWAY came in).
void WaitUntilClosing(const StreamPtr& stream) {
  while (!stream->is_connection_closing()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

// A handler's answer: empty response headers and the record "done".
void AnswerDone(const StreamPtr& stream) {
  RPCConnectionHeaders headers;
  stream->SendResponseHeaders(headers);
  stream->Write("done", 4);
}

std::vector<uint8_t> Bytes(const std::string& text) { return std::vector<uint8_t>(text.begin(), text.end()); }

// The server under test with a raw client in front of it.
class RawClientTest : public ::testing::Test {
 protected:
  void Start(const RPCConnectionParameters& parameters) {
    ASSERT_NE(0, environment.StartServer(parameters));
    ASSERT_TRUE(peer.Connect(environment.port, GetTestIdentity("client").certificate_file));
  }
  void StartAndHandshake(const RPCConnectionParameters& parameters) {
    Start(parameters);
    ASSERT_TRUE(peer.Handshake());
  }
  void StartAndHandshake() { StartAndHandshake(environment.ServerParameters()); }

  void OpenStream(uint32_t id, uint8_t flags = 0, const RPCConnectionHeaders& headers = RawTlsPeer::RequestHeaders()) {
    ASSERT_TRUE(peer.SendControl(SPDY_SYN_STREAM, flags, RawTlsPeer::SynStreamPayload(id, headers)));
  }

  // Shared with handler threads; declared before the environment, which joins
  // them, so that it outlives them.
  Latch first_latch;
  Latch second_latch;
  std::atomic<int> code{-1};
  std::string text;
  std::vector<std::string> results;

  RpcTestEnvironment environment;
  RawTlsPeer peer;
};

TEST_F(RawClientTest, VersionEqualToTheMinimumIsAcceptedWithThe30ByteResponse) {
  Start(environment.ServerParameters());
  ASSERT_TRUE(peer.SendVersionRequest(RPC_MINIMUM_VERSION));
  uint8_t response[30];
  ASSERT_TRUE(peer.Read(response, sizeof(response)));
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 0, 18, 0, 0, 0, 3, 0, 0xd3, 0x5f, 0, 0, 3, 0, 0x0f, 0}),
            std::vector<uint8_t>(response, response + 22));
  EXPECT_NE(0u, unpack_version_response_data(response + 12).start_timestamp);
  EXPECT_TRUE(peer.Sync());
}

TEST_F(RawClientTest, ClientOlderThanTheMinimumGetsNoResponse) {
  Start(environment.ServerParameters());
  ASSERT_TRUE(peer.SendVersionRequest(RPC_MINIMUM_VERSION - 1));
  uint8_t byte;
  EXPECT_FALSE(peer.Read(&byte, 1));
  EXPECT_FALSE(peer.timed_out());
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
  EXPECT_EQ(0, environment.server_factory.connections_opened.load());
}

TEST_F(RawClientTest, WrongProtocolLevelOrRevisionGetsNoResponse) {
  Start(environment.ServerParameters());
  ASSERT_TRUE(peer.SendVersionRequest(RPC_LOCAL_VERSION, 3, 9));
  uint8_t byte;
  EXPECT_FALSE(peer.Read(&byte, 1));
  EXPECT_FALSE(peer.timed_out());

  RawTlsPeer second;
  ASSERT_TRUE(second.Connect(environment.port, GetTestIdentity("client").certificate_file));
  ASSERT_TRUE(second.SendVersionRequest(RPC_LOCAL_VERSION, 2, 8));
  EXPECT_FALSE(second.Read(&byte, 1));
  EXPECT_FALSE(second.timed_out());
}

TEST_F(RawClientTest, InvalidRequestHeaderEndsTheConnection) {
  Start(environment.ServerParameters());
  ASSERT_TRUE(peer.Write({2, 0, 0, 0, 24, 0, 0, 0}));
  uint8_t byte;
  EXPECT_FALSE(peer.Read(&byte, 1));
  EXPECT_FALSE(peer.timed_out());
}

TEST_F(RawClientTest, BodyLengthOutOfRangeEndsTheConnection) {
  Start(environment.ServerParameters());
  ASSERT_TRUE(peer.Write({1, 0, 0, 0, 0xff, 0x1f, 0, 0}));  // 8191 would do, 8191 + 1 not
  ASSERT_TRUE(peer.Write(std::vector<uint8_t>(100, 0)));
  RawTlsPeer second;
  ASSERT_TRUE(second.Connect(environment.port, GetTestIdentity("client").certificate_file));
  ASSERT_TRUE(second.Write({1, 0, 0, 0, 0x00, 0x20, 0, 0}));
  uint8_t byte;
  EXPECT_FALSE(second.Read(&byte, 1));
  EXPECT_FALSE(second.timed_out());
  // The first one waits for its 8191 bytes.
  peer.SetReadTimeout(200);
  EXPECT_FALSE(peer.Read(&byte, 1));
  EXPECT_TRUE(peer.timed_out());
}

TEST_F(RawClientTest, ShortRequestBodyEndsTheConnection) {
  Start(environment.ServerParameters());
  std::vector<uint8_t> request = pack_version_request(0, RPC_LOCAL_VERSION, 1);
  request[4] = 23;
  request.pop_back();
  ASSERT_TRUE(peer.Write(request));
  uint8_t byte;
  EXPECT_FALSE(peer.Read(&byte, 1));
  EXPECT_FALSE(peer.timed_out());
}

TEST_F(RawClientTest, DeniedConnectionGetsTheCodeAndTextOfTheFactory) {
  environment.server_factory.SetDenyConnections(static_cast<int>(0x80004005), "not welcome");
  Start(environment.ServerParameters());
  ASSERT_TRUE(peer.SendVersionRequest(RPC_LOCAL_VERSION, 3, 8, 77));
  uint32_t status = 0;
  std::string text;
  std::vector<uint8_t> data;
  ASSERT_TRUE(peer.ReadVersionResponse(status, text, data));
  EXPECT_EQ(0x80004005u, status);
  EXPECT_EQ("not welcome", text);
  EXPECT_TRUE(data.empty());
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
}

TEST_F(RawClientTest, SilentClientIsStoppedByTheConnectTimeout) {
  RPCConnectionParameters parameters = environment.ServerParameters();
  parameters.connect_timeout = 20;  // 200 ms
  ASSERT_NE(0, environment.StartServer(parameters));
  ASSERT_TRUE(peer.Connect(environment.port, "", false));
  auto started = std::chrono::steady_clock::now();
  EXPECT_TRUE(peer.WaitForEnd());
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(150));
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
}

TEST_F(RawClientTest, OversizedPayloadGetsRstStreamZeroStatus11AndStops) {
  StartAndHandshake();
  std::vector<uint8_t> header(8);
  pack_data_frame_header(header.data(), 1, 0, 8193);
  ASSERT_TRUE(peer.Write(header));
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_RST_STREAM));
  EXPECT_EQ(8u, frame.header.length());
  EXPECT_EQ(0u, frame.word(0));
  EXPECT_EQ(11u, frame.word(1));
  EXPECT_TRUE(peer.WaitForEnd());
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
}

TEST_F(RawClientTest, PayloadOf8192BytesIsRead) {
  environment.server_factory.SetHandler([](const StreamPtr& stream, const RPCConnectionHeaders&) {
    std::vector<uint8_t> data(8192);
    uint32_t sum = 0;
    if (stream->Read(data.data(), data.size())) {
      for (uint8_t byte : data) sum += byte;
    }
    RPCConnectionHeaders headers;
    stream->SendResponseHeaders(headers);
    stream->Write(&sum, sizeof(sum));
  });
  StartAndHandshake();
  OpenStream(1);
  ASSERT_TRUE(peer.SendData(1, FLAG_END_SEGMENT | FLAG_FIN, std::vector<uint8_t>(8192, 1)));
  RawFrame frame;
  // The buffer of 8192 bytes is acknowledged as soon as the handler has read it,
  // before it answers.
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_WINDOW_UPDATE));
  EXPECT_EQ(1u, frame.word(0));
  EXPECT_EQ(8192u, frame.word(1));
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_SYN_REPLY));
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_FALSE(frame.header.is_control());
  EXPECT_EQ(FLAG_END_SEGMENT, frame.header.flags());
  ASSERT_EQ(4u, frame.payload.size());
  uint32_t sum;
  memcpy(&sum, frame.payload.data(), 4);
  EXPECT_EQ(8192u, sum);
}

TEST_F(RawClientTest, UnknownFrameTypesAreReadAndIgnored) {
  StartAndHandshake();
  for (uint16_t type : {0, 4, 5, 10, 0x7fff}) {
    ASSERT_TRUE(peer.SendControl(type, 0xff, std::vector<uint8_t>(20, 0xab)));
  }
  EXPECT_TRUE(peer.Sync());
  EXPECT_TRUE(peer.kept_frames().empty());
}

TEST_F(RawClientTest, ZeroLengthControlFrameOfAnyTypeIsIgnored) {
  environment.server_factory.SetHandler([](const StreamPtr&, const RPCConnectionHeaders&) {});
  StartAndHandshake();
  for (uint16_t type : {SPDY_SYN_STREAM, SPDY_RST_STREAM, SPDY_PING, SPDY_GOAWAY, SPDY_WINDOW_UPDATE}) {
    ASSERT_TRUE(peer.SendControl(type, 0, {}));
  }
  EXPECT_TRUE(peer.Sync());
  EXPECT_TRUE(peer.kept_frames().empty());
  EXPECT_EQ(0, environment.server_factory.streams_created.load());
}

TEST_F(RawClientTest, VersionTwoInAControlFrameChangesNothing) {
  StartAndHandshake();
  ASSERT_TRUE(peer.SendControl(SPDY_PING, 0, RawTlsPeer::Words({7}), 2));
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_PING));
  EXPECT_EQ(7u, frame.word(0));
  // Sent frames always carry version 3.
  EXPECT_EQ(3, frame.header.version());
}

TEST_F(RawClientTest, UndecodableHeaderBlockDropsTheFrameSilently) {
  environment.server_factory.SetHandler([](const StreamPtr&, const RPCConnectionHeaders&) {});
  StartAndHandshake();
  std::vector<uint8_t> payload = RawTlsPeer::SynStreamPayload(1, RPCConnectionHeaders());
  payload.resize(10);
  std::vector<uint8_t> block = RawTlsPeer::Words({1, 2});
  block.push_back('7');
  block.push_back('x');
  std::vector<uint8_t> value = RawTlsPeer::Words({1});
  block.insert(block.end(), value.begin(), value.end());
  block.push_back('v');
  payload.insert(payload.end(), block.begin(), block.end());
  ASSERT_TRUE(peer.SendControl(SPDY_SYN_STREAM, 0, payload));
  // Too short for its fixed part.
  ASSERT_TRUE(peer.SendControl(SPDY_SYN_STREAM, 0, std::vector<uint8_t>(9, 0)));
  EXPECT_TRUE(peer.Sync());
  EXPECT_TRUE(peer.kept_frames().empty());
  EXPECT_EQ(0, environment.server_factory.streams_created.load());
  EXPECT_EQ(0, environment.server_factory.streams_refused.load());
}

TEST_F(RawClientTest, SynStreamWithoutHeaderBlockIsValid) {
  StartAndHandshake();
  ASSERT_TRUE(peer.SendControl(SPDY_SYN_STREAM, 0, {0, 0, 0, 1, 0, 0, 0, 0, 0xe0, 0}));
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  // No handler: refused.
  EXPECT_TRUE(frame.is_control(SPDY_RST_STREAM));
  EXPECT_EQ(1u, frame.word(0));
  EXPECT_EQ(3u, frame.word(1));
  EXPECT_TRUE(environment.server_factory.last_headers.empty());
}

TEST_F(RawClientTest, HeaderNameWithLeadingZerosIsTheKey) {
  environment.server_factory.SetHandler([](const StreamPtr&, const RPCConnectionHeaders&) {});
  StartAndHandshake();
  std::vector<uint8_t> payload = RawTlsPeer::SynStreamPayload(1, RPCConnectionHeaders());
  payload.resize(10);
  std::vector<uint8_t> block = RawTlsPeer::Words({1, 3});
  block.insert(block.end(), {'0', '0', '2'});
  std::vector<uint8_t> value = RawTlsPeer::Words({4});
  block.insert(block.end(), value.begin(), value.end());
  block.insert(block.end(), {'3', '6', '0', '0'});
  payload.insert(payload.end(), block.begin(), block.end());
  ASSERT_TRUE(peer.SendControl(SPDY_SYN_STREAM, 0, payload));
  ASSERT_TRUE(environment.server_factory.WaitForStreams(1, 5000));
  EXPECT_EQ("3600", environment.server_factory.last_headers[RPC_HEADER_FUNCTION]);
}

TEST_F(RawClientTest, RefusedStreamGetsRstStreamStatus3) {
  environment.server_factory.SetRefuseStreams(true);
  StartAndHandshake();
  OpenStream(1);
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_RST_STREAM));
  EXPECT_EQ(1u, frame.word(0));
  EXPECT_EQ(3u, frame.word(1));
}

TEST_F(RawClientTest, DuplicateStreamIdGetsRstStreamInUseAndTerminatesTheLocalStream) {
  Latch& done = first_latch;
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    FamError record;
    char byte;
    if (!stream->Read(&byte, 1)) {
      text = record.message;
      code = record.code;
    }
    done.Open();
  });
  StartAndHandshake();
  OpenStream(1);
  ASSERT_TRUE(environment.server_factory.WaitForStreams(1, 5000));
  OpenStream(1);
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_RST_STREAM));
  EXPECT_EQ(1u, frame.word(0));
  EXPECT_EQ(8u, frame.word(1));
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(8, code.load());
  EXPECT_EQ("stream in use", text);
  EXPECT_EQ(1, environment.server_factory.streams_created.load());
}

TEST_F(RawClientTest, SynStreamWithFinLeavesTheHandlerNothingToRead) {
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    FamError record;
    char byte;
    if (!stream->Read(&byte, 1)) {
      code = record.code;
      stream->Terminate();
    }
  });
  StartAndHandshake();
  OpenStream(1, FLAG_FIN);
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_RST_STREAM));
  EXPECT_EQ(1u, frame.word(0));
  EXPECT_EQ(5u, frame.word(1));
  environment.server_factory.JoinHandlers();
  EXPECT_EQ(0, code.load());
}

TEST_F(RawClientTest, RequestEndingEarlyIsResetWithStatus5AndNothingFollows) {
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    FamError record;
    char record_bytes[8];
    // The record needs 8 bytes and its segment ends after 3: the handler resets the
    // stream, and dropping it afterwards must not open a reply.
    if (!stream->Read(record_bytes, sizeof(record_bytes))) stream->Terminate();
  });
  StartAndHandshake();
  OpenStream(1);
  ASSERT_TRUE(peer.SendData(1, FLAG_END_SEGMENT | FLAG_FIN, Bytes("abc")));
  ASSERT_TRUE(environment.server_factory.WaitForStreams(1, 5000));
  environment.server_factory.JoinHandlers();
  ASSERT_TRUE(peer.Sync());
  // The 3 bytes consumed are acknowledged, then the reset; no reply, no data.
  ASSERT_EQ(2u, peer.kept_frames().size());
  EXPECT_TRUE(peer.kept_frames()[0].is_control(SPDY_WINDOW_UPDATE));
  EXPECT_EQ((std::vector<uint32_t>{1, 3}), (std::vector<uint32_t>{peer.kept_frames()[0].word(0), peer.kept_frames()[0].word(1)}));
  EXPECT_TRUE(peer.kept_frames()[1].is_control(SPDY_RST_STREAM));
  EXPECT_EQ((std::vector<uint32_t>{1, 5}), (std::vector<uint32_t>{peer.kept_frames()[1].word(0), peer.kept_frames()[1].word(1)}));
}

TEST_F(RawClientTest, UnidirectionalStreamSwallowsTheHandlersWrites) {
  Latch& written = first_latch;
  Latch& opened = second_latch;
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    // The handler may start before the engine has applied the flags of the
    // SYN_STREAM; it writes only once they are in force.
    opened.Wait();
    RPCConnectionHeaders headers;
    headers[RPC_HEADER_ERROR_TEXT] = "unseen";
    stream->SendResponseHeaders(headers);
    std::vector<uint8_t> data(20000, 3);
    EXPECT_TRUE(stream->Write(data.data(), static_cast<unsigned int>(data.size())));
    stream->Flush();
    written.Open();
  });
  StartAndHandshake();
  OpenStream(1, FLAG_UNIDIRECTIONAL);
  ASSERT_TRUE(peer.Sync(99));
  opened.Open();
  ASSERT_TRUE(written.Wait());
  environment.server_factory.JoinHandlers();
  ASSERT_TRUE(peer.Sync());
  // Neither the headers nor the data nor the end of the stream go out.
  EXPECT_TRUE(peer.kept_frames().empty());
}

TEST_F(RawClientTest, EndStreamOnAFreshStreamSendsReplyEmptyMarkedFrameAndFin) {
  environment.server_factory.SetHandler([](const StreamPtr&, const RPCConnectionHeaders&) {});
  StartAndHandshake();
  OpenStream(1);
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_SYN_REPLY));
  EXPECT_EQ(0u, frame.header.flags());
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 1, 0, 0, 0, 0}), frame.payload);
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_FALSE(frame.header.is_control());
  EXPECT_EQ(1u, frame.header.stream_id());
  EXPECT_EQ(FLAG_END_SEGMENT, frame.header.flags());
  EXPECT_EQ(0u, frame.header.length());
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_FALSE(frame.header.is_control());
  EXPECT_EQ(FLAG_FIN, frame.header.flags());
  EXPECT_EQ(0u, frame.header.length());
}

TEST_F(RawClientTest, DataForADroppedStreamIsStillAcknowledged) {
  environment.server_factory.SetHandler([](const StreamPtr&, const RPCConnectionHeaders&) {});
  StartAndHandshake();
  OpenStream(1);
  RawFrame frame;
  for (int index = 0; index < 3; ++index) ASSERT_TRUE(peer.ReadFrame(frame));
  environment.server_factory.JoinHandlers();
  ASSERT_TRUE(peer.SendData(1, 0, std::vector<uint8_t>(100, 9)));
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_WINDOW_UPDATE));
  EXPECT_EQ(1u, frame.word(0));
  EXPECT_EQ(100u, frame.word(1));
  // Unknown streams too, and empty frames are not acknowledged.
  ASSERT_TRUE(peer.SendData(77, 0, {}));
  ASSERT_TRUE(peer.SendData(77, 0, std::vector<uint8_t>(5, 9)));
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_WINDOW_UPDATE));
  EXPECT_EQ(77u, frame.word(0));
  EXPECT_EQ(5u, frame.word(1));
}

TEST_F(RawClientTest, ZeroLengthEndSegmentFrameEndsASegmentOfTheStream) {
  Latch& done = first_latch;
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    FamError record;
    char byte = 0;
    results.push_back(stream->Read(&byte, 1) ? "read" : "end:" + std::to_string(record.code));
    stream->NextSegment();
    results.push_back(stream->Read(&byte, 1) ? std::string(1, byte) : "end");
    done.Open();
  });
  StartAndHandshake();
  OpenStream(1);
  ASSERT_TRUE(peer.SendData(1, FLAG_END_SEGMENT, {}));
  ASSERT_TRUE(peer.SendData(1, FLAG_END_SEGMENT, Bytes("z")));
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ((std::vector<std::string>{"end:0", "z"}), results);
}

TEST_F(RawClientTest, WindowUpdateForAnUnknownStreamIsIgnored) {
  StartAndHandshake();
  ASSERT_TRUE(peer.SendControl(SPDY_WINDOW_UPDATE, 0, RawTlsPeer::Words({99, 100})));
  ASSERT_TRUE(peer.SendControl(SPDY_WINDOW_UPDATE, 0, RawTlsPeer::Words({0, 100})));
  ASSERT_TRUE(peer.SendControl(SPDY_RST_STREAM, 0, RawTlsPeer::Words({99, 5})));
  EXPECT_TRUE(peer.Sync());
  EXPECT_TRUE(peer.kept_frames().empty());
}

TEST_F(RawClientTest, PingFromThePeerIsEchoed) {
  StartAndHandshake();
  ASSERT_TRUE(peer.SendControl(SPDY_PING, 0, RawTlsPeer::Words({1})));
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_PING));
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 1}), frame.payload);
}

TEST_F(RawClientTest, AcceptingSidePingsWithEvenIdsAndStopsWithoutTheEchoOfTheLatest) {
  RPCConnectionParameters parameters = environment.ServerParameters();
  // Long enough for the echo on a slow machine; the end comes after one more.
  parameters.ping_interval = 30;  // 300 ms
  StartAndHandshake(parameters);
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  ASSERT_TRUE(frame.is_control(SPDY_PING));
  EXPECT_EQ(4u, frame.word(0));
  ASSERT_TRUE(peer.SendControl(SPDY_PING, 0, frame.payload));
  ASSERT_TRUE(peer.ReadFrame(frame));
  ASSERT_TRUE(frame.is_control(SPDY_PING));
  EXPECT_EQ(6u, frame.word(0));
  // An echo of an earlier id is taken as an echo, but not of the latest ping: the
  // connection ends.
  ASSERT_TRUE(peer.SendControl(SPDY_PING, 0, RawTlsPeer::Words({4})));
  EXPECT_TRUE(peer.WaitForEnd());
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
}

TEST_F(RawClientTest, PingsKeepTheConnectionWhileEchoed) {
  RPCConnectionParameters parameters = environment.ServerParameters();
  parameters.ping_interval = 20;  // 200 ms, long enough for the echo on a slow machine
  StartAndHandshake(parameters);
  uint32_t expected = 4;
  for (int count = 0; count < 4; ++count) {
    RawFrame frame;
    ASSERT_TRUE(peer.ReadFrame(frame));
    ASSERT_TRUE(frame.is_control(SPDY_PING));
    EXPECT_EQ(expected, frame.word(0));
    expected += 2;
    ASSERT_TRUE(peer.SendControl(SPDY_PING, 0, frame.payload));
  }
  EXPECT_EQ(0, environment.server_factory.connections_closed.load());
}

TEST_F(RawClientTest, MissingPingEchoEndsTheConnectionAfterOneInterval) {
  RPCConnectionParameters parameters = environment.ServerParameters();
  parameters.ping_interval = 10;
  StartAndHandshake(parameters);
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  ASSERT_TRUE(frame.is_control(SPDY_PING));
  EXPECT_TRUE(peer.WaitForEnd());
}

TEST_F(RawClientTest, GoawayOfFourBytesTellsStreamsButNotTheFactoryUntilTheStop) {
  Latch& closing_seen = first_latch;
  Latch& finish = second_latch;
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    WaitUntilClosing(stream);
    closing_seen.Open();
    finish.Wait();
    AnswerDone(stream);
  });
  StartAndHandshake();
  OpenStream(1);
  ASSERT_TRUE(environment.server_factory.WaitForStreams(1, 5000));
  ASSERT_TRUE(peer.SendControl(SPDY_GOAWAY, 0, RawTlsPeer::Words({0})));
  ASSERT_TRUE(closing_seen.Wait());
  RawFrame frame;
  // The engine answers with its own GOAWAY: last good stream 0, status 5.
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_GOAWAY));
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 5}), frame.payload);
  EXPECT_EQ(0, environment.server_factory.connections_closed.load());
  // New streams are ignored now.
  OpenStream(3);
  ASSERT_TRUE(peer.SendData(1, FLAG_FIN, {}));
  finish.Open();
  std::vector<RawFrame> frames;
  while (peer.ReadFrame(frame)) frames.push_back(frame);
  EXPECT_FALSE(peer.timed_out());
  ASSERT_EQ(3u, frames.size());
  EXPECT_TRUE(frames[0].is_control(SPDY_SYN_REPLY));
  EXPECT_EQ(FLAG_END_SEGMENT, frames[1].header.flags());
  EXPECT_EQ(Bytes("done"), frames[1].payload);
  EXPECT_EQ(FLAG_FIN, frames[2].header.flags());
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
  EXPECT_EQ(1, environment.server_factory.streams_created.load());
}

TEST_F(RawClientTest, ClosingConnectionStopsWhenThePeersFinEndsItsLastStream) {
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    WaitUntilClosing(stream);
    AnswerDone(stream);
  });
  StartAndHandshake();
  OpenStream(1);
  ASSERT_TRUE(environment.server_factory.WaitForStreams(1, 5000));
  ASSERT_TRUE(peer.SendControl(SPDY_GOAWAY, 0, RawTlsPeer::Words({0})));
  // This side's end of the stream is on the wire before the peer ends its own.
  RawFrame frame;
  do {
    ASSERT_TRUE(peer.ReadFrame(frame));
  } while (frame.header.is_control() || (frame.header.flags() & FLAG_FIN) == 0);
  environment.server_factory.JoinHandlers();
  ASSERT_TRUE(peer.SendData(1, FLAG_FIN, {}));
  EXPECT_TRUE(peer.WaitForEnd());
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
}

TEST_F(RawClientTest, GoawayOfEightBytesTellsTheFactoryAtOnce) {
  Latch& finish = second_latch;
  environment.server_factory.SetHandler([&](const StreamPtr&, const RPCConnectionHeaders&) { finish.Wait(); });
  StartAndHandshake();
  OpenStream(1);
  ASSERT_TRUE(environment.server_factory.WaitForStreams(1, 5000));
  ASSERT_TRUE(peer.SendControl(SPDY_GOAWAY, 0, RawTlsPeer::Words({0, 5})));
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
  finish.Open();
}

TEST_F(RawClientTest, CloseWithNoOpenStreamSendsGoawayAndStopsWhenTheQueueHasDrained) {
  StartAndHandshake();
  ASSERT_TRUE(peer.Sync());
  environment.server->close(false);
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_GOAWAY));
  EXPECT_EQ(8u, frame.header.length());
  EXPECT_TRUE(peer.WaitForEnd());
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
}

TEST_F(RawClientTest, OverlongErrorTextResetsTheStreamWithStatus6) {
  environment.server_factory.SetHandler([](const StreamPtr& stream, const RPCConnectionHeaders&) {
    RPCConnectionHeaders headers;
    headers.set<unsigned int>(RPC_HEADER_ERROR_CODE, 0x80004005u);
    headers[RPC_HEADER_ERROR_TEXT] = std::string(8180, 'e');
    stream->SendResponseHeaders(headers);
  });
  StartAndHandshake();
  OpenStream(1);
  RawFrame frame;
  ASSERT_TRUE(peer.ReadFrame(frame));
  EXPECT_TRUE(frame.is_control(SPDY_RST_STREAM));
  EXPECT_EQ(1u, frame.word(0));
  EXPECT_EQ(6u, frame.word(1));
}

TEST_F(RawClientTest, RstStreamFromThePeerResetsTheLocalStream) {
  Latch& done = first_latch;
  environment.server_factory.SetHandler([&](const StreamPtr& stream, const RPCConnectionHeaders&) {
    FamError record;
    char byte;
    if (!stream->Read(&byte, 1)) {
      text = record.message;
      code = record.code;
    }
    done.Open();
  });
  StartAndHandshake();
  OpenStream(1);
  ASSERT_TRUE(environment.server_factory.WaitForStreams(1, 5000));
  ASSERT_TRUE(peer.SendControl(SPDY_RST_STREAM, 0, RawTlsPeer::Words({1, 3})));
  ASSERT_TRUE(done.Wait());
  EXPECT_EQ(3, code.load());
  EXPECT_EQ("reset", text);
}

TEST_F(RawClientTest, UntrustedClientCertificateFailsTheHandshake) {
  ASSERT_NE(0, environment.StartServer());
  EXPECT_FALSE(peer.Connect(environment.port, GetTestIdentity("rogue").certificate_file) && peer.Handshake());
  EXPECT_EQ(0, environment.server_factory.connections_opened.load());
  EXPECT_TRUE(environment.server_factory.WaitForClosed(1, 5000));
}

TEST_F(RawClientTest, ClientWithoutCertificateFailsTheHandshake) {
  ASSERT_NE(0, environment.StartServer());
  EXPECT_FALSE(peer.Connect(environment.port, "") && peer.Handshake());
  EXPECT_EQ(0, environment.server_factory.connections_opened.load());
}

// The connecting side under test with a raw server behind it.
class RawServerTest : public ::testing::Test {
 protected:
  void SetUp() override { port = peer.Listen(); }

  // Runs `serve` on a thread of its own with the raw server, then closes it (which
  // lets a connection under test finish its TLS shutdown); joined at the latest by
  // TearDown, after the environment has stopped its connections.
  void Serve(const std::function<void(RawTlsPeer&)>& serve) {
    server_thread = std::thread([this, serve]() {
      serve(peer);
      peer.Close();
    });
  }
  void TearDown() override {
    environment.Shutdown();
    if (server_thread.joinable()) server_thread.join();
  }

  // Accepts, reads the request and answers positively with `version`.
  static bool AcceptAndAnswer(RawTlsPeer& peer, uint64_t version = RPC_LOCAL_VERSION) {
    std::vector<uint8_t> request;
    return peer.Accept(GetTestIdentity("server").certificate_file) && peer.ReadVersionRequest(request) &&
           peer.Write(pack_version_response(version, 42));
  }

  RpcTestEnvironment environment;
  RawTlsPeer peer;
  unsigned short port = 0;
  // What the raw server saw.
  std::vector<uint8_t> request;
  RawFrame syn;
  RawFrame answer;
  std::thread server_thread;
};

TEST_F(RawServerTest, RequestOfTheConnectingSideIsThe32ByteMessage) {
  Serve([&](RawTlsPeer& raw) {
    if (raw.Accept(GetTestIdentity("server").certificate_file) && raw.ReadVersionRequest(request)) {
      raw.Write(pack_version_response(RPC_LOCAL_VERSION, 42));
      raw.WaitForEnd();
    }
  });
  RPCConnectionParameters parameters = environment.ClientParameters(port);
  parameters.connection_id = 0x01020304;
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  EXPECT_EQ(42u, connection->get_start_timestamp());
  EXPECT_EQ(0x01020304u, connection->get_connection_id());
  stream.reset();
  connection->close(true);
  server_thread.join();
  ASSERT_EQ(32u, request.size());
  EXPECT_EQ((std::vector<uint8_t>{1, 0, 0, 0, 24, 0, 0, 0, 3, 0, 8, 0, 4, 3, 2, 1, 0xd3, 0x5f, 0, 0, 3, 0, 0x0f, 0}),
            std::vector<uint8_t>(request.begin(), request.begin() + 24));
  uint64_t timestamp = unpack_version_request_body(request.data() + 8).start_timestamp;
  EXPECT_GT(timestamp, 116444736000000000ull);
}

TEST_F(RawServerTest, SynReplyOfExactlyFourBytesGivesAnEmptyHeaderSet) {
  Serve([&](RawTlsPeer& raw) {
    if (AcceptAndAnswer(raw) && raw.ReadFrame(syn)) {
      raw.SendControl(SPDY_SYN_REPLY, 0, RawTlsPeer::Words({syn.word(0)}));
      raw.SendData(syn.word(0), FLAG_END_SEGMENT | FLAG_FIN, Bytes("ok"));
      raw.WaitForEnd();
    }
  });
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(environment.ClientParameters(port));
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream) << record.message;
  stream->SendRequestHeaders(1, 3020);
  RPCConnectionHeaders headers;
  headers[9] = "stale";
  ASSERT_TRUE(stream->ReadResponseHeaders(headers));
  EXPECT_TRUE(headers.empty());
  char answer[2];
  ASSERT_TRUE(stream->Read(answer, 2));
  EXPECT_EQ("ok", std::string(answer, 2));
  stream.reset();
  connection->close(true);
  server_thread.join();
  // The first stream of a connecting side is 1, with priority 7 and keys 1 and 2.
  EXPECT_TRUE(syn.is_control(SPDY_SYN_STREAM));
  EXPECT_EQ(1u, syn.word(0));
  EXPECT_EQ(0u, syn.word(1));
  EXPECT_EQ(0xe0, syn.payload[8]);
  EXPECT_EQ(0x00, syn.payload[9]);
}

TEST_F(RawServerTest, RstStreamFromTheServerFailsTheCallWithItsStatusAndReset) {
  Serve([&](RawTlsPeer& raw) {
    if (AcceptAndAnswer(raw) && raw.ReadFrame(syn)) {
      raw.SendControl(SPDY_RST_STREAM, 0, RawTlsPeer::Words({syn.word(0), 3}));
      raw.WaitForEnd();
    }
  });
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(environment.ClientParameters(port));
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  ASSERT_TRUE(stream);
  stream->SendRequestHeaders(1, 3321);
  RPCConnectionHeaders headers;
  EXPECT_FALSE(stream->ReadResponseHeaders(headers));
  EXPECT_EQ(3, record.code);
  EXPECT_EQ("reset", record.message);
  stream.reset();
  connection->close(true);
}

TEST_F(RawServerTest, StreamOpenedByTheServerIsRefusedByTheClientFactory) {
  Serve([&](RawTlsPeer& raw) {
    if (AcceptAndAnswer(raw)) {
      raw.SendControl(SPDY_SYN_STREAM, 0, RawTlsPeer::SynStreamPayload(2, RawTlsPeer::RequestHeaders()));
      raw.ReadFrame(answer);
      raw.WaitForEnd();
    }
  });
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(environment.ClientParameters(port));
  environment.client_factory.SetRefuseStreams(true);
  ASSERT_TRUE(environment.client_factory.WaitForStreams(1, 5000));
  connection->close(true);
  server_thread.join();
  EXPECT_TRUE(answer.is_control(SPDY_RST_STREAM));
  EXPECT_EQ(2u, answer.word(0));
  EXPECT_EQ(3u, answer.word(1));
}

TEST_F(RawServerTest, DenialIsReportedInThePeersOwnWords) {
  Serve([&](RawTlsPeer& raw) {
    if (raw.Accept(GetTestIdentity("server").certificate_file) && raw.ReadVersionRequest(request)) {
      raw.Write(pack_version_denial(0x80004005u, "go away"));
      raw.WaitForEnd();
    }
  });
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(environment.ClientParameters(port));
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(static_cast<int>(0x80004005), record.code);
  EXPECT_EQ("go away", record.message);
  EXPECT_TRUE(connection->is_stopped());
}

TEST_F(RawServerTest, DenialWithAnEmptyTextIsAnInvalidResponse) {
  Serve([&](RawTlsPeer& raw) {
    if (raw.Accept(GetTestIdentity("server").certificate_file) && raw.ReadVersionRequest(request)) {
      raw.Write(pack_version_denial(0x80004005u, ""));
      raw.WaitForEnd();
    }
  });
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(environment.ClientParameters(port));
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(static_cast<int>(0x80004005), record.code);
  EXPECT_EQ("invalid initial rpc handshake response", record.message);
}

TEST_F(RawServerTest, ShortResponseDataIsInvalid) {
  Serve([&](RawTlsPeer& raw) {
    if (raw.Accept(GetTestIdentity("server").certificate_file) && raw.ReadVersionRequest(request)) {
      raw.Write({0, 0, 0, 0, 0, 0, 0, 0, 17, 0, 0, 0});
      raw.Write(std::vector<uint8_t>(17, 0));
      raw.WaitForEnd();
    }
  });
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(environment.ClientParameters(port));
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ("invalid initial rpc handshake response data", record.message);
}

TEST_F(RawServerTest, RemoteVersionBelowTheMinimumIsIncompatible) {
  Serve([&](RawTlsPeer& raw) {
    if (AcceptAndAnswer(raw, RPC_MINIMUM_VERSION - 1)) raw.WaitForEnd();
  });
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(environment.ClientParameters(port));
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(static_cast<int>(0x80004005), record.code);
  EXPECT_EQ("remote rpc version is incompatible", record.message);
}

TEST_F(RawServerTest, RemoteVersionEqualToTheMinimumIsAccepted) {
  Serve([&](RawTlsPeer& raw) {
    if (AcceptAndAnswer(raw, RPC_MINIMUM_VERSION)) raw.WaitForEnd();
  });
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(environment.ClientParameters(port));
  FamError record;
  StreamPtr stream = CLogicalConnectionStream::create(connection);
  EXPECT_TRUE(stream) << record.message;
  EXPECT_EQ(RPC_MINIMUM_VERSION, connection->get_version());
  stream.reset();
  connection->close(true);
}

TEST_F(RawServerTest, ServerSilentInTheVersionExchangeRunsIntoTheTimeout) {
  Serve([&](RawTlsPeer& raw) {
    if (raw.Accept(GetTestIdentity("server").certificate_file) && raw.ReadVersionRequest(request)) {
      raw.WaitForEnd();
    }
  });
  // Room for connecting and TLS on a slow machine: only the version exchange
  // may be what the time-out cuts off.
  RPCConnectionParameters parameters = environment.ClientParameters(port);
  parameters.connect_timeout = 100;  // 1 s
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_EQ(0u, record.message.find("could not receive initial rpc handshake (")) << record.message;
}

TEST_F(RawServerTest, ServerWithoutTlsRunsIntoTheTimeout) {
  Serve([&](RawTlsPeer& raw) {
    if (raw.Accept("", false)) raw.WaitForEnd();
  });
  // Room for the TCP connect on a slow machine: only TLS may be what the time-out
  // cuts off.
  RPCConnectionParameters parameters = environment.ClientParameters(port);
  parameters.connect_timeout = 50;  // 500 ms
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  FamError record;
  auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(CLogicalConnectionStream::create(connection));
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(450));
  EXPECT_EQ(0u, record.message.find("cannot establish secure connection (")) << record.message;
}

TEST_F(RawServerTest, CloseDuringTheTlsHandshakeEndsTheConnectionWithoutAnyTimer) {
  Latch hello;
  Serve([&](RawTlsPeer& raw) {
    // TCP only: the first byte of the client's TLS hello shows that the connection
    // under test is in its handshake, which is never answered.
    uint8_t first = 0;
    if (raw.Accept("", false) && raw.Read(&first, 1)) {
      hello.Open();
      raw.WaitForEnd();
    }
  });
  RPCConnectionParameters parameters = environment.ClientParameters(port);
  parameters.connect_timeout = 0;
  parameters.ping_interval = 0;
  boost::shared_ptr<IPhysicalConnection> connection = environment.Connect(parameters);
  ASSERT_TRUE(hello.Wait());
  connection->close(false);
  // The wait for the outcome and the service's shutdown run on a thread of their
  // own; should they hang, a forced close releases them so that the test ends.
  Latch finished;
  bool created = true;
  std::string message;
  std::thread caller([&]() {
    FamError record;
    created = static_cast<bool>(CLogicalConnectionStream::create(connection));
    message = record.message;
    environment.client_service->shutdown();
    finished.Open();
  });
  const bool ended = finished.Wait(5000);
  if (!ended) connection->close(true);
  caller.join();
  EXPECT_TRUE(ended);
  EXPECT_FALSE(created);
  EXPECT_EQ(0u, message.find("cannot establish secure connection (")) << message;
  EXPECT_TRUE(connection->is_stopped());
}

}  // namespace
}  // namespace base
}  // namespace apm
