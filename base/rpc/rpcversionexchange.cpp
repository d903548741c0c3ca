#include "base/rpc/rpcversionexchange.h"

namespace apm {
namespace base {

namespace {

void put_le(std::vector<uint8_t>& out, uint64_t value, int size) {
  for (int index = 0; index < size; ++index) out.push_back(static_cast<uint8_t>(value >> (8 * index)));
}

void put_be32(std::vector<uint8_t>& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

uint64_t get_le(const uint8_t* bytes, int size) {
  uint64_t value = 0;
  for (int index = size - 1; index >= 0; --index) value = (value << 8) | bytes[index];
  return value;
}

}  // namespace

std::vector<uint8_t> pack_version_request(uint32_t connection_id, uint64_t version,
                                          uint64_t start_timestamp) {
  std::vector<uint8_t> message;
  message.reserve(RPC_HANDSHAKE_HEADER_SIZE + RPC_HANDSHAKE_REQUEST_BODY_SIZE);
  put_le(message, RPC_HANDSHAKE_REQUEST_TYPE, 2);
  put_le(message, 0, 2);
  put_le(message, RPC_HANDSHAKE_REQUEST_BODY_SIZE, 4);
  put_le(message, RPC_PROTOCOL_LEVEL, 2);
  put_le(message, RPC_PROTOCOL_REVISION, 2);
  put_le(message, connection_id, 4);
  put_le(message, version, 8);
  put_le(message, start_timestamp, 8);
  return message;
}

std::vector<uint8_t> pack_version_response(uint64_t version, uint64_t start_timestamp) {
  std::vector<uint8_t> message;
  message.reserve(12 + RPC_HANDSHAKE_RESPONSE_DATA_SIZE);
  put_le(message, 0, 4);
  put_be32(message, 0);
  put_le(message, RPC_HANDSHAKE_RESPONSE_DATA_SIZE, 4);
  put_le(message, RPC_PROTOCOL_LEVEL, 2);
  put_le(message, version, 8);
  put_le(message, start_timestamp, 8);
  return message;
}

std::vector<uint8_t> pack_version_denial(uint32_t status, const std::string& text) {
  std::vector<uint8_t> message;
  put_le(message, status, 4);
  if (8 + text.size() > RPC_HANDSHAKE_MAX_PART) {
    put_le(message, 0, 4);
    return message;
  }
  put_be32(message, static_cast<uint32_t>(text.size()));
  message.insert(message.end(), text.begin(), text.end());
  put_le(message, 0, 4);
  return message;
}

VersionRequestHeader unpack_version_request_header(const uint8_t* bytes) {
  return VersionRequestHeader{static_cast<uint16_t>(get_le(bytes, 2)), static_cast<uint16_t>(get_le(bytes + 2, 2)),
                              static_cast<uint32_t>(get_le(bytes + 4, 4))};
}

VersionRequestBody unpack_version_request_body(const uint8_t* bytes) {
  return VersionRequestBody{static_cast<uint16_t>(get_le(bytes, 2)), static_cast<uint16_t>(get_le(bytes + 2, 2)),
                            static_cast<uint32_t>(get_le(bytes + 4, 4)), get_le(bytes + 8, 8),
                            get_le(bytes + 16, 8)};
}

VersionResponseHead unpack_version_response_head(const uint8_t* bytes) {
  uint32_t text_length = (static_cast<uint32_t>(bytes[4]) << 24) | (static_cast<uint32_t>(bytes[5]) << 16) |
                         (static_cast<uint32_t>(bytes[6]) << 8) | static_cast<uint32_t>(bytes[7]);
  return VersionResponseHead{static_cast<uint32_t>(get_le(bytes, 4)), text_length};
}

uint32_t unpack_version_response_data_length(const uint8_t* bytes) {
  return static_cast<uint32_t>(get_le(bytes, 4));
}

VersionResponseData unpack_version_response_data(const uint8_t* bytes) {
  return VersionResponseData{get_le(bytes + 2, 8), get_le(bytes + 10, 8)};
}

}  // namespace base
}  // namespace apm
