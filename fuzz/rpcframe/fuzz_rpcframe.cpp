// Feeds arbitrary bytes to the frame codec as a received payload: every reader of
// a fixed part, and the header block from each place a frame type puts it. A block
// that decodes must encode again (when it fits) and decode to the same set.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/rpc/rpcframe.h"

using namespace apm::base;

namespace {

void CheckBlock(const CNetworkBuffer* payload, unsigned long offset) {
  RPCConnectionHeaders headers;
  if (!decode_headers(payload, offset, headers)) return;
  if (offset > payload->length) std::abort();
  CNetworkBuffer* encoded = CNetworkBuffer::Allocate();
  if (encode_headers(encoded, headers)) {
    if (encoded->length > CNetworkBuffer::CAPACITY) std::abort();
    RPCConnectionHeaders again;
    unsigned long start = 0;
    if (!decode_headers(encoded, start, again) || again != headers || start != encoded->length) std::abort();
  }
  CNetworkBuffer::Free(encoded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > CNetworkBuffer::CAPACITY) return 0;
  CNetworkBuffer* payload = CNetworkBuffer::Allocate();
  if (size != 0) std::memcpy(payload->data, data, size);
  payload->length = size;

  if (size >= FRAME_HEADER_SIZE) {
    FrameHeader header = unpack_frame_header(data);
    uint8_t packed[FRAME_HEADER_SIZE];
    if (header.is_control()) {
      pack_control_frame_header(packed, header.type(), header.flags(), header.length());
      if (unpack_frame_header(packed).type() != header.type()) std::abort();
    } else {
      pack_data_frame_header(packed, header.stream_id(), header.flags(), header.length());
      if (std::memcmp(packed, data, FRAME_HEADER_SIZE) != 0) std::abort();
    }
  }

  uint32_t first = 0, second = 0;
  unsigned long offset = 0;
  unpack_rst_stream(payload, first, second);
  unpack_ping(payload, first);
  unpack_window_update(payload, first, second);
  CheckBlock(payload, 0);
  if (unpack_syn_stream(payload, first, second, offset)) {
    if (second > 7) std::abort();
    CheckBlock(payload, offset);
  }
  if (unpack_stream_id(payload, first, offset)) CheckBlock(payload, offset);

  CNetworkBuffer::Free(payload);
  return 0;
}
