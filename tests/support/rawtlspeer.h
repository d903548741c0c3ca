// RawTlsPeer: the far end of an RPC connection for tests, written by hand: a
// blocking TLS client or server on 127.0.0.1 that sends and reads the version
// exchange and frames byte by byte, so that tests can send what a well-behaved
// peer never would and look at exactly what the engine puts on the wire.
//
// Reads wait at most the read time-out (default 5 s) and then fail with
// timed_out() set. Frames read while waiting for the echo of Sync are kept by the
// peer and handed out first by ReadFrame. One peer is one connection; it is used
// by one thread.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "base/rpc/rpcconnectionheaders.h"
#include "base/rpc/rpcframe.h"

namespace apm {
namespace test {

struct RawFrame {
  base::FrameHeader header;
  std::vector<uint8_t> payload;

  bool is_control(uint16_t type) const { return header.is_control() && header.type() == type; }
  // The first and second big-endian words of the payload.
  uint32_t word(size_t index) const;
};

class RawTlsPeer {
 public:
  RawTlsPeer();
  ~RawTlsPeer();
  RawTlsPeer(const RawTlsPeer&) = delete;
  RawTlsPeer& operator=(const RawTlsPeer&) = delete;

  // Client: TCP to 127.0.0.1:`port`, then (unless `tls` is false) a TLS handshake
  // presenting `certificate_file` if not empty.
  bool Connect(unsigned short port, const std::string& certificate_file, bool tls = true);
  // Server: listens on an ephemeral port of 127.0.0.1 and returns it.
  unsigned short Listen();
  // Accepts one client and (unless `tls` is false) runs TLS as server.
  bool Accept(const std::string& certificate_file, bool tls = true);

  void SetReadTimeout(int milliseconds);
  bool timed_out() const { return timed_out_; }

  bool Write(const std::vector<uint8_t>& bytes);
  bool Read(uint8_t* destination, size_t size);
  // Reads the plaintext of one TLS record (one SSL_read), in place of `bytes`; shows
  // which frames the other side wrote together. TLS only.
  bool ReadRecord(std::vector<uint8_t>& bytes);
  // Reads until the connection ends (true) or the time-out strikes (false).
  bool WaitForEnd();
  // Closes TLS (close_notify) and the socket.
  void Close();

  // Version exchange, connecting side: the request with the given fields, and the
  // response read whole (status, text, data).
  bool SendVersionRequest(uint64_t version, uint16_t level = 3, uint16_t revision = 8, uint32_t connection_id = 0);
  bool ReadVersionResponse(uint32_t& status, std::string& text, std::vector<uint8_t>& data);
  // Connecting side in one go, with this system's version; true if accepted.
  bool Handshake();
  // Version exchange, accepting side: reads the 32-byte request.
  bool ReadVersionRequest(std::vector<uint8_t>& request);

  bool SendControl(uint16_t type, uint8_t flags, const std::vector<uint8_t>& payload, uint16_t version = 3);
  bool SendData(uint32_t stream_id, uint8_t flags, const std::vector<uint8_t>& payload);
  // The frames kept by Sync first, then frames from the connection.
  bool ReadFrame(RawFrame& frame);
  // Reads frames until one that is not a PING; PINGs of the other side are echoed.
  bool ReadFrameAnsweringPings(RawFrame& frame);
  // A PING with `id` from this side and its echo prove that the connection lives
  // and that the other side has dealt with everything sent before. Frames read on
  // the way are kept, in order of arrival.
  bool Sync(uint32_t id = 101);
  const std::deque<RawFrame>& kept_frames() const { return kept_frames_; }

  // The headers of a request stream: class 1 and the RPC number `function`.
  static base::RPCConnectionHeaders RequestHeaders(const std::string& function = "3600");
  // Payloads built with the frame codec.
  static std::vector<uint8_t> SynStreamPayload(uint32_t stream_id, const base::RPCConnectionHeaders& headers);
  static std::vector<uint8_t> StreamIdPayload(uint32_t stream_id, const base::RPCConnectionHeaders& headers);
  static std::vector<uint8_t> Words(const std::vector<uint32_t>& words);
  // Decodes the header block of a SYN_REPLY or HEADERS frame.
  static bool DecodeHeaders(const RawFrame& frame, base::RPCConnectionHeaders& headers);

 private:
  bool StartTls(const std::string& certificate_file, bool server);
  bool ReadFrameFromConnection(RawFrame& frame);

  int listener_ = -1;
  int socket_ = -1;
  SSL_CTX* context_ = nullptr;
  SSL* ssl_ = nullptr;
  bool timed_out_ = false;
  std::deque<RawFrame> kept_frames_;
};

}  // namespace test
}  // namespace apm
