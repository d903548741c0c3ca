#include "bench/support/rawtls.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "base/famerror.h"
#include "base/rpc/certificatemgr.h"
#include "bench/support/measure.h"

namespace apm {
namespace bench {

const char kBenchCipher[] = "ECDHE-RSA-AES128-GCM-SHA256";

namespace {

std::string UniqueTemporaryPath(const char* pattern) {
  return (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path(pattern)).string();
}

}  // namespace

BenchTlsSettings::BenchTlsSettings() : path_(UniqueTemporaryPath("ecomm-bench-%%%%%%.cnf")) {
  std::ofstream file(path_);
  file << "openssl_conf = openssl_init\n[openssl_init]\nssl_conf = ssl_module\n[ssl_module]\n"
       << "system_default = tls_defaults\n[tls_defaults]\nMinProtocol = TLSv1.2\nMaxProtocol = TLSv1.2\n"
       << "CipherString = " << kBenchCipher << "\n";
  file.close();
  setenv("OPENSSL_CONF", path_.c_str(), 1);
}

BenchTlsSettings::~BenchTlsSettings() {
  boost::system::error_code ignored;
  boost::filesystem::remove(path_, ignored);
}

BenchIdentities::BenchIdentities() : directory(UniqueTemporaryPath("ecomm-bench-%%%%%%")) {
  boost::filesystem::create_directories(directory);
  base::FamError record;
  base::certificate::CertificateManager manager;
  std::string fingerprint;
  server = directory + "/server.pem";
  client = directory + "/client.pem";
  manager.CreateSelfSignedCertificate(server, "bench.server", fingerprint);
  manager.CreateSelfSignedCertificate(client, "bench.client", fingerprint);
}

BenchIdentities::~BenchIdentities() {
  boost::system::error_code ignored;
  boost::filesystem::remove_all(directory, ignored);
}

const BenchIdentities& GetBenchIdentities() {
  static BenchIdentities identities;
  return identities;
}

RawTlsPair::RawTlsPair() {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address;
  std::memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(listener, reinterpret_cast<struct sockaddr*>(&address), sizeof(address));
  listen(listener, 1);
  socklen_t length = sizeof(address);
  getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length);
  client_socket_ = socket(AF_INET, SOCK_STREAM, 0);
  connect(client_socket_, reinterpret_cast<struct sockaddr*>(&address), sizeof(address));
  server_socket_ = accept(listener, nullptr, nullptr);
  close(listener);
  int one = 1;
  setsockopt(client_socket_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  setsockopt(server_socket_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  const BenchIdentities& identities = GetBenchIdentities();
  server_context_ = SSL_CTX_new(TLS_method());
  SSL_CTX_use_certificate_file(server_context_, identities.server.c_str(), SSL_FILETYPE_PEM);
  SSL_CTX_use_PrivateKey_file(server_context_, identities.server.c_str(), SSL_FILETYPE_PEM);
  client_context_ = SSL_CTX_new(TLS_method());
  server_ = SSL_new(server_context_);
  client_ = SSL_new(client_context_);
  SSL_set_fd(server_, server_socket_);
  SSL_set_fd(client_, client_socket_);
  std::thread accepting([this]() { SSL_accept(server_); });
  SSL_connect(client_);
  accepting.join();
}

RawTlsPair::~RawTlsPair() {
  SSL_free(server_);
  SSL_free(client_);
  SSL_CTX_free(server_context_);
  SSL_CTX_free(client_context_);
  close(server_socket_);
  close(client_socket_);
}

std::string RawTlsPair::Cipher() const {
  return std::string(SSL_get_version(client_)) + " " + SSL_get_cipher_name(client_);
}

bool RawTlsPair::ReadAll(SSL* ssl, uint8_t* data, size_t size) {
  for (size_t done = 0; done < size;) {
    const int count = SSL_read(ssl, data + done, static_cast<int>(size - done));
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

bool RawTlsPair::WriteAll(SSL* ssl, const uint8_t* data, size_t size) {
  return SSL_write(ssl, data, static_cast<int>(size)) == static_cast<int>(size);
}

bool RawTlsPair::Bulk(size_t payload, size_t record, size_t header) {
  const size_t records = (payload + record - 1) / record;
  const size_t total = payload + records * header;
  bool received = false;
  std::thread reader([&]() {
    std::vector<uint8_t> data(16384);
    size_t done = 0;
    while (done < total) {
      const int count = SSL_read(server_, data.data(), static_cast<int>(data.size()));
      if (count <= 0) break;
      done += static_cast<size_t>(count);
    }
    received = done == total;
    WriteAll(server_, data.data(), 4);
  });
  const std::vector<uint8_t> chunk(std::max(record, header), 0x42);
  bool sent = true;
  for (size_t done = 0; sent && done < payload; done += record) {
    if (header != 0) sent = WriteAll(client_, chunk.data(), header);
    sent = sent && WriteAll(client_, chunk.data(), std::min(record, payload - done));
  }
  uint8_t answer[4];
  const bool answered = ReadAll(client_, answer, sizeof(answer));
  reader.join();
  return sent && received && answered;
}

std::vector<double> RawTlsPair::PingPong(size_t bytes, int count) {
  std::thread echo([&]() {
    std::vector<uint8_t> message(bytes);
    while (ReadAll(server_, message.data(), bytes) && WriteAll(server_, message.data(), bytes)) {
    }
  });
  std::vector<uint8_t> message(bytes, 1);
  std::vector<double> times;
  times.reserve(static_cast<size_t>(count));
  for (int index = 0; index < count; ++index) {
    const auto started = std::chrono::steady_clock::now();
    if (!WriteAll(client_, message.data(), bytes) || !ReadAll(client_, message.data(), bytes)) break;
    times.push_back(MicrosecondsSince(started));
  }
  shutdown(client_socket_, SHUT_RDWR);
  echo.join();
  return times;
}

}  // namespace bench
}  // namespace apm
