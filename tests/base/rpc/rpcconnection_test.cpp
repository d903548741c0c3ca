// Two-sided tests of the RPC engine over real TLS on 127.0.0.1: connecting,
// request and response streams, flow control, failures of the peer, peer
// verification, version checks and the orderly close.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "base/famerror.h"
#include "base/rpc/rpcstreamconnection.h"
#include "tests/support/rpctestenvironment.h"
#include "tests/support/testcertificates.h"

namespace apm {
namespace base {
namespace {

using test::GetTestIdentity;
using test::RpcTestEnvironment;

typedef boost::shared_ptr<CLogicalConnectionStream> StreamPtr;

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

class RpcConnectionTest : public ::testing::Test {
 protected:
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

}  // namespace
}  // namespace base
}  // namespace apm
