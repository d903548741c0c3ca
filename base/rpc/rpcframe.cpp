#include "base/rpc/rpcframe.h"

#include <cstring>
#include <string>

#include "base/strtools.h"

namespace apm {
namespace base {

namespace {

uint32_t read_u32(const uint8_t* bytes) {
  return (static_cast<uint32_t>(bytes[0]) << 24) | (static_cast<uint32_t>(bytes[1]) << 16) |
         (static_cast<uint32_t>(bytes[2]) << 8) | static_cast<uint32_t>(bytes[3]);
}

void write_u32(uint8_t* out, uint32_t value) {
  out[0] = static_cast<uint8_t>(value >> 24);
  out[1] = static_cast<uint8_t>(value >> 16);
  out[2] = static_cast<uint8_t>(value >> 8);
  out[3] = static_cast<uint8_t>(value);
}

void append_u32(CNetworkBuffer* buffer, uint32_t value) {
  write_u32(buffer->data + buffer->length, value);
  buffer->length += 4;
}

void append_bytes(CNetworkBuffer* buffer, const void* bytes, size_t size) {
  if (size != 0) std::memcpy(buffer->data + buffer->length, bytes, size);
  buffer->length += size;
}

// Bytes of the buffer behind `offset`; 0 if the offset is beyond its length.
uint64_t remaining(const CNetworkBuffer* buffer, unsigned long offset) {
  return offset < buffer->length ? buffer->length - offset : 0;
}

}  // namespace

FrameHeader unpack_frame_header(const uint8_t* bytes) {
  return FrameHeader{read_u32(bytes), read_u32(bytes + 4)};
}

void pack_control_frame_header(uint8_t* out, uint16_t type, uint8_t flags, uint64_t length) {
  write_u32(out, 0x80000000u | (static_cast<uint32_t>(SPDY_VERSION) << 16) | type);
  write_u32(out + 4, (static_cast<uint32_t>(flags) << 24) | (static_cast<uint32_t>(length) & 0x00ffffffu));
}

void pack_data_frame_header(uint8_t* out, uint32_t stream_id, uint8_t flags, uint64_t length) {
  write_u32(out, stream_id & 0x7fffffffu);
  write_u32(out + 4, (static_cast<uint32_t>(flags) << 24) | (static_cast<uint32_t>(length) & 0x00ffffffu));
}

void pack_syn_stream(CNetworkBuffer* buffer, uint32_t stream_id, uint32_t associated, uint32_t priority) {
  append_u32(buffer, stream_id);
  append_u32(buffer, associated);
  uint16_t priority_field = static_cast<uint16_t>(priority << 13);
  buffer->data[buffer->length] = static_cast<uint8_t>(priority_field >> 8);
  buffer->data[buffer->length + 1] = static_cast<uint8_t>(priority_field);
  buffer->length += 2;
}

void pack_stream_id(CNetworkBuffer* buffer, uint32_t stream_id) { append_u32(buffer, stream_id); }

void pack_rst_stream(CNetworkBuffer* buffer, uint32_t stream_id, uint32_t status) {
  append_u32(buffer, stream_id);
  append_u32(buffer, status);
}

void pack_ping(CNetworkBuffer* buffer, uint32_t id) { append_u32(buffer, id); }

void pack_goaway(CNetworkBuffer* buffer, uint32_t last_good_stream_id, uint32_t status) {
  append_u32(buffer, last_good_stream_id);
  append_u32(buffer, status);
}

void pack_window_update(CNetworkBuffer* buffer, uint32_t stream_id, uint32_t delta) {
  append_u32(buffer, stream_id);
  append_u32(buffer, delta);
}

bool unpack_syn_stream(const CNetworkBuffer* buffer, uint32_t& stream_id, uint32_t& priority,
                       unsigned long& offset) {
  if (buffer->length < 10) return false;
  stream_id = read_u32(buffer->data);
  priority = buffer->data[8] >> 5;
  offset = 10;
  return true;
}

bool unpack_stream_id(const CNetworkBuffer* buffer, uint32_t& stream_id, unsigned long& offset) {
  if (buffer->length < 4) return false;
  stream_id = read_u32(buffer->data);
  offset = 4;
  return true;
}

bool unpack_rst_stream(const CNetworkBuffer* buffer, uint32_t& stream_id, uint32_t& status) {
  if (buffer->length < 8) return false;
  stream_id = read_u32(buffer->data);
  status = read_u32(buffer->data + 4);
  return true;
}

bool unpack_ping(const CNetworkBuffer* buffer, uint32_t& id) {
  if (buffer->length < 4) return false;
  id = read_u32(buffer->data);
  return true;
}

bool unpack_window_update(const CNetworkBuffer* buffer, uint32_t& stream_id, uint32_t& delta) {
  if (buffer->length < 8) return false;
  stream_id = read_u32(buffer->data);
  delta = read_u32(buffer->data + 4);
  return stream_id != 0 && delta != 0;
}

bool encode_headers(CNetworkBuffer* buffer, const RPCConnectionHeaders& headers) {
  // Not even room for the count: the block is left out, and that counts as success.
  if (buffer->length + 4 > CNetworkBuffer::CAPACITY) return true;
  append_u32(buffer, static_cast<uint32_t>(headers.size()));
  for (const auto& pair : headers) {
    const std::string name = IntToString(pair.first);
    if (buffer->length + 4 + name.size() > CNetworkBuffer::CAPACITY) return false;
    append_u32(buffer, static_cast<uint32_t>(name.size()));
    append_bytes(buffer, name.data(), name.size());
    if (buffer->length + 4 + pair.second.size() > CNetworkBuffer::CAPACITY) return false;
    append_u32(buffer, static_cast<uint32_t>(pair.second.size()));
    append_bytes(buffer, pair.second.data(), pair.second.size());
  }
  return true;
}

bool decode_headers(const CNetworkBuffer* buffer, unsigned long& offset, RPCConnectionHeaders& headers) {
  if (remaining(buffer, offset) < 4) return true;
  uint32_t count = read_u32(buffer->data + offset);
  offset += 4;
  for (uint32_t index = 0; index < count; ++index) {
    if (remaining(buffer, offset) < 4) return false;
    uint32_t name_length = read_u32(buffer->data + offset);
    offset += 4;
    if (name_length > remaining(buffer, offset)) return false;
    unsigned int key = 0;
    if (!StringToInt(std::string(reinterpret_cast<const char*>(buffer->data + offset), name_length), key)) {
      return false;
    }
    offset += name_length;
    if (remaining(buffer, offset) < 4) return false;
    uint32_t value_length = read_u32(buffer->data + offset);
    offset += 4;
    if (value_length > remaining(buffer, offset)) return false;
    headers[key].assign(reinterpret_cast<const char*>(buffer->data + offset), value_length);
    offset += value_length;
  }
  return true;
}

}  // namespace base
}  // namespace apm
