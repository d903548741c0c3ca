// The version exchange: the fixed conversation inside TLS, before the first frame,
// that settles whether two sides may talk. Pure functions that build and read its
// four messages; the connection engine (base/rpc/rpcspdyconnectionimpl.h) does the
// I/O and the checks.
//
// All integers are little-endian, unlike frames, with one exception: the length of
// the error text in the response is big-endian.
//
//   request (connecting side), 32 bytes: type 1 (2), reserved 0 (2), body length
//     24 (4), protocol level 3 (2), protocol revision 8 (2), connection id (4),
//     version (8), start timestamp (8)
//   positive response, 30 bytes: status 0 (4), text length 0 (4, big-endian),
//     data length 18 (4), protocol level 3 (2), version (8), start timestamp (8)
//   negative response: status (4), text length n (4, big-endian), text (n), data
//     length 0 (4); when 8 + n exceeds 8192 only the status and 4 zero bytes
//
// Thread-safe: no shared state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace apm {
namespace base {

constexpr uint16_t RPC_HANDSHAKE_REQUEST_TYPE = 1;
constexpr uint16_t RPC_PROTOCOL_LEVEL = 3;
constexpr uint16_t RPC_PROTOCOL_REVISION = 8;
constexpr uint32_t RPC_HANDSHAKE_HEADER_SIZE = 8;
constexpr uint32_t RPC_HANDSHAKE_REQUEST_BODY_SIZE = 24;
constexpr uint32_t RPC_HANDSHAKE_RESPONSE_DATA_SIZE = 18;
// Largest error text, request body and response data that a side reads.
constexpr uint32_t RPC_HANDSHAKE_MAX_PART = 8192;

std::vector<uint8_t> pack_version_request(uint32_t connection_id, uint64_t version,
                                          uint64_t start_timestamp);
std::vector<uint8_t> pack_version_response(uint64_t version, uint64_t start_timestamp);
std::vector<uint8_t> pack_version_denial(uint32_t status, const std::string& text);

// The 8 bytes in front of the request body.
struct VersionRequestHeader {
  uint16_t type;
  uint16_t reserved;
  uint32_t body_length;
};
VersionRequestHeader unpack_version_request_header(const uint8_t* bytes);

// The request body; needs 24 bytes.
struct VersionRequestBody {
  uint16_t protocol_level;
  uint16_t protocol_revision;
  uint32_t connection_id;
  uint64_t version;
  uint64_t start_timestamp;
};
VersionRequestBody unpack_version_request_body(const uint8_t* bytes);

// The first 8 bytes of a response: status, and the big-endian text length.
struct VersionResponseHead {
  uint32_t status;
  uint32_t text_length;
};
VersionResponseHead unpack_version_response_head(const uint8_t* bytes);

// A little-endian 32-bit value: the data length of a response.
uint32_t unpack_version_response_data_length(const uint8_t* bytes);

// The response data; needs 18 bytes. The protocol level in front is not examined.
struct VersionResponseData {
  uint64_t version;
  uint64_t start_timestamp;
};
VersionResponseData unpack_version_response_data(const uint8_t* bytes);

}  // namespace base
}  // namespace apm
