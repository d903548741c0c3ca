// The deprecated OpenSSL calls of the TLS set-up (RSA key file, temporary DH and
// ECDH parameters) are what peers of this protocol expect.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "base/rpc/rpcspdyconnectionimpl.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/dh.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <cstring>

#include "base/famerror.h"
#include "base/rpc/certificatemgr.h"
#include "base/rpc/rpctrustedcertificates.h"
#include "base/rpc/rpcversionexchange.h"
#include "base/strtools.h"

namespace apm {
namespace base {

namespace {

// Room for what one TLS read delivers (a record of up to 16 KiB) behind a partly
// received frame.
constexpr std::size_t kReceiveStagingSize = 32768;
constexpr std::size_t kReceiveReadMinimum = 16384;
// The most a worker writes on its own thread, in one TLS record.
constexpr std::size_t kWriteAtOnceLimit = 16384;
// How long a worker's frames may wait for its next message. Rare enough that the
// timer's wake-ups cost nothing a busy connection would notice.
constexpr std::chrono::milliseconds kLazyFlushDelay(10);

std::string socket_address(int descriptor, bool peer) {
  if (descriptor < 0) return std::string();
  struct sockaddr_storage address;
  socklen_t length = sizeof(address);
  int result = peer ? getpeername(descriptor, reinterpret_cast<struct sockaddr*>(&address), &length)
                    : getsockname(descriptor, reinterpret_cast<struct sockaddr*>(&address), &length);
  if (result != 0) return std::string();
  char text[INET6_ADDRSTRLEN] = "";
  if (address.ss_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<struct sockaddr_in*>(&address)->sin_addr, text, sizeof(text));
  } else if (address.ss_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<struct sockaddr_in6*>(&address)->sin6_addr, text, sizeof(text));
  }
  return text;
}

}  // namespace

template <class Stream>
boost::shared_ptr<CSpdyConnectionImpl<Stream>> CSpdyConnectionImpl<Stream>::create(
    const boost::shared_ptr<CConnectionIOService>& service, IConnectionHandlerFactory* factory,
    const boost::shared_ptr<IServerConnection>& server, uint32_t server_key,
    const RPCConnectionParameters& parameters) {
  return boost::shared_ptr<CSpdyConnectionImpl>(
      new CSpdyConnectionImpl(service, factory, server, server_key, parameters));
}

template <class Stream>
CSpdyConnectionImpl<Stream>::CSpdyConnectionImpl(const boost::shared_ptr<CConnectionIOService>& service,
                                                 IConnectionHandlerFactory* factory,
                                                 const boost::shared_ptr<IServerConnection>& server,
                                                 uint32_t server_key, const RPCConnectionParameters& parameters)
    : CSpdyConnection(service, factory, server, server_key, parameters),
      ssl_context(boost::asio::ssl::context::sslv23),
      flush_timer(service->get_io_service()) {
  // TLS 1.0 to 1.2: the peer is verified within the handshake and the configured
  // cipher lists apply (under TLS 1.3 a client would learn of a refused certificate
  // only on its first read, and the cipher lists would not restrict the suites).
  ssl_context.set_options(boost::asio::ssl::context::no_compression | boost::asio::ssl::context::no_sslv2 |
                          boost::asio::ssl::context::no_sslv3 | boost::asio::ssl::context::no_tlsv1_3);
  // No renegotiation: a worker's write on its own thread must never have to read.
  SSL_CTX_set_options(ssl_context.native_handle(), SSL_OP_NO_RENEGOTIATION);
}

template <class Stream>
CSpdyConnectionImpl<Stream>::~CSpdyConnectionImpl() = default;

template <class Stream>
boost::shared_ptr<CSpdyConnection> CSpdyConnectionImpl<Stream>::get_pointer() {
  return this->shared_from_this();
}

template <class Stream>
std::string CSpdyConnectionImpl<Stream>::get_remote_address() {
  return socket_address(socket_descriptor.load(), true);
}

template <class Stream>
std::string CSpdyConnectionImpl<Stream>::get_local_address() {
  return socket_address(socket_descriptor.load(), false);
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::note_socket_descriptor() {
  socket_descriptor.store(socket->lowest_layer().native_handle());
}

// ---------------------------------------------------------------------------
// TLS

template <class Stream>
bool CSpdyConnectionImpl<Stream>::init_socket(bool server_side) {
  if (socket) return true;
  const std::string& file = parameters.certificate_file;
  if (!file.empty()) {
    namespace ssl = boost::asio::ssl;
    ssl_context.set_password_callback(
        [](std::size_t, ssl::context::password_purpose) { return std::string(); });
    ssl_context.set_verify_mode(server_side ? ssl::verify_peer | ssl::verify_fail_if_no_peer_cert
                                            : ssl::verify_peer);
    ssl_context.set_verify_callback(
        [this](bool preverified, ssl::verify_context& context) { return verify_callback(preverified, context); });

    boost::system::error_code error;
    ssl_context.use_certificate_file(file, ssl::context::pem, error);
    if (error) {
      FamError::SetError(error.value(), "invalid certificate \"" + file + "\" (" + error.message() + ")");
      return false;
    }
    ssl_context.use_rsa_private_key_file(file, ssl::context::pem, error);
    if (error) {
      FamError::SetError(error.value(), "invalid private key \"" + file + "\" (" + error.message() + ")");
      return false;
    }
    SSL_CTX* context = ssl_context.native_handle();
    if (DH* dh = certificate::CertificateManager::get_dh2048()) {
      if (SSL_CTX_set_tmp_dh(context, dh) != 1) FamError::SetError(E_FAIL_CODE, "cannot set temp dh param");
      DH_free(dh);
    }
    EC_KEY* ecdh = EC_KEY_new_by_curve_name(NID_X9_62_prime256v1);
    if (ecdh == nullptr || SSL_CTX_set_tmp_ecdh(context, ecdh) != 1) {
      FamError::SetError(E_FAIL_CODE, "cannot set ecdh param");
    }
    EC_KEY_free(ecdh);
    if (!parameters.cipher_list.empty() && SSL_CTX_set_cipher_list(context, parameters.cipher_list.c_str()) != 1) {
      FamError::SetError(E_FAIL_CODE, "error setting cipher list");
      return false;
    }
  }
  socket.reset(new Stream(service->get_io_service(), ssl_context));
  return true;
}

template <class Stream>
bool CSpdyConnectionImpl<Stream>::verify_callback(bool /*preverified*/, boost::asio::ssl::verify_context& context) {
  // The library's own verdict is ignored: trust is a listed fingerprint.
  X509* certificate = X509_STORE_CTX_get_current_cert(context.native_handle());
  if (certificate == nullptr) return true;
  std::string fingerprint, cn;
  certificate::CX509::get_fingerprint(certificate, fingerprint);
  certificate::CX509::get_cn(certificate, cn);
  return IsTrustedCertificate(parameters.trusted_certificates_file, fingerprint, cn,
                              parameters.trust_first_certificate);
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::shutdown() {
  if (!socket || !socket->lowest_layer().is_open()) return;
  if (secured) {
    secured = false;
    if (writing) {
      tls_shutdown_deferred = true;
    } else {
      start_tls_shutdown();
    }
  } else {
    boost::system::error_code ignored;
    socket->lowest_layer().close(ignored);
    socket_descriptor.store(-1);
  }
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::start_tls_shutdown() {
  tls_shutdown_started = true;
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  socket->async_shutdown(on_strand([self](const boost::system::error_code& error) { self->handle_shutdown(error); }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_shutdown(const boost::system::error_code& /*error*/) {
  connected = false;
  boost::system::error_code ignored;
  socket->lowest_layer().shutdown(boost::asio::ip::tcp::socket::shutdown_both, ignored);
}

// ---------------------------------------------------------------------------
// Connecting side

template <class Stream>
void CSpdyConnectionImpl<Stream>::start_connect() {
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  boost::asio::post(strand, [self]() { self->handle_connect(); });
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::fail_connect(const boost::system::error_code& error, const std::string& text) {
  set_connect_failure(error, text);
  _connect_result(false);
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_connect() {
  if (connecting || connect_done) return;
  {
    FamError scope;
    if (!init_socket(false)) {
      set_connect_failure_text("could not create socket: " + scope.message);
      _connect_result(false);
      return;
    }
  }
  start_connect_timeout();
  connecting = true;
  connected = false;
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  resolver.async_resolve(parameters.host, IntToString(parameters.port),
                         boost::asio::ip::resolver_base::address_configured,
                         on_strand([self](const boost::system::error_code& error, const ResolveResults& results) {
                           self->handle_resolve(error, results);
                         }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_resolve(const boost::system::error_code& error,
                                                 const ResolveResults& results) {
  const std::string address = parameters.host + ":" + IntToString(parameters.port);
  if (error) {
    fail_connect(error, "could not resolve host " + address);
    return;
  }
  set_connect_failure(error, std::string());
  resolved = results;
  start_socket_connect(resolved.begin());
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::start_socket_connect(ResolveIterator first) {
  ResolveIterator next = first;
  if (next != resolved.end()) ++next;
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  boost::asio::async_connect(socket->lowest_layer(), first, resolved.end(),
                             on_strand([self, next](const boost::system::error_code& error, ResolveIterator) {
                               self->handle_socket_connect(error, next);
                             }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_socket_connect(const boost::system::error_code& error,
                                                        ResolveIterator next) {
  const std::string address = parameters.host + ":" + IntToString(parameters.port);
  if (!error) {
    set_connect_failure(error, std::string());
    note_socket_descriptor();
    boost::system::error_code ignored;
    socket->lowest_layer().set_option(boost::asio::ip::tcp::no_delay(true), ignored);
    boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
    socket->async_handshake(boost::asio::ssl::stream_base::client,
                            on_strand([self](const boost::system::error_code& handshake_error) {
                              self->handle_client_handshake(handshake_error);
                            }));
    return;
  }
  if (error == boost::asio::error::operation_aborted) {
    // The connect time-out closed the socket.
    fail_connect(boost::system::error_code(), "timeout connecting to " + address);
    return;
  }
  if (next != resolved.end()) {
    boost::system::error_code ignored;
    socket->lowest_layer().close(ignored);
    start_socket_connect(next);
    return;
  }
  fail_connect(error, "could not connect to " + address);
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_client_handshake(const boost::system::error_code& error) {
  if (error) {
    fail_connect(error, "cannot establish secure connection");
    return;
  }
  secured = true;
  handshake_buffer = CNetworkBuffer::Allocate();
  handshake_message =
      pack_version_request(parameters.connection_id, RPC_LOCAL_VERSION, service->get_start_timestamp());
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  boost::asio::async_write(*socket, boost::asio::buffer(handshake_message),
                           on_strand([self](const boost::system::error_code& write_error, std::size_t) {
                             self->handle_send_version_rpc(write_error);
                           }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_send_version_rpc(const boost::system::error_code& error) {
  if (error) {
    fail_connect(error, "could not send initial rpc handshake");
    return;
  }
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  boost::asio::async_read(*socket, boost::asio::buffer(handshake_buffer->data, RPC_HANDSHAKE_HEADER_SIZE),
                          on_strand([self](const boost::system::error_code& read_error, std::size_t bytes) {
                            self->handle_read_version_rpc_response_head(read_error, bytes);
                          }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_read_version_rpc_response_head(const boost::system::error_code& error,
                                                                        std::size_t bytes) {
  if (error) {
    fail_connect(error, "could not receive initial rpc handshake");
    return;
  }
  if (bytes < RPC_HANDSHAKE_HEADER_SIZE) {
    fail_connect(boost::system::error_code(90, boost::system::system_category()),
                 "invalid initial rpc handshake response");
    return;
  }
  VersionResponseHead head = unpack_version_response_head(handshake_buffer->data);
  handshake_status = head.status;
  if (head.text_length >= 1 && head.text_length <= RPC_HANDSHAKE_MAX_PART) {
    boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
    boost::asio::async_read(*socket, boost::asio::buffer(handshake_buffer->data, head.text_length),
                            on_strand([self](const boost::system::error_code& read_error, std::size_t count) {
                              self->handle_read_version_rpc_response_error(read_error, count);
                            }));
    return;
  }
  read_version_rpc_response_data();
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_read_version_rpc_response_error(const boost::system::error_code& error,
                                                                         std::size_t bytes) {
  if (error) {
    fail_connect(error, "could not receive initial rpc handshake error");
    return;
  }
  handshake_error_text.assign(reinterpret_cast<const char*>(handshake_buffer->data), bytes);
  read_version_rpc_response_data();
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::read_version_rpc_response_data() {
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  boost::asio::async_read(*socket, boost::asio::buffer(handshake_buffer->data, 4),
                          on_strand([self](const boost::system::error_code& error, std::size_t bytes) {
                            self->handle_read_version_rpc_response_data_length(error, bytes);
                          }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_read_version_rpc_response_data_length(
    const boost::system::error_code& error, std::size_t /*bytes*/) {
  if (error) {
    fail_connect(error, "could not receive initial rpc handshake response data length");
    return;
  }
  uint32_t length = unpack_version_response_data_length(handshake_buffer->data);
  if (length >= 1 && length <= RPC_HANDSHAKE_MAX_PART) {
    boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
    boost::asio::async_read(*socket, boost::asio::buffer(handshake_buffer->data, length),
                            on_strand([self](const boost::system::error_code& read_error, std::size_t bytes) {
                              self->handle_read_version_rpc_response_data(read_error, bytes);
                            }));
    return;
  }
  // No data: a denial, in the peer's own words when it gave any.
  if (handshake_status != 0 && !handshake_error_text.empty()) {
    fail_connect(boost::system::error_code(), handshake_error_text);
  } else {
    fail_connect(boost::system::error_code(), "invalid initial rpc handshake response");
  }
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_read_version_rpc_response_data(const boost::system::error_code& error,
                                                                        std::size_t bytes) {
  if (error) {
    fail_connect(error, "could not receive initial rpc handshake response data");
    return;
  }
  if (bytes < RPC_HANDSHAKE_RESPONSE_DATA_SIZE) {
    fail_connect(boost::system::error_code(), "invalid initial rpc handshake response data");
    return;
  }
  VersionResponseData data = unpack_version_response_data(handshake_buffer->data);
  remote_version = data.version;
  remote_start_timestamp = data.start_timestamp;
  if (remote_version < parameters.min_version) {
    fail_connect(boost::system::error_code(), "remote rpc version is incompatible");
    return;
  }
  _connect_result(true);
  recv_frame();
  start_ping();
}

// ---------------------------------------------------------------------------
// Accepting side

template <class Stream>
void CSpdyConnectionImpl<Stream>::start_server() {
  // Called by the acceptor on its own strand: the connection's state is touched
  // only on the connection's strand, where a close may already have come first.
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  boost::asio::post(strand, [self]() { self->handle_start_server(); });
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_start_server() {
  // Stopped before it began (the acceptor closed meanwhile): the socket goes with
  // the object.
  if (handler_factory == nullptr || !socket->lowest_layer().is_open()) return;
  CSpdyConnection::start_server();
  note_socket_descriptor();
  fcntl(socket_descriptor.load(), F_SETFD, FD_CLOEXEC);
  boost::system::error_code ignored;
  socket->lowest_layer().set_option(boost::asio::ip::tcp::no_delay(true), ignored);
  start_connect_timeout();
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  socket->async_handshake(boost::asio::ssl::stream_base::server,
                          on_strand([self](const boost::system::error_code& error) {
                            self->handle_server_handshake(error);
                          }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_server_handshake(const boost::system::error_code& error) {
  if (error) {
    fail_connect(error, "cannot establish secure connection");
    // Nobody waits for an accepted connection: the reason is only logged, in a
    // record of its own so that nothing stays on the I/O thread.
    FamError scope;
    set_error();
    return;
  }
  secured = true;
  handshake_buffer = CNetworkBuffer::Allocate();
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  boost::asio::async_read(*socket, boost::asio::buffer(handshake_buffer->data, RPC_HANDSHAKE_HEADER_SIZE),
                          on_strand([self](const boost::system::error_code& read_error, std::size_t bytes) {
                            self->handle_read_version_rpc_request_header(read_error, bytes);
                          }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_read_version_rpc_request_header(const boost::system::error_code& error,
                                                                         std::size_t bytes) {
  if (error) {
    fail_connect(error, "cannot receive initial rpc header");
    return;
  }
  if (bytes < RPC_HANDSHAKE_HEADER_SIZE) {
    fail_connect(boost::system::error_code(), "invalid initial rpc header");
    return;
  }
  VersionRequestHeader header = unpack_version_request_header(handshake_buffer->data);
  if (header.type != RPC_HANDSHAKE_REQUEST_TYPE || header.reserved != 0 || header.body_length < 1 ||
      header.body_length > RPC_HANDSHAKE_MAX_PART - 1) {
    fail_connect(boost::system::error_code(), "invalid initial rpc request");
    return;
  }
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  boost::asio::async_read(*socket, boost::asio::buffer(handshake_buffer->data, header.body_length),
                          on_strand([self](const boost::system::error_code& read_error, std::size_t count) {
                            self->handle_read_version_rpc_request_data(read_error, count);
                          }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_read_version_rpc_request_data(const boost::system::error_code& error,
                                                                       std::size_t bytes) {
  if (error) {
    fail_connect(error, "cannot receive initial rpc data");
    return;
  }
  if (bytes < RPC_HANDSHAKE_REQUEST_BODY_SIZE) {
    fail_connect(boost::system::error_code(), "invalid initial rpc data received");
    return;
  }
  VersionRequestBody body = unpack_version_request_body(handshake_buffer->data);
  connection_id = body.connection_id;
  remote_version = body.version;
  remote_start_timestamp = body.start_timestamp;
  if (body.protocol_level != RPC_PROTOCOL_LEVEL || body.protocol_revision != RPC_PROTOCOL_REVISION ||
      body.version < parameters.min_version) {
    // No response: the peer's read fails.
    fail_connect(boost::system::error_code(), "invalid initial rpc received");
    return;
  }

  bool accepted = false;
  int code = 0;
  std::string text;
  {
    FamError scope;
    accepted = handler_factory != nullptr && handler_factory->connection_opened(get_pointer());
    code = scope.code;
    text = scope.message;
  }
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  if (accepted) {
    handshake_message = pack_version_response(RPC_LOCAL_VERSION, service->get_start_timestamp());
    boost::asio::async_write(*socket, boost::asio::buffer(handshake_message),
                             on_strand([self](const boost::system::error_code& write_error, std::size_t) {
                               self->handle_send_version_rpc_response(write_error);
                             }));
  } else {
    handshake_message = pack_version_denial(static_cast<uint32_t>(code), text);
    boost::asio::async_write(*socket, boost::asio::buffer(handshake_message),
                             on_strand([self](const boost::system::error_code& write_error, std::size_t) {
                               self->handle_send_version_rpc_deny(write_error);
                             }));
  }
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_send_version_rpc_response(const boost::system::error_code& error) {
  if (error) {
    fail_connect(error, "cannot send initial rpc response");
    return;
  }
  _connect_result(true);
  recv_frame();
  start_ping();
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_send_version_rpc_deny(const boost::system::error_code& /*error*/) {
  fail_connect(boost::system::error_code(), "connection denied");
}

// ---------------------------------------------------------------------------
// Frames

template <class Stream>
void CSpdyConnectionImpl<Stream>::recv_frame() {
  if (receive_staging.empty()) receive_staging.resize(kReceiveStagingSize);
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  socket->async_read_some(
      boost::asio::buffer(receive_staging.data() + receive_end, receive_staging.size() - receive_end),
      on_strand([self](const boost::system::error_code& error, std::size_t bytes) { self->handle_recv(error, bytes); }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_recv(const boost::system::error_code& error, std::size_t bytes) {
  if (error) {
    stop();
    return;
  }
  receive_end += bytes;
  if (!process_received()) return;
  if (receive_begin == receive_end) {
    receive_begin = receive_end = 0;
  } else if (receive_staging.size() - receive_end < kReceiveReadMinimum) {
    std::memmove(receive_staging.data(), receive_staging.data() + receive_begin, receive_end - receive_begin);
    receive_end -= receive_begin;
    receive_begin = 0;
  }
  recv_frame();
}

template <class Stream>
bool CSpdyConnectionImpl<Stream>::process_received() {
  while (receive_end - receive_begin >= FRAME_HEADER_SIZE) {
    const uint8_t* start = receive_staging.data() + receive_begin;
    FrameHeader header = unpack_frame_header(start);
    const uint32_t length = header.length();
    if (length > MAX_FRAME_PAYLOAD) {
      // The payload is never read: the connection ends here.
      send_rst_stream(0, SPDY_STATUS_FRAME_TOO_LARGE);
      stop();
      return false;
    }
    if (receive_end - receive_begin < FRAME_HEADER_SIZE + length) break;
    if (length != 0) {
      read_buffer = header.is_control() ? &control_payload : CNetworkBuffer::Allocate();
      std::memcpy(read_buffer->data, start + FRAME_HEADER_SIZE, length);
      read_buffer->length = length;
    }
    receive_begin += FRAME_HEADER_SIZE + length;
    process_frame(header);
    if (read_buffer != &control_payload) CNetworkBuffer::Free(read_buffer);
    read_buffer = nullptr;
  }
  return true;
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::start_write() {
  gather_queued_frames();
  // A write under way takes what gathered meanwhile when it completes.
  if (write_in_flight) return;
  if (outgoing.empty()) {
    stop_if_finished();
    return;
  }
  if (write_at_once) {
    // A worker's message end or stream end, handled on the worker's thread: the
    // bytes leave from here. A write posted earlier (for a window update, say) then
    // finds nothing left to do.
    if (!write_outgoing_at_once()) write_outgoing();
    return;
  }
  if (write_posted) return;
  if (CConnectionStrand::running_for_caller() && !write_soon) {
    if (flush_armed) return;
    // A worker's other frames (headers, acknowledgements, a data frame held for
    // its FLAG_FIN) wait for its next message, which takes them along, or for a
    // short timer, which wakes an I/O thread only when nothing else has sent them.
    arm_flush_timer();
    return;
  }
  // The write itself runs after the handlers already waiting on the strand, so
  // that the frames of a burst (a request's SYN_STREAM, data and FLAG_FIN, say)
  // leave together. `writing` covers the wait, as it covers the write.
  write_posted = true;
  update_writing();
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  boost::asio::post(strand, [self]() { self->handle_posted_write(); });
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::gather_queued_frames() {
  // A frame's bytes join the outgoing bytes as soon as it is queued, and its buffer
  // is freed there: a buffer lives only from its filling to its queuing, whatever
  // the socket's pace. The bytes on the wire are the same as frame by frame.
  for (PendingFrame& frame : write_queue) {
    outgoing.insert(outgoing.end(), frame.header, frame.header + FRAME_HEADER_SIZE);
    if (frame.buffer != nullptr) {
      const std::size_t payload =
          static_cast<std::size_t>(std::min<uint64_t>(frame.buffer->length, MAX_FRAME_PAYLOAD));
      outgoing.insert(outgoing.end(), frame.buffer->data, frame.buffer->data + payload);
      CNetworkBuffer::Free(frame.buffer);
    }
  }
  write_queue.clear();
}

template <class Stream>
bool CSpdyConnectionImpl<Stream>::write_outgoing_at_once() {
  if (!socket || tls_shutdown_deferred || tls_shutdown_started) return false;
  if (outgoing.size() > kWriteAtOnceLimit) return false;
  // Only when the socket's send queue is empty (all written before has been
  // acknowledged), so that the socket takes the bytes at once: a peer that does not
  // read must never hold the worker and the strand.
  const int descriptor = socket->lowest_layer().native_handle();
  int queued = 0;
  if (ioctl(descriptor, SIOCOUTQ, &queued) != 0 || queued != 0) return false;
  // A write that completes on this thread: no completion is posted, so no I/O
  // thread wakes for it.
  boost::system::error_code error;
  boost::asio::write(*socket, boost::asio::buffer(outgoing), error);
  outgoing.clear();
  held_acknowledgements = 0;
  if (error) {
    stop();
  } else {
    stop_if_finished();
  }
  return true;
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::arm_flush_timer() {
  flush_armed = true;
  update_writing();
  flush_timer.expires_after(kLazyFlushDelay);
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  // Never cancelled: a stop lets it run out, and what it finds still goes out (or
  // the TLS shutdown that waited for it begins).
  flush_timer.async_wait(on_strand([self](const boost::system::error_code&) { self->handle_flush_timer(); }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_flush_timer() {
  flush_armed = false;
  write_outgoing();
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::update_writing() {
  writing = write_posted || write_in_flight || flush_armed;
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_posted_write() {
  write_posted = false;
  write_outgoing();
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::write_outgoing() {
  // A write under way takes what gathered meanwhile when it completes, and keeps
  // `writing` set until then.
  if (write_in_flight) return;
  if (!socket || tls_shutdown_deferred || tls_shutdown_started) {
    // Never connected, or the connection is ending: nothing more goes out.
    outgoing.clear();
    update_writing();
    if (tls_shutdown_deferred) {
      tls_shutdown_deferred = false;
      start_tls_shutdown();
    }
    if (!socket) stop();
    return;
  }
  if (outgoing.empty()) {
    // Taken by a write started meanwhile, which has completed.
    update_writing();
    stop_if_finished();
    return;
  }
  // Everything gathered so far goes out in one write; what is queued meanwhile
  // gathers for the next.
  in_flight.swap(outgoing);
  outgoing.clear();
  held_acknowledgements = 0;
  write_in_flight = true;
  update_writing();
  boost::shared_ptr<CSpdyConnectionImpl> self = this->shared_from_this();
  boost::asio::async_write(*socket, boost::asio::buffer(in_flight),
                           on_strand([self](const boost::system::error_code& error, std::size_t) {
                             self->handle_write(error);
                           }));
}

template <class Stream>
void CSpdyConnectionImpl<Stream>::handle_write(const boost::system::error_code& error) {
  write_in_flight = false;
  update_writing();
  if (tls_shutdown_deferred) {
    tls_shutdown_deferred = false;
    start_tls_shutdown();
  }
  if (error) {
    stop();
    return;
  }
  start_write();
}

template class CSpdyConnectionImpl<boost::asio::ssl::stream<boost::asio::ip::tcp::socket>>;

boost::shared_ptr<IPhysicalConnection> IPhysicalConnection::CreateSpdyClientConnection(
    const boost::shared_ptr<IConnectionIOService>& service, IConnectionHandlerFactory* factory,
    const RPCConnectionParameters& parameters) {
  boost::shared_ptr<CSpdySslConnection> connection =
      CSpdySslConnection::create(boost::static_pointer_cast<CConnectionIOService>(service), factory,
                                 boost::shared_ptr<IServerConnection>(), 0, parameters);
  connection->connect();
  return connection;
}

}  // namespace base
}  // namespace apm
