// Golden bytes of the cloud request records of RPCs 3600 and 3601 and their
// response.
#include "protocol/rpccloud.h"

#include <gtest/gtest.h>

#include "tests/support/fakebytestream.h"

namespace apm {
namespace protocol {
namespace {

using test::Bytes;
using test::Chars;
using test::DecodeRecord;
using test::EncodeRecord;
using test::Join;

const Bytes kJsonRequestBytes = Join({
    {0x2a, 0, 0, 0},                        // target 42
    {3, 0, 0, 0}, Chars("ann"),             // user
    {6, 0, 0, 0}, Chars("api/v1"),          // path
    {4, 0, 0, 0}, Chars("POST"),            // method
    {16, 0, 0, 0}, Chars("application/json"),  // contentType
    {2, 0, 0, 0}, Chars("{}"),              // body
});

TEST(RPCCloudJsonRequestTest, WritesU32ThenFiveStrings) {
  RPCCloudJsonRequest request;
  request.target = 42;
  request.user = "ann";
  request.path = "api/v1";
  request.method = "POST";
  request.contentType = "application/json";
  request.body = "{}";
  EXPECT_EQ(kJsonRequestBytes, EncodeRecord(request));
}

TEST(RPCCloudJsonRequestTest, ReadsItsGoldenBytesExactly) {
  RPCCloudJsonRequest request;
  size_t unread = 99;
  ASSERT_TRUE(DecodeRecord(kJsonRequestBytes, request, 0, &unread));
  EXPECT_EQ(42u, request.target);
  EXPECT_EQ("ann", request.user);
  EXPECT_EQ("api/v1", request.path);
  EXPECT_EQ("POST", request.method);
  EXPECT_EQ("application/json", request.contentType);
  EXPECT_EQ("{}", request.body);
  EXPECT_EQ(0u, unread);
}

TEST(RPCCloudJsonRequestTest, RecordCutShortAnywhereFails) {
  for (size_t length = 0; length < kJsonRequestBytes.size(); ++length) {
    RPCCloudJsonRequest request;
    EXPECT_FALSE(DecodeRecord(Bytes(kJsonRequestBytes.begin(), kJsonRequestBytes.begin() + length), request))
        << "length " << length;
  }
}

TEST(RPCCloudHttpRequestTest, WritesU32ThenFourStringsAndNoBody) {
  RPCCloudHttpRequest request;
  request.target = 42;
  request.user = "ann";
  request.path = "api/v1";
  request.method = "POST";
  request.contentType = "application/json";
  const Bytes golden(kJsonRequestBytes.begin(), kJsonRequestBytes.end() - 6);
  EXPECT_EQ(golden, EncodeRecord(request));
  RPCCloudHttpRequest read;
  size_t unread = 99;
  ASSERT_TRUE(DecodeRecord(kJsonRequestBytes, read, 0, &unread));
  EXPECT_EQ("application/json", read.contentType);
  EXPECT_EQ(6u, unread) << "the body field is not part of this record";
}

TEST(RPCCloudJsonResponseTest, WritesU32ThenThreeStrings) {
  RPCCloudJsonResponse response;
  response.status = 500;
  response.statusText = "Internal Server Error";
  response.contentType = "";
  response.body = "oops";
  const Bytes golden = Join({{0xf4, 0x01, 0, 0},
                             {21, 0, 0, 0}, Chars("Internal Server Error"),
                             {0, 0, 0, 0},
                             {4, 0, 0, 0}, Chars("oops")});
  EXPECT_EQ(golden, EncodeRecord(response));
  RPCCloudJsonResponse read;
  ASSERT_TRUE(DecodeRecord(golden, read));
  EXPECT_EQ(500u, read.status);
  EXPECT_EQ("Internal Server Error", read.statusText);
  EXPECT_EQ("", read.contentType);
  EXPECT_EQ("oops", read.body);
}

TEST(RPCCloudJsonResponseTest, RecordCutShortFails) {
  RPCCloudJsonResponse response;
  EXPECT_FALSE(DecodeRecord(Bytes{200, 0, 0, 0, 2, 0, 0, 0, 'O'}, response));
}

}  // namespace
}  // namespace protocol
}  // namespace apm
