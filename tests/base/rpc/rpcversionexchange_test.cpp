// Golden bytes of the version exchange: little-endian throughout, apart from the
// big-endian length of the error text.
#include "base/rpc/rpcversionexchange.h"

#include <gtest/gtest.h>

#include "base/rpc/rpcconnectionparameters.h"

namespace apm {
namespace base {
namespace {

TEST(VersionExchange, RequestIsThe32ByteLittleEndianMessage) {
  std::vector<uint8_t> request = pack_version_request(0x11223344, RPC_LOCAL_VERSION, 0x0102030405060708ull);
  const std::vector<uint8_t> golden = {0x01, 0x00, 0x00, 0x00, 0x18, 0x00, 0x00, 0x00,  // type, reserved, 24
                                       0x03, 0x00, 0x08, 0x00,                          // level 3, revision 8
                                       0x44, 0x33, 0x22, 0x11,                          // connection id
                                       0xd3, 0x5f, 0x00, 0x00, 0x03, 0x00, 0x0f, 0x00,  // 15.3.0.24531
                                       0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
  EXPECT_EQ(golden, request);
  VersionRequestHeader header = unpack_version_request_header(request.data());
  EXPECT_EQ(1, header.type);
  EXPECT_EQ(0, header.reserved);
  EXPECT_EQ(24u, header.body_length);
  VersionRequestBody body = unpack_version_request_body(request.data() + 8);
  EXPECT_EQ(3, body.protocol_level);
  EXPECT_EQ(8, body.protocol_revision);
  EXPECT_EQ(0x11223344u, body.connection_id);
  EXPECT_EQ(RPC_LOCAL_VERSION, body.version);
  EXPECT_EQ(0x0102030405060708ull, body.start_timestamp);
}

TEST(VersionExchange, PositiveResponseIsThe30ByteMessage) {
  std::vector<uint8_t> response = pack_version_response(RPC_LOCAL_VERSION, 0x1112131415161718ull);
  const std::vector<uint8_t> golden = {0x00, 0x00, 0x00, 0x00,  // status
                                       0x00, 0x00, 0x00, 0x00,  // text length
                                       0x12, 0x00, 0x00, 0x00,  // data length 18
                                       0x03, 0x00,              // level
                                       0xd3, 0x5f, 0x00, 0x00, 0x03, 0x00, 0x0f, 0x00,
                                       0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11};
  EXPECT_EQ(golden, response);
  VersionResponseHead head = unpack_version_response_head(response.data());
  EXPECT_EQ(0u, head.status);
  EXPECT_EQ(0u, head.text_length);
  EXPECT_EQ(18u, unpack_version_response_data_length(response.data() + 8));
  VersionResponseData data = unpack_version_response_data(response.data() + 12);
  EXPECT_EQ(RPC_LOCAL_VERSION, data.version);
  EXPECT_EQ(0x1112131415161718ull, data.start_timestamp);
}

TEST(VersionExchange, DenialCarriesABigEndianTextLength) {
  std::vector<uint8_t> denial = pack_version_denial(0x80004005u, "no");
  const std::vector<uint8_t> golden = {0x05, 0x40, 0x00, 0x80, 0x00, 0x00, 0x00, 0x02,
                                       'n',  'o',  0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(golden, denial);
  VersionResponseHead head = unpack_version_response_head(denial.data());
  EXPECT_EQ(0x80004005u, head.status);
  EXPECT_EQ(2u, head.text_length);
}

TEST(VersionExchange, DenialWithEmptyText) {
  EXPECT_EQ((std::vector<uint8_t>{7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), pack_version_denial(7, ""));
}

TEST(VersionExchange, DenialWithATextTooLongLeavesOutLengthAndText) {
  EXPECT_EQ((std::vector<uint8_t>{9, 0, 0, 0, 0, 0, 0, 0}), pack_version_denial(9, std::string(8185, 'x')));
  EXPECT_EQ(8u + 8184u + 4u, pack_version_denial(9, std::string(8184, 'x')).size());
}

TEST(VersionExchange, VersionConstantsAreTheFourFieldNumbers) {
  // major 15, minor 3, 0, build 24531; the lowest accepted is 15.2.0.22542.
  EXPECT_EQ((15ull << 48) | (3ull << 32) | 24531ull, RPC_LOCAL_VERSION);
  EXPECT_EQ((15ull << 48) | (2ull << 32) | 22542ull, RPC_MINIMUM_VERSION);
}

}  // namespace
}  // namespace base
}  // namespace apm
