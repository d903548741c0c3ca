#include "tests/support/rawtlspeer.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "base/rpc/networkbuffer.h"
#include "base/rpc/rpcconnectionparameters.h"
#include "base/rpc/rpcversionexchange.h"

namespace apm {
namespace test {

namespace {

struct sockaddr_in LoopbackAddress(unsigned short port) {
  struct sockaddr_in address;
  std::memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

std::vector<uint8_t> BufferBytes(const base::CNetworkBuffer* buffer) {
  return std::vector<uint8_t>(buffer->data, buffer->data + buffer->length);
}

}  // namespace

uint32_t RawFrame::word(size_t index) const {
  const size_t offset = index * 4;
  if (payload.size() < offset + 4) return 0;
  return (static_cast<uint32_t>(payload[offset]) << 24) | (static_cast<uint32_t>(payload[offset + 1]) << 16) |
         (static_cast<uint32_t>(payload[offset + 2]) << 8) | static_cast<uint32_t>(payload[offset + 3]);
}

RawTlsPeer::RawTlsPeer() { SetReadTimeout(5000); }

RawTlsPeer::~RawTlsPeer() {
  Close();
  if (listener_ >= 0) ::close(listener_);
}

void RawTlsPeer::SetReadTimeout(int milliseconds) {
  if (socket_ < 0) return;
  struct timeval timeout;
  timeout.tv_sec = milliseconds / 1000;
  timeout.tv_usec = (milliseconds % 1000) * 1000;
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
}

bool RawTlsPeer::StartTls(const std::string& certificate_file, bool server) {
  context_ = SSL_CTX_new(TLS_method());
  if (context_ == nullptr) return false;
  if (!certificate_file.empty()) {
    if (SSL_CTX_use_certificate_file(context_, certificate_file.c_str(), SSL_FILETYPE_PEM) != 1) return false;
    if (SSL_CTX_use_PrivateKey_file(context_, certificate_file.c_str(), SSL_FILETYPE_PEM) != 1) return false;
  }
  ssl_ = SSL_new(context_);
  SSL_set_fd(ssl_, socket_);
  int result = server ? SSL_accept(ssl_) : SSL_connect(ssl_);
  return result == 1;
}

bool RawTlsPeer::Connect(unsigned short port, const std::string& certificate_file, bool tls) {
  socket_ = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address = LoopbackAddress(port);
  if (::connect(socket_, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0) return false;
  int one = 1;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  SetReadTimeout(5000);
  return !tls || StartTls(certificate_file, false);
}

unsigned short RawTlsPeer::Listen() {
  listener_ = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address = LoopbackAddress(0);
  if (::bind(listener_, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0) return 0;
  if (::listen(listener_, 8) != 0) return 0;
  socklen_t length = sizeof(address);
  getsockname(listener_, reinterpret_cast<struct sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

bool RawTlsPeer::Accept(const std::string& certificate_file, bool tls) {
  socket_ = ::accept(listener_, nullptr, nullptr);
  if (socket_ < 0) return false;
  SetReadTimeout(5000);
  return !tls || StartTls(certificate_file, true);
}

bool RawTlsPeer::Write(const std::vector<uint8_t>& bytes) {
  if (bytes.empty()) return true;
  if (ssl_ != nullptr) return SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())) == static_cast<int>(bytes.size());
  return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool RawTlsPeer::Read(uint8_t* destination, size_t size) {
  timed_out_ = false;
  size_t done = 0;
  while (done < size) {
    errno = 0;
    int count = ssl_ != nullptr ? SSL_read(ssl_, destination + done, static_cast<int>(size - done))
                                : static_cast<int>(::recv(socket_, destination + done, size - done, 0));
    if (count <= 0) {
      timed_out_ = errno == EAGAIN || errno == EWOULDBLOCK;
      return false;
    }
    done += static_cast<size_t>(count);
  }
  return true;
}

bool RawTlsPeer::ReadRecord(std::vector<uint8_t>& bytes) {
  timed_out_ = false;
  // A record carries at most 16 KiB of plaintext, and SSL_read never returns more
  // than one record holds.
  bytes.assign(16384, 0);
  errno = 0;
  int count = ssl_ != nullptr ? SSL_read(ssl_, bytes.data(), static_cast<int>(bytes.size())) : -1;
  if (count <= 0) {
    timed_out_ = errno == EAGAIN || errno == EWOULDBLOCK;
    bytes.clear();
    return false;
  }
  bytes.resize(static_cast<size_t>(count));
  return true;
}

bool RawTlsPeer::WaitForEnd() {
  uint8_t scratch[4096];
  for (;;) {
    errno = 0;
    int count = ssl_ != nullptr ? SSL_read(ssl_, scratch, sizeof(scratch))
                                : static_cast<int>(::recv(socket_, scratch, sizeof(scratch), 0));
    if (count <= 0) {
      timed_out_ = errno == EAGAIN || errno == EWOULDBLOCK;
      return !timed_out_;
    }
  }
}

void RawTlsPeer::Close() {
  if (ssl_ != nullptr) {
    SSL_shutdown(ssl_);
    SSL_free(ssl_);
    ssl_ = nullptr;
  }
  if (context_ != nullptr) {
    SSL_CTX_free(context_);
    context_ = nullptr;
  }
  if (socket_ >= 0) {
    ::close(socket_);
    socket_ = -1;
  }
}

bool RawTlsPeer::SendVersionRequest(uint64_t version, uint16_t level, uint16_t revision, uint32_t connection_id) {
  std::vector<uint8_t> request = base::pack_version_request(connection_id, version, 0x01d0000000000000ull);
  request[8] = static_cast<uint8_t>(level);
  request[9] = static_cast<uint8_t>(level >> 8);
  request[10] = static_cast<uint8_t>(revision);
  request[11] = static_cast<uint8_t>(revision >> 8);
  return Write(request);
}

bool RawTlsPeer::ReadVersionResponse(uint32_t& status, std::string& text, std::vector<uint8_t>& data) {
  uint8_t head[8];
  if (!Read(head, sizeof(head))) return false;
  base::VersionResponseHead parsed = base::unpack_version_response_head(head);
  status = parsed.status;
  text.assign(parsed.text_length, '\0');
  if (parsed.text_length > 0 && !Read(reinterpret_cast<uint8_t*>(&text[0]), parsed.text_length)) return false;
  uint8_t length[4];
  if (!Read(length, sizeof(length))) return false;
  data.assign(base::unpack_version_response_data_length(length), 0);
  return data.empty() || Read(data.data(), data.size());
}

bool RawTlsPeer::Handshake() {
  uint32_t status;
  std::string text;
  std::vector<uint8_t> data;
  return SendVersionRequest(base::RPC_LOCAL_VERSION) && ReadVersionResponse(status, text, data) && status == 0 &&
         data.size() == base::RPC_HANDSHAKE_RESPONSE_DATA_SIZE;
}

bool RawTlsPeer::ReadVersionRequest(std::vector<uint8_t>& request) {
  request.assign(32, 0);
  return Read(request.data(), request.size());
}

bool RawTlsPeer::SendControl(uint16_t type, uint8_t flags, const std::vector<uint8_t>& payload, uint16_t version) {
  std::vector<uint8_t> frame(8);
  base::pack_control_frame_header(frame.data(), type, flags, payload.size());
  frame[0] = static_cast<uint8_t>(0x80 | (version >> 8));
  frame[1] = static_cast<uint8_t>(version);
  frame.insert(frame.end(), payload.begin(), payload.end());
  return Write(frame);
}

bool RawTlsPeer::SendData(uint32_t stream_id, uint8_t flags, const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> frame(8);
  base::pack_data_frame_header(frame.data(), stream_id, flags, payload.size());
  frame.insert(frame.end(), payload.begin(), payload.end());
  return Write(frame);
}

bool RawTlsPeer::ReadFrame(RawFrame& frame) {
  if (kept_frames_.empty()) return ReadFrameFromConnection(frame);
  frame = std::move(kept_frames_.front());
  kept_frames_.pop_front();
  return true;
}

bool RawTlsPeer::ReadFrameFromConnection(RawFrame& frame) {
  uint8_t header[8];
  if (!Read(header, sizeof(header))) return false;
  frame.header = base::unpack_frame_header(header);
  frame.payload.assign(frame.header.length(), 0);
  return frame.payload.empty() || Read(frame.payload.data(), frame.payload.size());
}

bool RawTlsPeer::ReadFrameAnsweringPings(RawFrame& frame) {
  for (;;) {
    if (!ReadFrame(frame)) return false;
    if (!frame.is_control(base::SPDY_PING)) return true;
    if (!SendControl(base::SPDY_PING, 0, frame.payload)) return false;
  }
}

bool RawTlsPeer::Sync(uint32_t id) {
  if (!SendControl(base::SPDY_PING, 0, Words({id}))) return false;
  RawFrame frame;
  while (ReadFrameFromConnection(frame)) {
    if (frame.is_control(base::SPDY_PING) && frame.word(0) == id) return true;
    kept_frames_.push_back(frame);
  }
  return false;
}

base::RPCConnectionHeaders RawTlsPeer::RequestHeaders(const std::string& function) {
  base::RPCConnectionHeaders headers;
  headers[base::RPC_HEADER_CLASS] = "1";
  headers[base::RPC_HEADER_FUNCTION] = function;
  return headers;
}

std::vector<uint8_t> RawTlsPeer::SynStreamPayload(uint32_t stream_id, const base::RPCConnectionHeaders& headers) {
  base::CNetworkBuffer* buffer = base::CNetworkBuffer::Allocate();
  base::pack_syn_stream(buffer, stream_id, 0, base::SPDY_DEFAULT_PRIORITY);
  base::encode_headers(buffer, headers);
  std::vector<uint8_t> payload = BufferBytes(buffer);
  base::CNetworkBuffer::Free(buffer);
  return payload;
}

std::vector<uint8_t> RawTlsPeer::StreamIdPayload(uint32_t stream_id, const base::RPCConnectionHeaders& headers) {
  base::CNetworkBuffer* buffer = base::CNetworkBuffer::Allocate();
  base::pack_stream_id(buffer, stream_id);
  base::encode_headers(buffer, headers);
  std::vector<uint8_t> payload = BufferBytes(buffer);
  base::CNetworkBuffer::Free(buffer);
  return payload;
}

std::vector<uint8_t> RawTlsPeer::Words(const std::vector<uint32_t>& words) {
  std::vector<uint8_t> bytes;
  for (uint32_t word : words) {
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(word >> shift));
  }
  return bytes;
}

bool RawTlsPeer::DecodeHeaders(const RawFrame& frame, base::RPCConnectionHeaders& headers) {
  base::CNetworkBuffer* buffer = base::CNetworkBuffer::Allocate();
  std::memcpy(buffer->data, frame.payload.data(), frame.payload.size());
  buffer->length = frame.payload.size();
  unsigned long offset = 4;
  bool decoded = frame.payload.size() >= 4 && base::decode_headers(buffer, offset, headers);
  base::CNetworkBuffer::Free(buffer);
  return decoded;
}

}  // namespace test
}  // namespace apm
