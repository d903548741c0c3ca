// The frame codec of the RPC transport: pure functions that write and read the
// 8-byte frame header, the fixed part of every control frame and the header block,
// with no state and no I/O. The connection engine (base/rpc/rpcspdyconnection.h)
// builds and parses every frame through these.
//
// Frames follow SPDY version 3 in layout, type numbers and status numbers, with a
// plain header block whose names are decimal keys, the private data flag
// FLAG_END_SEGMENT and a hard limit of 8192 bytes on any payload. All multi-byte
// values are big-endian.
//
// Writers append at buffer->length and advance it; readers check against
// buffer->length, the bytes actually received. Thread-safe: no shared state.
#pragma once

#include <cstdint>

#include "base/rpc/networkbuffer.h"
#include "base/rpc/rpcconnectionheaders.h"

namespace apm {
namespace base {

constexpr uint16_t SPDY_VERSION = 3;
constexpr uint32_t FRAME_HEADER_SIZE = 8;
constexpr uint32_t MAX_FRAME_PAYLOAD = 8192;

// Control frame types. Anything else (0, 4, 5, 10 and above) is read and dropped.
constexpr uint16_t SPDY_SYN_STREAM = 1;
constexpr uint16_t SPDY_SYN_REPLY = 2;
constexpr uint16_t SPDY_RST_STREAM = 3;
constexpr uint16_t SPDY_PING = 6;
constexpr uint16_t SPDY_GOAWAY = 7;
constexpr uint16_t SPDY_HEADERS = 8;
constexpr uint16_t SPDY_WINDOW_UPDATE = 9;
// Types at and above this number are ignored without looking at them.
constexpr uint16_t SPDY_FIRST_UNKNOWN_TYPE = 10;

// Frame flags.
constexpr uint8_t FLAG_FIN = 0x01;
constexpr uint8_t FLAG_UNIDIRECTIONAL = 0x02;  // SYN_STREAM only
constexpr uint8_t FLAG_END_SEGMENT = 0x04;     // data frames only

// Status codes of RST_STREAM (and the status field of GOAWAY).
constexpr uint32_t SPDY_STATUS_REFUSED_STREAM = 3;
constexpr uint32_t SPDY_STATUS_CANCEL = 5;
constexpr uint32_t SPDY_STATUS_INTERNAL_ERROR = 6;
constexpr uint32_t SPDY_STATUS_STREAM_IN_USE = 8;
constexpr uint32_t SPDY_STATUS_FRAME_TOO_LARGE = 11;

// The priority every SYN_STREAM of this system carries.
constexpr uint32_t SPDY_DEFAULT_PRIORITY = 7;

// The two words of a frame header as numbers.
struct FrameHeader {
  uint32_t word0;
  uint32_t word1;

  bool is_control() const { return (word0 & 0x80000000u) != 0; }
  // Control frames.
  uint16_t version() const { return static_cast<uint16_t>((word0 >> 16) & 0x7fff); }
  uint16_t type() const { return static_cast<uint16_t>(word0 & 0xffff); }
  // Data frames: the first word less its top bit.
  uint32_t stream_id() const { return word0 & 0x7fffffffu; }
  uint8_t flags() const { return static_cast<uint8_t>(word1 >> 24); }
  uint32_t length() const { return word1 & 0x00ffffffu; }
};

FrameHeader unpack_frame_header(const uint8_t* bytes);
// Version 3, the given type and flags, and the low 24 bits of `length`.
void pack_control_frame_header(uint8_t* out, uint16_t type, uint8_t flags, uint64_t length);
// The stream id less its top bit, the flags and the low 24 bits of `length`.
void pack_data_frame_header(uint8_t* out, uint32_t stream_id, uint8_t flags, uint64_t length);

// Fixed parts of the control frames, appended to `buffer`.
// SYN_STREAM: stream id, associated stream id, priority in the top 3 bits of a
// 16-bit field (the slot byte is 0): 10 bytes.
void pack_syn_stream(CNetworkBuffer* buffer, uint32_t stream_id, uint32_t associated,
                     uint32_t priority);
// SYN_REPLY and HEADERS: the stream id alone.
void pack_stream_id(CNetworkBuffer* buffer, uint32_t stream_id);
void pack_rst_stream(CNetworkBuffer* buffer, uint32_t stream_id, uint32_t status);
void pack_ping(CNetworkBuffer* buffer, uint32_t id);
void pack_goaway(CNetworkBuffer* buffer, uint32_t last_good_stream_id, uint32_t status);
void pack_window_update(CNetworkBuffer* buffer, uint32_t stream_id, uint32_t delta);

// Readers of the fixed parts; false for a payload shorter than the fixed part.
// SYN_STREAM needs 10 bytes; its stream id is taken whole, top bit and all, and the
// priority is the top 3 bits of byte 8. `offset` is set behind the fixed part.
bool unpack_syn_stream(const CNetworkBuffer* buffer, uint32_t& stream_id, uint32_t& priority,
                       unsigned long& offset);
// SYN_REPLY and HEADERS need 4 bytes; `offset` is set behind them.
bool unpack_stream_id(const CNetworkBuffer* buffer, uint32_t& stream_id, unsigned long& offset);
bool unpack_rst_stream(const CNetworkBuffer* buffer, uint32_t& stream_id, uint32_t& status);
bool unpack_ping(const CNetworkBuffer* buffer, uint32_t& id);
// Also false when the stream id or the delta is 0.
bool unpack_window_update(const CNetworkBuffer* buffer, uint32_t& stream_id, uint32_t& delta);

// Appends the header block of `headers` at buffer->length: the pair count, then
// for each pair in ascending key order the length and decimal text of the key and
// the length and bytes of the value. A whole payload of 8192 bytes fits, one byte
// more does not. If not even the count fits, succeeds without writing anything.
// On failure the buffer is left partly written and must be thrown away.
bool encode_headers(CNetworkBuffer* buffer, const RPCConnectionHeaders& headers);

// Reads a header block from `offset` on, advancing it and adding the pairs to
// `headers`; a later pair with the same key replaces an earlier one. Fewer than 4
// bytes left means no block, which is valid. Fails on a truncated pair or a name
// that is not entirely a decimal number. Bytes behind the last pair are ignored.
bool decode_headers(const CNetworkBuffer* buffer, unsigned long& offset, RPCConnectionHeaders& headers);

}  // namespace base
}  // namespace apm
