// The records of RPC 3020: golden bytes of the request, of the response with the
// empty infrastructure (23 lists of count 0 between the flags and maxid) and with a
// service desk in its list, and the refusal of lists whose elements are not decoded.
#include "protocol/rpcinfrastructure.h"

#include <gtest/gtest.h>

#include "base/famerror.h"
#include "tests/support/fakebytestream.h"

namespace apm {
namespace protocol {
namespace {

using test::Bytes;
using test::Chars;
using test::DecodeRecord;
using test::EncodeRecord;
using test::Join;

const Bytes kZeroCount = {0, 0, 0, 0};

// `count` empty lists one behind the other.
Bytes EmptyLists(int count) {
  Bytes bytes;
  for (int i = 0; i < count; ++i) bytes.insert(bytes.end(), kZeroCount.begin(), kZeroCount.end());
  return bytes;
}

const Bytes kResponseHead = Join({
    {8, 7, 6, 5, 4, 3, 2, 1},  // changeCounter
    {2, 0, 0, 0, 0, 0, 0, 0},  // generation
    {3, 0, 0, 0},              // responseFlags
});
const Bytes kMaxId = {0x2a, 0, 0, 0};

TEST(InfrastructureGetInfoRequest, IsTwoLittleEndianU64) {
  InfrastructureGetInfoRequest request;
  request.changeCounter = 0x0102030405060708ull;
  request.generation = 0x11;
  const Bytes expected = {8, 7, 6, 5, 4, 3, 2, 1, 0x11, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(EncodeRecord(request), expected);
  InfrastructureGetInfoRequest decoded;
  size_t unread = 99;
  ASSERT_TRUE(DecodeRecord(expected, decoded, 0, &unread));
  EXPECT_EQ(decoded.changeCounter, request.changeCounter);
  EXPECT_EQ(decoded.generation, 0x11u);
  EXPECT_EQ(unread, 0u);
}

TEST(InfrastructureGetInfoResponse, EmptyInfrastructureIsTwentyThreeZeroCounts) {
  InfrastructureGetInfoResponse response;
  response.changeCounter = 0x0102030405060708ull;
  response.generation = 2;
  response.responseFlags = 3;
  response.maxid = 42;
  const Bytes expected = Join({kResponseHead, EmptyLists(23), kMaxId});
  EXPECT_EQ(expected.size(), 116u);
  EXPECT_EQ(EncodeRecord(response), expected);

  InfrastructureGetInfoResponse decoded;
  size_t unread = 99;
  ASSERT_TRUE(DecodeRecord(expected, decoded, 0, &unread));
  EXPECT_EQ(unread, 0u);
  EXPECT_EQ(decoded.changeCounter, response.changeCounter);
  EXPECT_EQ(decoded.generation, 2u);
  EXPECT_EQ(decoded.responseFlags, 3u);
  EXPECT_EQ(decoded.maxid, 42u);
  EXPECT_TRUE(decoded.infrastructure.serviceDesks.empty());
}

TEST(InfrastructureGetInfoResponse, ServiceDesksAreTheSeventeenthList) {
  CISServiceDesk* desk = new CISServiceDesk;
  desk->id = 5;
  desk->name = "d";
  desk->type = "t";
  base::CRefPtr<const CISServiceDesk> held(desk);
  InfrastructureGetInfoResponse response;
  response.changeCounter = 0x0102030405060708ull;
  response.generation = 2;
  response.responseFlags = 3;
  response.maxid = 42;
  response.infrastructure.serviceDesks.push_back(held);

  const Bytes deskRecord = Join({
      {5, 0, 0, 0}, {1, 0, 0, 0}, Chars("d"),        // id, name
      {0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0},        // status, timestamp
      {0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0},        // changeServer, changeTime
      kZeroCount, kZeroCount,                        // reference, properties
      {1, 0, 0, 0}, Chars("t"), EmptyLists(8),       // type, then eight empty strings
  });
  const Bytes expected = Join({kResponseHead, EmptyLists(16), {1, 0, 0, 0}, deskRecord, EmptyLists(6), kMaxId});
  EXPECT_EQ(EncodeRecord(response), expected);

  InfrastructureGetInfoResponse decoded;
  ASSERT_TRUE(DecodeRecord(expected, decoded));
  ASSERT_EQ(decoded.infrastructure.serviceDesks.size(), 1u);
  EXPECT_EQ(decoded.infrastructure.serviceDesks[0]->id, 5u);
  EXPECT_EQ(decoded.infrastructure.serviceDesks[0]->type, "t");
  EXPECT_EQ(decoded.maxid, 42u);
}

TEST(InfrastructureGetInfoResponse, ElementsOfAnUndecodedKindFailTheRecord) {
  // One server info in the first list.
  const Bytes bytes = Join({kResponseHead, {1, 0, 0, 0}, EmptyLists(22), kMaxId});
  InfrastructureGetInfoResponse decoded;
  base::FamErrorBase record(true);
  EXPECT_FALSE(DecodeRecord(bytes, decoded));
  EXPECT_EQ(static_cast<unsigned int>(record.code), 0x80004005u);
  EXPECT_EQ(record.message, "unsupported infrastructure element list");
}

TEST(InfrastructureGetInfoResponse, CutOffListFailsTheRecord) {
  const Bytes bytes = Join({kResponseHead, EmptyLists(10)});
  InfrastructureGetInfoResponse decoded;
  EXPECT_FALSE(DecodeRecord(bytes, decoded));
}

TEST(InfrastructureGetInfoResponse, VersionChangesNothing) {
  const Bytes bytes = Join({kResponseHead, EmptyLists(23), kMaxId});
  InfrastructureGetInfoResponse atZero;
  InfrastructureGetInfoResponse atOther;
  ASSERT_TRUE(DecodeRecord(bytes, atZero, 0));
  ASSERT_TRUE(DecodeRecord(bytes, atOther, 0xf000300005fd3ul));
  EXPECT_EQ(EncodeRecord(atZero), EncodeRecord(atOther, 0xf000300005fd3ul));
}

}  // namespace
}  // namespace protocol
}  // namespace apm
