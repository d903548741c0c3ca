// RPCs against the real daemon binary, end to end over TLS on 127.0.0.1: what the
// main server sees on the wire for unknown numbers, short records and failed
// calls (frame by frame with a hand-written peer), a large attached file and its
// temporary copy, many calls at once on one connection, the number cut to 16 bits,
// a client that is not trusted, and the main-server simulator calling the daemon.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "base/famerror.h"
#include "base/rpc/rpcframe.h"
#include "protocol/rpcauthtoken.h"
#include "protocol/rpccloud.h"
#include "protocol/rpcservicedesk.h"
#include "tests/support/daemonpeer.h"
#include "tests/support/fakebytestream.h"
#include "tests/support/rawtlspeer.h"
#include "tests/support/runningdaemon.h"

namespace apm {
namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const char kNotImplementedCode[] = "2147500037";  // 0x80004005
const char kNotImplemented[] = "not implemented";

Bytes HttpRequestRecord() {
  protocol::RPCCloudHttpRequest request;
  request.target = 1;
  request.user = "ann";
  request.method = "PUT";
  return EncodeRecord(request);
}

Bytes AuthTokenRecord() {
  protocol::AuthToken token;
  token.user = "ann";
  token.target = 7;
  token.accessToken = "code";
  return EncodeRecord(token);
}

Bytes TestServiceDeskRecord() {
  protocol::InfrastructureTestServiceDeskRequest request;
  request.serviceDesk->type = "norvanta_servicedesk";
  request.serviceDesk->properties["oauth_target"] = "5";
  return EncodeRecord(request);
}

Bytes SendFileRecord() {
  protocol::SWTServiceDeskSendFileRequest request;
  request.id = 4;
  request.user = "ann";
  return EncodeRecord(request);
}

// The "data_*.tmp" files in the daemon's temporary folder, by name and size.
std::vector<std::pair<std::string, uint64_t>> DataFiles(const RunningDaemon& daemon) {
  std::vector<std::pair<std::string, uint64_t>> files;
  const std::string folder = daemon.root.Path(RunningDaemon::kTemporaryFolder);
  DIR* directory = opendir(folder.c_str());
  if (directory == nullptr) return files;
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name.compare(0, 5, "data_") != 0 || name.size() < 9 || name.compare(name.size() - 4, 4, ".tmp") != 0) {
      continue;
    }
    struct stat status;
    if (stat((folder + "/" + name).c_str(), &status) == 0) {
      files.emplace_back(name, static_cast<uint64_t>(status.st_size));
    }
  }
  closedir(directory);
  return files;
}

// ---------------------------------------------------------------------------
// Frames on the wire, seen by a peer written by hand.

// The frames the daemon sent on one stream, WINDOW_UPDATEs left out.
typedef std::vector<RawFrame> StreamFrames;

uint32_t StreamOf(const RawFrame& frame) {
  return frame.header.is_control() ? frame.word(0) & 0x7fffffffu : frame.header.stream_id();
}

bool EndsStream(const RawFrame& frame) {
  if (frame.is_control(base::SPDY_RST_STREAM)) return true;
  return !frame.header.is_control() && (frame.header.flags() & base::FLAG_FIN) != 0;
}

std::string Describe(const RawFrame& frame) {
  if (!frame.header.is_control()) {
    return "DATA(length " + std::to_string(frame.header.length()) + ", flags " +
           std::to_string(frame.header.flags()) + ")";
  }
  switch (frame.header.type()) {
    case base::SPDY_SYN_REPLY: {
      base::RPCConnectionHeaders headers;
      RawTlsPeer::DecodeHeaders(frame, headers);
      return "SYN_REPLY(flags " + std::to_string(frame.header.flags()) + ", " + std::to_string(headers.size()) +
             " headers)";
    }
    case base::SPDY_RST_STREAM:
      return "RST_STREAM(status " + std::to_string(frame.word(1)) + ")";
    case base::SPDY_HEADERS:
      return "HEADERS";
    default:
      return "control frame " + std::to_string(frame.header.type());
  }
}

std::string Describe(const StreamFrames& frames) {
  std::string text;
  for (const RawFrame& frame : frames) text += (text.empty() ? "" : ", ") + Describe(frame);
  return text.empty() ? "nothing" : text;
}

// A connection to the daemon at the frame level, as the main server presenting
// MainServerIdentity, with the version exchange done. Frames of streams other than
// the one being read are kept for later reads.
class RawDaemonConnection {
 public:
  explicit RawDaemonConnection(unsigned short port) {
    connected_ = peer_.Connect(port, MainServerIdentity().certificate_file) && peer_.Handshake();
  }

  bool connected() const { return connected_; }

  // Opens stream `id` with `headers`, sends `record` as one segment, `file` (if
  // given) as a second, and ends the sending side, as the project's client does.
  bool SendRequest(uint32_t id, const base::RPCConnectionHeaders& headers, const Bytes& record,
                   const Bytes* file = nullptr) {
    bool sent = peer_.SendControl(base::SPDY_SYN_STREAM, 0, RawTlsPeer::SynStreamPayload(id, headers)) &&
                peer_.SendData(id, base::FLAG_END_SEGMENT, record);
    if (file != nullptr) sent = sent && peer_.SendData(id, base::FLAG_END_SEGMENT, *file);
    return sent && peer_.SendData(id, base::FLAG_FIN, Bytes());
  }

  bool SendRequest(uint32_t id, const std::string& number, const Bytes& record, const Bytes* file = nullptr) {
    base::RPCConnectionHeaders headers;
    headers[base::RPC_HEADER_CLASS] = "1";
    headers[base::RPC_HEADER_FUNCTION] = number;
    return SendRequest(id, headers, record, file);
  }

  // The frames of stream `id` up to the one that ends it (FIN or RST_STREAM). False
  // if the connection failed or nothing ended the stream within the read time-out.
  bool ReadStream(uint32_t id, StreamFrames& frames) {
    frames = Take(id);
    if (!frames.empty() && EndsStream(frames.back())) return true;
    RawFrame frame;
    while (peer_.ReadFrameAnsweringPings(frame)) {
      if (frame.is_control(base::SPDY_WINDOW_UPDATE)) continue;
      if (StreamOf(frame) != id) {
        pending_.push_back(frame);
        continue;
      }
      frames.push_back(frame);
      if (EndsStream(frame)) return true;
    }
    return false;
  }

  // Frames for stream `id` that arrive within `window` from now, WINDOW_UPDATEs left
  // out.
  StreamFrames Linger(uint32_t id, milliseconds window) {
    peer_.SetReadTimeout(static_cast<int>(window.count()));
    RawFrame frame;
    while (peer_.ReadFrameAnsweringPings(frame)) {
      if (!frame.is_control(base::SPDY_WINDOW_UPDATE)) pending_.push_back(frame);
    }
    peer_.SetReadTimeout(5000);
    return Take(id);
  }

 private:
  StreamFrames Take(uint32_t id) {
    StreamFrames taken;
    std::vector<RawFrame> rest;
    for (const RawFrame& frame : pending_) (StreamOf(frame) == id ? taken : rest).push_back(frame);
    pending_.swap(rest);
    return taken;
  }

  RawTlsPeer peer_;
  bool connected_ = false;
  std::vector<RawFrame> pending_;
};

// The frames of a call whose function failed with "not implemented": SYN_REPLY with
// keys 3 and 4 only, an empty end-of-segment frame, an empty FIN frame.
void ExpectNotImplementedFrames(const StreamFrames& frames, const std::string& what) {
  ASSERT_EQ(frames.size(), 3u) << what << ": " << Describe(frames);
  ASSERT_TRUE(frames[0].is_control(base::SPDY_SYN_REPLY)) << what << ": " << Describe(frames);
  base::RPCConnectionHeaders headers;
  ASSERT_TRUE(RawTlsPeer::DecodeHeaders(frames[0], headers)) << what;
  base::RPCConnectionHeaders expected;
  expected[base::RPC_HEADER_ERROR_CODE] = kNotImplementedCode;
  expected[base::RPC_HEADER_ERROR_TEXT] = kNotImplemented;
  EXPECT_EQ(headers, expected) << what;
  EXPECT_FALSE(frames[1].header.is_control()) << what;
  EXPECT_EQ(frames[1].header.flags(), base::FLAG_END_SEGMENT) << what;
  EXPECT_EQ(frames[1].header.length(), 0u) << what;
  EXPECT_FALSE(frames[2].header.is_control()) << what;
  EXPECT_EQ(frames[2].header.flags(), base::FLAG_FIN) << what;
  EXPECT_EQ(frames[2].header.length(), 0u) << what;
}

void ExpectNotImplemented(const PeerReply& reply, const std::string& what) {
  ASSERT_TRUE(reply.headersReceived) << what << ": reset with status " << reply.resetStatus;
  EXPECT_EQ(reply.ErrorCode(), kNotImplementedCode) << what;
  EXPECT_EQ(reply.ErrorText(), kNotImplemented) << what;
  EXPECT_TRUE(reply.data.empty()) << what << ": no record follows an error";
  EXPECT_TRUE(reply.endedCleanly) << what;
}

// ---------------------------------------------------------------------------

// The daemon serving on a free port with ready-made identities; the main server's
// side trusted.
class DaemonRpcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    daemon.InstallTestIdentities();
    TrustAtDaemon(MainServerIdentity());
    ASSERT_TRUE(daemon.StartServing()) << daemon.process.Stdout() << daemon.process.Stderr();
  }

  void TearDown() override {
    EXPECT_EQ(daemon.Stop(), 0) << daemon.process.Stderr();
  }

  RunningDaemon daemon;
};

TEST_F(DaemonRpcTest, UnknownNumberBadNumberOrMissingNumberIsResetWithStatus3) {
  RawDaemonConnection connection(daemon.port);
  ASSERT_TRUE(connection.connected());
  uint32_t id = 1;
  for (const char* number : {"3605", "abc", "3600x", "-"}) {
    base::RPCConnectionHeaders headers;
    headers[base::RPC_HEADER_CLASS] = "1";
    if (std::string(number) != "-") headers[base::RPC_HEADER_FUNCTION] = number;
    ASSERT_TRUE(connection.SendRequest(id, headers, JsonRequestRecord()));
    StreamFrames frames;
    ASSERT_TRUE(connection.ReadStream(id, frames)) << number;
    ASSERT_EQ(frames.size(), 1u) << number << ": " << Describe(frames);
    EXPECT_TRUE(frames[0].is_control(base::SPDY_RST_STREAM)) << number;
    EXPECT_EQ(frames[0].word(1), base::SPDY_STATUS_REFUSED_STREAM) << number;
    id += 2;
  }
  // The same through the project's client.
  DaemonPeer peer(daemon.port);
  for (const char* number : {"3605", "abc"}) {
    PeerReply reply = peer.Call(number, JsonRequestRecord());
    EXPECT_FALSE(reply.headersReceived) << number;
    EXPECT_EQ(reply.resetStatus, 3) << number;
  }
}

// RPC 3600 with only the first field of its record, the u32 target.
const Bytes kOnlyTheTarget = {7, 0, 0, 0};

// Sends that short record on stream 1 of `connection` and reads what comes back on
// the stream until it ends.
void SendShortRecord(RawDaemonConnection& connection, StreamFrames& frames) {
  ASSERT_TRUE(connection.connected());
  ASSERT_TRUE(connection.SendRequest(1, "3600", kOnlyTheTarget));
  ASSERT_TRUE(connection.ReadStream(1, frames)) << Describe(frames);
}

TEST_F(DaemonRpcTest, RequestRecordEndingEarlyIsResetWithStatus5) {
  RawDaemonConnection connection(daemon.port);
  StreamFrames frames;
  ASSERT_NO_FATAL_FAILURE(SendShortRecord(connection, frames));
  ASSERT_EQ(frames.size(), 1u) << "no response headers before the reset: " << Describe(frames);
  ASSERT_TRUE(frames[0].is_control(base::SPDY_RST_STREAM)) << Describe(frames);
  EXPECT_EQ(frames[0].word(1), base::SPDY_STATUS_CANCEL);

  // The same through the project's client: a reset, no headers.
  DaemonPeer peer(daemon.port);
  Bytes shortAuthToken = AuthTokenRecord();
  shortAuthToken.resize(shortAuthToken.size() - 3);
  PeerReply reply = peer.Call("3602", shortAuthToken);
  EXPECT_FALSE(reply.headersReceived);
  EXPECT_EQ(reply.resetStatus, 5);
}

// The reset is the last frame of the stream: its end, when the handler lets go of
// it, must not send response headers behind the RST_STREAM.
TEST_F(DaemonRpcTest, NoResponseHeadersFollowTheResetOfAShortRecord) {
  RawDaemonConnection connection(daemon.port);
  StreamFrames frames;
  ASSERT_NO_FATAL_FAILURE(SendShortRecord(connection, frames));
  ASSERT_EQ(Describe(frames), "RST_STREAM(status 5)");

  // Nothing more for that stream, neither soon after nor by the time a later call on
  // the same connection has completed.
  EXPECT_EQ(Describe(connection.Linger(1, milliseconds(300))), "nothing");
  ASSERT_TRUE(connection.SendRequest(3, "3600", JsonRequestRecord()));
  StreamFrames later;
  ASSERT_TRUE(connection.ReadStream(3, later));
  ExpectNotImplementedFrames(later, "call after the reset");
  EXPECT_EQ(Describe(connection.Linger(1, milliseconds(100))), "nothing");
}

TEST_F(DaemonRpcTest, FailedCallIsSynReplyWithCodeAndTextThenEndOfSegmentAndFin) {
  RawDaemonConnection connection(daemon.port);
  ASSERT_TRUE(connection.connected());
  const Bytes file(8000, 'f');  // one data frame
  struct {
    const char* number;
    Bytes record;
    bool withFile;
  } calls[] = {{"3600", JsonRequestRecord(), false},
               {"3601", HttpRequestRecord(), true},
               {"3602", AuthTokenRecord(), false},
               {"3603", TestServiceDeskRecord(), false},
               {"3604", SendFileRecord(), true}};
  uint32_t id = 1;
  for (const auto& call : calls) {
    ASSERT_TRUE(connection.SendRequest(id, call.number, call.record, call.withFile ? &file : nullptr));
    StreamFrames frames;
    ASSERT_TRUE(connection.ReadStream(id, frames)) << call.number << ": " << Describe(frames);
    ExpectNotImplementedFrames(frames, call.number);
    id += 2;
  }
}

TEST_F(DaemonRpcTest, FiftyMegabyteFileRequestCompletesAndLeavesNoDataFile) {
  const Bytes file(50u << 20, 'x');
  std::atomic<bool> done(false);
  std::vector<uint64_t> sizesSeen;
  std::thread watcher([&] {
    while (!done) {
      for (const auto& dataFile : DataFiles(daemon)) {
        if (sizesSeen.empty() || sizesSeen.back() != dataFile.second) sizesSeen.push_back(dataFile.second);
      }
      std::this_thread::sleep_for(milliseconds(1));
    }
  });
  DaemonPeer peer(daemon.port);
  const auto start = std::chrono::steady_clock::now();
  PeerReply reply = peer.Call("3601", HttpRequestRecord(), &file);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  done = true;
  watcher.join();
  ExpectNotImplemented(reply, "3601 with 50 MiB");
  std::cout << "50 MiB request: " << std::chrono::duration_cast<milliseconds>(elapsed).count() << " ms, "
            << sizesSeen.size() << " sizes of the data file seen\n";

  EXPECT_TRUE(boost::filesystem::is_directory(daemon.root.Path(RunningDaemon::kTemporaryFolder)));
  EXPECT_TRUE(DataFiles(daemon).empty());
  // While it ran, the data file grew.
  ASSERT_GE(sizesSeen.size(), 2u);
  for (size_t i = 1; i < sizesSeen.size(); ++i) EXPECT_GT(sizesSeen[i], sizesSeen[i - 1]);
  EXPECT_LE(sizesSeen.back(), file.size());
}

TEST_F(DaemonRpcTest, TwoHundredCallsAtOnceOverOneConnectionAllComplete) {
  DaemonPeer peer(daemon.port);
  const int kCalls = 200;
  std::vector<PeerReply> replies(kCalls);
  std::vector<std::thread> threads;
  for (int i = 0; i < kCalls; ++i) {
    threads.emplace_back([&, i] {
      protocol::RPCCloudJsonRequest request;
      request.target = static_cast<uint32_t>(i);
      request.user = "user" + std::to_string(i);
      request.method = "GET";
      replies[i] = peer.Call("3600", EncodeRecord(request));
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int i = 0; i < kCalls; ++i) ExpectNotImplemented(replies[i], "call " + std::to_string(i));
}

TEST_F(DaemonRpcTest, Number69136IsCutTo16BitsAndReachesTheJsonRequest) {
  DaemonPeer peer(daemon.port);
  ExpectNotImplemented(peer.Call("69136", JsonRequestRecord()), "69136");
  // The record is read as that of 3600: one byte short of it is a short record.
  Bytes shortRecord = JsonRequestRecord();
  shortRecord.pop_back();
  PeerReply reply = peer.Call("69136", shortRecord);
  EXPECT_FALSE(reply.headersReceived);
  EXPECT_EQ(reply.resetStatus, 5);
}

TEST_F(DaemonRpcTest, ClientNotInTheTrustFileIsRefused) {
  DaemonPeer rogue(daemon.port, GetTestIdentity("rogue"));
  PeerReply refused = rogue.Call("3600", JsonRequestRecord());
  EXPECT_FALSE(refused.headersReceived);
  EXPECT_NE(refused.resetStatus, 0);
  // The daemon serves on.
  DaemonPeer trusted(daemon.port);
  ExpectNotImplemented(trusted.Call("3600", JsonRequestRecord()), "trusted client");
}

TEST_F(DaemonRpcTest, SimulatorCallsTheJsonRequestAndPrintsNotImplemented) {
  const std::string simulator = std::string(ECOMM_BINARY_DIR) + "/tools/ecomm-sim/ecomm-sim";
  ASSERT_TRUE(boost::filesystem::exists(simulator)) << "build the ecomm-sim target first";
  // A ready-made identity for the simulator; it lists itself in the daemon's trust
  // file on its own.
  const std::string certificates = daemon.root.Path("/sim-certificates");
  boost::filesystem::create_directories(certificates);
  boost::filesystem::copy_file(GetTestIdentity("simtool").certificate_file,
                               certificates + "/ecomm-sim_certificate.pem");
  DaemonProcess sim(simulator);
  ASSERT_TRUE(sim.Start({"call", "3600", "--port", std::to_string(daemon.port), "--cert-dir", certificates,
                         "--field", "target=1", "--field", "user=ann", "--field", "method=GET"}));
  ASSERT_TRUE(sim.WaitForExit(seconds(20)));
  EXPECT_EQ(sim.ExitStatus(), 1);
  EXPECT_EQ(sim.Stdout(), "");
  EXPECT_EQ(sim.Stderr(), "error 0x80004005: not implemented\n");
  EXPECT_NE(daemon.root.ReadFile(RunningDaemon::kTrustFile).find(GetTestIdentity("simtool").fingerprint),
            std::string::npos);
}

}  // namespace
}  // namespace test
}  // namespace apm
