// Golden bytes and edge cases of the frame codec: frame headers, the fixed parts of
// the control frames and the header block.
#include "base/rpc/rpcframe.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace apm {
namespace base {
namespace {

struct BufferDeleter {
  void operator()(CNetworkBuffer* buffer) const { CNetworkBuffer::Free(buffer); }
};
typedef std::unique_ptr<CNetworkBuffer, BufferDeleter> BufferPtr;

BufferPtr NewBuffer() { return BufferPtr(CNetworkBuffer::Allocate()); }

BufferPtr BufferOf(const std::vector<uint8_t>& bytes) {
  BufferPtr buffer = NewBuffer();
  std::copy(bytes.begin(), bytes.end(), buffer->data);
  buffer->length = bytes.size();
  return buffer;
}

std::vector<uint8_t> Bytes(const CNetworkBuffer* buffer) {
  return std::vector<uint8_t>(buffer->data, buffer->data + buffer->length);
}

// Big-endian helpers for hand-built header blocks.
void Put32(std::vector<uint8_t>& out, uint32_t value) {
  out.push_back(static_cast<uint8_t>(value >> 24));
  out.push_back(static_cast<uint8_t>(value >> 16));
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

void PutPair(std::vector<uint8_t>& out, const std::string& name, const std::string& value) {
  Put32(out, static_cast<uint32_t>(name.size()));
  out.insert(out.end(), name.begin(), name.end());
  Put32(out, static_cast<uint32_t>(value.size()));
  out.insert(out.end(), value.begin(), value.end());
}

TEST(NetworkBuffer, IsAllocatedWholeWithLengthZeroAndCounted) {
  CStaticCounterObject& counter = CNetworkBuffer::Counter();
  EXPECT_STREQ("CNetworkBuffer", counter.name());
  EXPECT_EQ(8200u, counter.size());
  uint32_t allocations = counter.allocations();
  uint32_t frees = counter.frees();
  CNetworkBuffer* buffer = CNetworkBuffer::Allocate();
  EXPECT_EQ(0u, buffer->length);
  EXPECT_EQ(allocations + 1, counter.allocations());
  CNetworkBuffer::Free(buffer);
  CNetworkBuffer::Free(nullptr);
  EXPECT_EQ(frees + 1, counter.frees());
}

TEST(FrameCodec, SynStreamWithClassAndFunctionIsTheGolden45Bytes) {
  BufferPtr payload = NewBuffer();
  pack_syn_stream(payload.get(), 1, 0, SPDY_DEFAULT_PRIORITY);
  RPCConnectionHeaders headers;
  headers.set<unsigned int>(RPC_HEADER_CLASS, 1);
  headers.set<unsigned int>(RPC_HEADER_FUNCTION, 3600);
  ASSERT_TRUE(encode_headers(payload.get(), headers));
  uint8_t header[8];
  pack_control_frame_header(header, SPDY_SYN_STREAM, 0, payload->length);
  std::vector<uint8_t> frame(header, header + 8);
  std::vector<uint8_t> body = Bytes(payload.get());
  frame.insert(frame.end(), body.begin(), body.end());
  const std::vector<uint8_t> golden = {
      0x80, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0x25, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,
      0x00, 0xE0, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x31, 0x00, 0x00, 0x00,
      0x01, 0x31, 0x00, 0x00, 0x00, 0x01, 0x32, 0x00, 0x00, 0x00, 0x04, 0x33, 0x36, 0x30, 0x30};
  EXPECT_EQ(golden, frame);
}

TEST(FrameCodec, ControlHeaderCarriesVersionTypeFlagsAndLowLengthBits) {
  uint8_t header[8];
  pack_control_frame_header(header, SPDY_RST_STREAM, FLAG_FIN, 0x1000008);
  EXPECT_EQ((std::vector<uint8_t>{0x80, 0x03, 0x00, 0x03, 0x01, 0x00, 0x00, 0x08}),
            std::vector<uint8_t>(header, header + 8));
  FrameHeader parsed = unpack_frame_header(header);
  EXPECT_TRUE(parsed.is_control());
  EXPECT_EQ(3, parsed.version());
  EXPECT_EQ(SPDY_RST_STREAM, parsed.type());
  EXPECT_EQ(FLAG_FIN, parsed.flags());
  EXPECT_EQ(8u, parsed.length());
}

TEST(FrameCodec, VersionTwoInAReceivedControlFrameChangesNothing) {
  const uint8_t header[8] = {0x80, 0x02, 0x00, 0x06, 0x00, 0x00, 0x00, 0x04};
  FrameHeader parsed = unpack_frame_header(header);
  EXPECT_TRUE(parsed.is_control());
  EXPECT_EQ(2, parsed.version());
  EXPECT_EQ(SPDY_PING, parsed.type());
  EXPECT_EQ(4u, parsed.length());
}

TEST(FrameCodec, DataHeaderWithEndSegmentAndLengthZeroIsValid) {
  uint8_t header[8];
  pack_data_frame_header(header, 0x80000005, FLAG_END_SEGMENT, 0);
  EXPECT_EQ((std::vector<uint8_t>{0x00, 0x00, 0x00, 0x05, 0x04, 0x00, 0x00, 0x00}),
            std::vector<uint8_t>(header, header + 8));
  FrameHeader parsed = unpack_frame_header(header);
  EXPECT_FALSE(parsed.is_control());
  EXPECT_EQ(5u, parsed.stream_id());
  EXPECT_EQ(FLAG_END_SEGMENT, parsed.flags());
  EXPECT_EQ(0u, parsed.length());
}

TEST(FrameCodec, HeaderAnnouncing8192And8193BytesReadsTheFullLength) {
  const uint8_t limit[8] = {0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x20, 0x00};
  const uint8_t over[8] = {0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x20, 0x01};
  EXPECT_EQ(MAX_FRAME_PAYLOAD, unpack_frame_header(limit).length());
  EXPECT_EQ(MAX_FRAME_PAYLOAD + 1, unpack_frame_header(over).length());
}

TEST(FrameCodec, FixedPartsOfControlFramesAreBigEndian) {
  BufferPtr buffer = NewBuffer();
  pack_rst_stream(buffer.get(), 0, SPDY_STATUS_FRAME_TOO_LARGE);
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 11}), Bytes(buffer.get()));
  buffer->length = 0;
  pack_ping(buffer.get(), 0x01020304);
  EXPECT_EQ((std::vector<uint8_t>{1, 2, 3, 4}), Bytes(buffer.get()));
  buffer->length = 0;
  pack_goaway(buffer.get(), 0, SPDY_STATUS_CANCEL);
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 5}), Bytes(buffer.get()));
  buffer->length = 0;
  pack_window_update(buffer.get(), 3, 8192);
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 3, 0, 0, 0x20, 0}), Bytes(buffer.get()));
  buffer->length = 0;
  pack_stream_id(buffer.get(), 0x7fffffff);
  EXPECT_EQ((std::vector<uint8_t>{0x7f, 0xff, 0xff, 0xff}), Bytes(buffer.get()));
}

TEST(FrameCodec, SynStreamReadTakesIdWholeAndPriorityFromTopBits) {
  BufferPtr buffer = BufferOf({0x80, 0, 0, 1, 0xff, 0xff, 0xff, 0xff, 0x5f, 0x33});
  uint32_t id = 0, priority = 0;
  unsigned long offset = 0;
  ASSERT_TRUE(unpack_syn_stream(buffer.get(), id, priority, offset));
  EXPECT_EQ(0x80000001u, id);
  EXPECT_EQ(2u, priority);
  EXPECT_EQ(10u, offset);
}

TEST(FrameCodec, ShortFixedPartsAreRejected) {
  uint32_t a = 0, b = 0;
  unsigned long offset = 0;
  EXPECT_FALSE(unpack_syn_stream(BufferOf(std::vector<uint8_t>(9, 0)).get(), a, b, offset));
  EXPECT_FALSE(unpack_stream_id(BufferOf({0, 0, 1}).get(), a, offset));
  EXPECT_FALSE(unpack_rst_stream(BufferOf(std::vector<uint8_t>(7, 1)).get(), a, b));
  EXPECT_FALSE(unpack_ping(BufferOf({0, 0, 1}).get(), a));
  EXPECT_FALSE(unpack_window_update(BufferOf(std::vector<uint8_t>(7, 1)).get(), a, b));
  EXPECT_TRUE(unpack_rst_stream(BufferOf({0, 0, 0, 9, 0, 0, 0, 5}).get(), a, b));
  EXPECT_EQ(9u, a);
  EXPECT_EQ(5u, b);
}

TEST(FrameCodec, WindowUpdateWithStreamZeroOrDeltaZeroIsRejected) {
  uint32_t id = 0, delta = 0;
  EXPECT_FALSE(unpack_window_update(BufferOf({0, 0, 0, 0, 0, 0, 0, 1}).get(), id, delta));
  EXPECT_FALSE(unpack_window_update(BufferOf({0, 0, 0, 1, 0, 0, 0, 0}).get(), id, delta));
  EXPECT_TRUE(unpack_window_update(BufferOf({0, 0, 0, 1, 0, 0, 0, 2, 9}).get(), id, delta));
  EXPECT_EQ(1u, id);
  EXPECT_EQ(2u, delta);
}

TEST(HeaderBlock, PairsAreWrittenInNumericKeyOrder) {
  RPCConnectionHeaders headers;
  headers[10] = "b";
  headers[2] = "a";
  BufferPtr buffer = NewBuffer();
  ASSERT_TRUE(encode_headers(buffer.get(), headers));
  std::vector<uint8_t> expected;
  Put32(expected, 2);
  PutPair(expected, "2", "a");
  PutPair(expected, "10", "b");
  EXPECT_EQ(expected, Bytes(buffer.get()));
}

TEST(HeaderBlock, EmptySetIsTheCountZeroAlone) {
  BufferPtr buffer = NewBuffer();
  pack_stream_id(buffer.get(), 1);
  ASSERT_TRUE(encode_headers(buffer.get(), RPCConnectionHeaders()));
  EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 1, 0, 0, 0, 0}), Bytes(buffer.get()));
}

TEST(HeaderBlock, BinaryAndEmptyValuesRoundTrip) {
  RPCConnectionHeaders headers;
  headers[RPC_HEADER_CONTEXT] = std::string("\0\x01\xff\0", 4);
  headers[RPC_HEADER_ERROR_TEXT] = "";
  headers.set<unsigned int>(RPC_HEADER_ERROR_CODE, 0x80004005u);
  EXPECT_EQ("2147500037", headers[RPC_HEADER_ERROR_CODE]);
  BufferPtr buffer = NewBuffer();
  ASSERT_TRUE(encode_headers(buffer.get(), headers));
  RPCConnectionHeaders decoded;
  unsigned long offset = 0;
  ASSERT_TRUE(decode_headers(buffer.get(), offset, decoded));
  EXPECT_EQ(headers, decoded);
  EXPECT_EQ(buffer->length, offset);
}

TEST(HeaderBlock, PayloadOfExactly8192BytesFitsAndOneMoreDoesNot) {
  // Stream id (4), count (4), name length (4), "4", value length (4): 17 bytes.
  RPCConnectionHeaders headers;
  headers[RPC_HEADER_ERROR_TEXT] = std::string(8192 - 17, 'x');
  BufferPtr fits = NewBuffer();
  pack_stream_id(fits.get(), 1);
  EXPECT_TRUE(encode_headers(fits.get(), headers));
  EXPECT_EQ(8192u, fits->length);

  headers[RPC_HEADER_ERROR_TEXT] += "x";
  BufferPtr over = NewBuffer();
  pack_stream_id(over.get(), 1);
  EXPECT_FALSE(encode_headers(over.get(), headers));
}

TEST(HeaderBlock, ErrorTextOf8180BytesDoesNotFitBehindAnErrorCode) {
  RPCConnectionHeaders headers;
  headers.set<unsigned int>(RPC_HEADER_ERROR_CODE, 0x80004005u);
  headers[RPC_HEADER_ERROR_TEXT] = std::string(8180, 'e');
  BufferPtr buffer = NewBuffer();
  pack_stream_id(buffer.get(), 2);
  EXPECT_FALSE(encode_headers(buffer.get(), headers));

  RPCConnectionHeaders text_only;
  text_only[RPC_HEADER_ERROR_TEXT] = std::string(8175, 'e');
  BufferPtr small = NewBuffer();
  pack_stream_id(small.get(), 2);
  EXPECT_TRUE(encode_headers(small.get(), text_only));
  EXPECT_EQ(8192u, small->length);
}

TEST(HeaderBlock, NameTooLongForTheBufferFails) {
  RPCConnectionHeaders headers;
  headers[4294967295u] = "";
  BufferPtr buffer = NewBuffer();
  buffer->length = 8192 - 4 - 4 - 9;  // room for the count and 13 more bytes
  EXPECT_FALSE(encode_headers(buffer.get(), headers));
}

TEST(HeaderBlock, NoRoomForTheCountSucceedsWithoutWriting) {
  RPCConnectionHeaders headers;
  headers[1] = "1";
  BufferPtr buffer = NewBuffer();
  buffer->length = 8189;
  EXPECT_TRUE(encode_headers(buffer.get(), headers));
  EXPECT_EQ(8189u, buffer->length);
}

TEST(HeaderBlock, FewerThanFourBytesIsAValidMissingBlock) {
  BufferPtr buffer = BufferOf({0, 0, 0, 1, 0, 0, 0});
  RPCConnectionHeaders headers;
  unsigned long offset = 4;
  EXPECT_TRUE(decode_headers(buffer.get(), offset, headers));
  EXPECT_TRUE(headers.empty());
  EXPECT_EQ(4u, offset);
  unsigned long beyond = 12;
  EXPECT_TRUE(decode_headers(buffer.get(), beyond, headers));
}

TEST(HeaderBlock, NameWithLeadingZerosIsAccepted) {
  std::vector<uint8_t> block;
  Put32(block, 1);
  PutPair(block, "007", "seven");
  RPCConnectionHeaders headers;
  unsigned long offset = 0;
  ASSERT_TRUE(decode_headers(BufferOf(block).get(), offset, headers));
  ASSERT_EQ(1u, headers.size());
  EXPECT_EQ("seven", headers[7]);
}

TEST(HeaderBlock, NameWithTrailingLetterFails) {
  std::vector<uint8_t> block;
  Put32(block, 1);
  PutPair(block, "7x", "seven");
  RPCConnectionHeaders headers;
  unsigned long offset = 0;
  EXPECT_FALSE(decode_headers(BufferOf(block).get(), offset, headers));
}

TEST(HeaderBlock, EmptyNameFails) {
  std::vector<uint8_t> block;
  Put32(block, 1);
  PutPair(block, "", "v");
  RPCConnectionHeaders headers;
  unsigned long offset = 0;
  EXPECT_FALSE(decode_headers(BufferOf(block).get(), offset, headers));
}

TEST(HeaderBlock, NameBeyond32BitsIsCutAndLandsAsKeyOne) {
  std::vector<uint8_t> block;
  Put32(block, 1);
  PutPair(block, "4294967297", "wrapped");
  RPCConnectionHeaders headers;
  unsigned long offset = 0;
  ASSERT_TRUE(decode_headers(BufferOf(block).get(), offset, headers));
  EXPECT_EQ("wrapped", headers[1]);
}

TEST(HeaderBlock, LaterPairWithTheSameKeyReplacesTheEarlier) {
  std::vector<uint8_t> block;
  Put32(block, 2);
  PutPair(block, "4", "first");
  PutPair(block, "04", "second");
  block.push_back(0xAA);  // trailing bytes are ignored
  RPCConnectionHeaders headers;
  unsigned long offset = 0;
  ASSERT_TRUE(decode_headers(BufferOf(block).get(), offset, headers));
  ASSERT_EQ(1u, headers.size());
  EXPECT_EQ("second", headers[4]);
  EXPECT_EQ(block.size() - 1, offset);
}

TEST(HeaderBlock, TruncatedPairsFail) {
  std::vector<uint8_t> full;
  Put32(full, 1);
  PutPair(full, "12", "value");
  // Cut at every point inside the pair: in the name length, the name, the value
  // length and the value.
  for (size_t cut = 5; cut < full.size(); ++cut) {
    std::vector<uint8_t> block(full.begin(), full.begin() + cut);
    RPCConnectionHeaders headers;
    unsigned long offset = 0;
    EXPECT_FALSE(decode_headers(BufferOf(block).get(), offset, headers)) << "cut at " << cut;
  }
  std::vector<uint8_t> count_too_high;
  Put32(count_too_high, 2);
  PutPair(count_too_high, "1", "a");
  RPCConnectionHeaders headers;
  unsigned long offset = 0;
  EXPECT_FALSE(decode_headers(BufferOf(count_too_high).get(), offset, headers));
}

TEST(HeaderBlock, DecodingIsBoundedByTheReceivedLength) {
  std::vector<uint8_t> block;
  Put32(block, 1);
  PutPair(block, "1", "abc");
  BufferPtr buffer = BufferOf(block);
  buffer->length -= 1;  // the last byte of the value did not arrive
  RPCConnectionHeaders headers;
  unsigned long offset = 0;
  EXPECT_FALSE(decode_headers(buffer.get(), offset, headers));
}

TEST(HeaderBlock, CountZeroDecodesToNothing) {
  RPCConnectionHeaders headers;
  headers[9] = "kept";
  unsigned long offset = 0;
  ASSERT_TRUE(decode_headers(BufferOf({0, 0, 0, 0}).get(), offset, headers));
  EXPECT_EQ(1u, headers.size());
  EXPECT_EQ(4u, offset);
}

}  // namespace
}  // namespace base
}  // namespace apm
