// The TLS baseline of the benchmark programs: plain OpenSSL on both ends of a
// socket pair on 127.0.0.1, doing the same work as the RPC transport.
//
// BenchTlsSettings limits every TLS context of the process to TLS 1.2 and
// kBenchCipher, through an OpenSSL configuration file it writes at construction and
// removes at destruction; it must be made before the first TLS context (first thing
// in main). BenchIdentities holds the server's and the client's self-signed
// certificate files, made once per run in a temporary directory and removed at exit.
//
// RawTlsPair owns both sockets, both contexts and both TLS sessions; the handshake
// is done by the constructor. Bulk, PingPong and HandOffPingPong run the server end
// on threads of their own; one thread drives a pair at a time. After a ping-pong the
// pair is shut down and good for nothing more.
#pragma once

#include <openssl/ssl.h>

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace apm {
namespace bench {

// The one suite that both ends of every benchmark connection speak.
extern const char kBenchCipher[];

class BenchTlsSettings : private boost::noncopyable {
 public:
  BenchTlsSettings();
  ~BenchTlsSettings();

 private:
  std::string path_;
};

struct BenchIdentities : private boost::noncopyable {
  BenchIdentities();
  ~BenchIdentities();

  std::string directory, server, client;
};

// The identities of this run, made at the first call.
const BenchIdentities& GetBenchIdentities();

class RawTlsPair : private boost::noncopyable {
 public:
  RawTlsPair();
  ~RawTlsPair();

  // The protocol and suite the pair negotiated, shown beside the figures.
  std::string Cipher() const;

  // Sends `payload` bytes from the client to the server in TLS records of `record`
  // bytes, each preceded by a record of `header` bytes of its own if `header` is
  // not 0; the server reads everything and answers with 4 bytes, which the client
  // awaits. False if a read or write failed.
  bool Bulk(size_t payload, size_t record, size_t header);

  // `count` round trips of a `bytes`-byte message that the server echoes; the
  // time of each in microseconds. Shuts the pair down afterwards.
  std::vector<double> PingPong(size_t bytes, int count);

  // PingPong with the hand-off of the connection engine's threading on both ends
  // and nothing else of it: a reader thread waits until the socket is readable,
  // reads the message under the end's lock and hands it to a waiting thread through
  // a ConditionVariable; that thread writes under the same lock. What this costs
  // above PingPong is the floor of any engine built that way, on this machine.
  std::vector<double> HandOffPingPong(size_t bytes, int count);

 private:
  static bool ReadAll(SSL* ssl, uint8_t* data, size_t size);
  static bool WriteAll(SSL* ssl, const uint8_t* data, size_t size);

  int server_socket_, client_socket_;
  SSL_CTX* server_context_;
  SSL_CTX* client_context_;
  SSL* server_;
  SSL* client_;
};

}  // namespace bench
}  // namespace apm
