// Golden bytes of the OAuth2 token records: AuthToken, AuthTokenRequest,
// AuthTokenList and EmptyResponse.
#include "protocol/rpcauthtoken.h"

#include <gtest/gtest.h>

#include "base/rpc/rpcconnectionparameters.h"
#include "tests/support/fakebytestream.h"

namespace apm {
namespace protocol {
namespace {

using test::Bytes;
using test::Chars;
using test::DecodeRecord;
using test::EncodeRecord;
using test::Join;

AuthToken SampleToken() {
  AuthToken token;
  token.user = "ann";
  token.target = 0x01020304;
  token.tokenType = "bearer";
  token.accessToken = "code";
  token.expires = 0x1122334455667788ull;
  token.idToken = "id";
  return token;
}

const Bytes kSampleTokenBytes = Join({
    {3, 0, 0, 0}, Chars("ann"),                     // user
    {4, 3, 2, 1},                                   // target
    {6, 0, 0, 0}, Chars("bearer"),                  // tokenType
    {4, 0, 0, 0}, Chars("code"),                    // accessToken
    {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11},  // expires
    {2, 0, 0, 0}, Chars("id"),                      // idToken
});

void ExpectSampleToken(const AuthToken& token) {
  EXPECT_EQ("ann", token.user);
  EXPECT_EQ(0x01020304u, token.target);
  EXPECT_EQ("bearer", token.tokenType);
  EXPECT_EQ("code", token.accessToken);
  EXPECT_EQ(0x1122334455667788ull, token.expires);
  EXPECT_EQ("id", token.idToken);
}

TEST(AuthTokenTest, WritesStringU32StringStringU64String) {
  EXPECT_EQ(kSampleTokenBytes, EncodeRecord(SampleToken()));
}

TEST(AuthTokenTest, ReadsItsGoldenBytesExactly) {
  AuthToken token;
  size_t unread = 99;
  ASSERT_TRUE(DecodeRecord(kSampleTokenBytes, token, 0, &unread));
  ExpectSampleToken(token);
  EXPECT_EQ(0u, unread);
}

TEST(AuthTokenTest, EmptyTokenIsZeroLengthsAndZeroNumbers) {
  EXPECT_EQ(Bytes(4 + 4 + 4 + 4 + 8 + 4, 0), EncodeRecord(AuthToken()));
}

TEST(AuthTokenTest, RecordCutShortAnywhereFails) {
  for (size_t length = 0; length < kSampleTokenBytes.size(); ++length) {
    AuthToken token;
    EXPECT_FALSE(DecodeRecord(Bytes(kSampleTokenBytes.begin(), kSampleTokenBytes.begin() + length), token))
        << "length " << length;
  }
}

TEST(AuthTokenTest, StreamVersionChangesNothing) {
  EXPECT_EQ(kSampleTokenBytes, EncodeRecord(SampleToken(), base::RPC_LOCAL_VERSION));
  AuthToken token;
  ASSERT_TRUE(DecodeRecord(kSampleTokenBytes, token, base::RPC_MINIMUM_VERSION));
  ExpectSampleToken(token);
}

TEST(AuthTokenRequestTest, WritesUserTargetTokenType) {
  AuthTokenRequest request;
  request.user = "bo";
  request.target = 7;
  request.tokenType = "bearer";
  const Bytes golden = Join({{2, 0, 0, 0}, Chars("bo"), {7, 0, 0, 0}, {6, 0, 0, 0}, Chars("bearer")});
  EXPECT_EQ(golden, EncodeRecord(request));
  AuthTokenRequest read;
  size_t unread = 99;
  ASSERT_TRUE(DecodeRecord(golden, read, 0, &unread));
  EXPECT_EQ("bo", read.user);
  EXPECT_EQ(7u, read.target);
  EXPECT_EQ("bearer", read.tokenType);
  EXPECT_EQ(0u, unread);
}

TEST(AuthTokenListTest, IsCountThenTokens) {
  AuthTokenList list;
  list.push_back(SampleToken());
  list.push_back(AuthToken());
  const Bytes golden = Join({{2, 0, 0, 0}, kSampleTokenBytes, Bytes(28, 0)});
  EXPECT_EQ(golden, EncodeRecord(list));
  AuthTokenList read;
  ASSERT_TRUE(DecodeRecord(golden, read));
  ASSERT_EQ(2u, read.size());
  ExpectSampleToken(read[0]);
  EXPECT_EQ("", read[1].user);
  EXPECT_EQ(0u, read[1].expires);
}

TEST(AuthTokenListTest, EmptyListIsFourZeroBytes) {
  EXPECT_EQ(Bytes(4, 0), EncodeRecord(AuthTokenList()));
}

TEST(AuthTokenListTest, ReadingAppendsBehindWhatTheListHeld) {
  AuthTokenList list;
  list.push_back(AuthToken());
  ASSERT_TRUE(DecodeRecord(Join({{1, 0, 0, 0}, kSampleTokenBytes}), list));
  ASSERT_EQ(2u, list.size());
  ExpectSampleToken(list[1]);
}

TEST(AuthTokenListTest, TokenCutShortFailsWithTheTokenInTheList) {
  AuthTokenList list;
  const Bytes bytes = Join({{2, 0, 0, 0}, kSampleTokenBytes, {3, 0, 0, 0}});
  EXPECT_FALSE(DecodeRecord(bytes, list));
  EXPECT_EQ(2u, list.size());
}

TEST(EmptyResponseTest, HasNoBytesAndReadsNone) {
  EXPECT_TRUE(EncodeRecord(EmptyResponse()).empty());
  EmptyResponse response;
  size_t unread = 0;
  EXPECT_TRUE(DecodeRecord(Bytes{1, 2, 3}, response, 0, &unread));
  EXPECT_EQ(3u, unread);
}

}  // namespace
}  // namespace protocol
}  // namespace apm
