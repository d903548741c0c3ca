// Golden bytes of the service-desk records of RPCs 3603 and 3604.
#include "protocol/rpcservicedesk.h"

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

TEST(SWTServiceDeskSendFileRequestTest, WritesIdThenUser) {
  SWTServiceDeskSendFileRequest request;
  request.id = 0x0a0b;
  request.user = "ann";
  const Bytes golden = Join({{0x0b, 0x0a, 0, 0}, {3, 0, 0, 0}, Chars("ann")});
  EXPECT_EQ(golden, EncodeRecord(request));
  SWTServiceDeskSendFileRequest read;
  size_t unread = 99;
  ASSERT_TRUE(DecodeRecord(golden, read, 0, &unread));
  EXPECT_EQ(0x0a0bu, read.id);
  EXPECT_EQ("ann", read.user);
  EXPECT_EQ(0u, unread);
  EXPECT_FALSE(DecodeRecord(Bytes(golden.begin(), golden.end() - 1), read));
}

TEST(SWTServiceDeskSendResponseTest, IsTheLinkAlone) {
  SWTServiceDeskSendResponse response;
  response.link = "https://desk/t/1";
  const Bytes golden = Join({{16, 0, 0, 0}, Chars("https://desk/t/1")});
  EXPECT_EQ(golden, EncodeRecord(response));
  SWTServiceDeskSendResponse read;
  ASSERT_TRUE(DecodeRecord(golden, read));
  EXPECT_EQ("https://desk/t/1", read.link);
  EXPECT_EQ(Bytes(4, 0), EncodeRecord(SWTServiceDeskSendResponse()));
}

TEST(InfrastructureTestResponseTest, WritesStatusThenMessage) {
  InfrastructureTestResponse response;
  response.status = 0;
  response.message = "WSDL successfully validated.";
  const Bytes golden = Join({{0, 0, 0, 0}, {28, 0, 0, 0}, Chars("WSDL successfully validated.")});
  EXPECT_EQ(golden, EncodeRecord(response));
  InfrastructureTestResponse read;
  read.status = 5;
  ASSERT_TRUE(DecodeRecord(golden, read));
  EXPECT_EQ(0u, read.status);
  EXPECT_EQ("WSDL successfully validated.", read.message);
}

// One whole service desk element record: the header with one property, then the
// nine strings.
const Bytes kServiceDeskBytes = Join({
    {9, 0, 0, 0},                                   // id
    {4, 0, 0, 0}, Chars("Desk"),                    // name
    {0, 0, 0, 0},                                   // status
    {1, 0, 0, 0, 0, 0, 0, 0},                       // timestamp
    {2, 0, 0, 0},                                   // changeServer
    {3, 0, 0, 0, 0, 0, 0, 0},                       // changeTime
    {0, 0, 0, 0},                                   // reference
    {1, 0, 0, 0}, {12, 0, 0, 0}, Chars("oauth_target"), {1, 0, 0, 0}, Chars("5"),  // properties
    {20, 0, 0, 0}, Chars("norvanta_servicedesk"),   // type
    {8, 0, 0, 0}, Chars("http://w"),                // url
    {5, 0, 0, 0}, Chars("basic"),                   // authtype
    {1, 0, 0, 0}, Chars("u"),                       // username
    {1, 0, 0, 0}, Chars("p"),                       // password
    {0, 0, 0, 0},                                   // certificate
    {1, 0, 0, 0}, Chars("x"),                       // proxyServer
    {0, 0, 0, 0},                                   // proxyUsername
    {2, 0, 0, 0}, Chars("pp"),                      // proxyPassword
});

TEST(InfrastructureTestServiceDeskRequestTest, CarriesOneWholeServiceDeskRecord) {
  InfrastructureTestServiceDeskRequest request;
  size_t unread = 99;
  ASSERT_TRUE(DecodeRecord(kServiceDeskBytes, request, 0, &unread));
  EXPECT_EQ(0u, unread);
  const CISServiceDesk& desk = *request.serviceDesk;
  EXPECT_EQ(9u, desk.id);
  EXPECT_EQ("Desk", desk.name);
  EXPECT_EQ(1u, desk.timestamp);
  EXPECT_EQ(2u, desk.changeServer);
  EXPECT_EQ(3u, desk.changeTime);
  EXPECT_EQ("5", desk.properties.at("oauth_target"));
  EXPECT_EQ("norvanta_servicedesk", desk.type);
  EXPECT_EQ("http://w", desk.url);
  EXPECT_EQ("basic", desk.authtype);
  EXPECT_EQ("u", desk.username);
  EXPECT_EQ("p", desk.password);
  EXPECT_EQ("", desk.certificate);
  EXPECT_EQ("x", desk.proxyServer);
  EXPECT_EQ("", desk.proxyUsername);
  EXPECT_EQ("pp", desk.proxyPassword);
  EXPECT_EQ(kServiceDeskBytes, EncodeRecord(request));
}

TEST(InfrastructureTestServiceDeskRequestTest, RecordCutShortAnywhereFails) {
  for (size_t length = 0; length < kServiceDeskBytes.size(); ++length) {
    InfrastructureTestServiceDeskRequest request;
    EXPECT_FALSE(DecodeRecord(Bytes(kServiceDeskBytes.begin(), kServiceDeskBytes.begin() + length), request))
        << "length " << length;
  }
}

TEST(InfrastructureTestServiceDeskRequestTest, FreshRequestHoldsAnEmptyDesk) {
  InfrastructureTestServiceDeskRequest request;
  ASSERT_TRUE(request.serviceDesk);
  EXPECT_EQ(0u, request.serviceDesk->id);
  EXPECT_EQ("ServiceDesk", request.serviceDesk->GetClassName());
}

}  // namespace
}  // namespace protocol
}  // namespace apm
