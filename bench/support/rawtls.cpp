#include "bench/support/rawtls.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>

#include "base/conditionvariable.h"
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

// One end of a HandOffPingPong: its reader thread waits for the socket, reads one
// message of `bytes` under `lock_` and hands it over through `condition_`; Await
// takes it on the waiting thread, Write writes under `lock_`. The end is closed once
// a read fails (the peer shut the connection down), which wakes Await with false.
// A reader holds `lock_` until a whole message is read: the messages are small.
class HandOffEnd : private boost::noncopyable {
 public:
  HandOffEnd(SSL* ssl, int socket, size_t bytes) : ssl_(ssl), socket_(socket), received_(bytes) {
    // Whole records in one read, as the engine's TLS stream reads them.
    SSL_set_read_ahead(ssl_, 1);
    reader_ = std::thread([this]() { Read(); });
  }
  ~HandOffEnd() { reader_.join(); }

  bool Write(const std::vector<uint8_t>& message) {
    std::lock_guard<std::mutex> locked(lock_);
    return SSL_write(ssl_, message.data(), static_cast<int>(message.size())) == static_cast<int>(message.size());
  }

  bool Await(std::vector<uint8_t>& message) {
    base::ConditionVariable::ScopedLock locked(condition_);
    while (!ready_ && !closed_) condition_.Wait();
    if (!ready_) return false;
    message.swap(received_);
    received_.resize(message.size());
    ready_ = false;
    return true;
  }

 private:
  void Read() {
    std::vector<uint8_t> message(received_.size());
    for (;;) {
      bool pending;
      {
        std::lock_guard<std::mutex> locked(lock_);
        pending = SSL_has_pending(ssl_) == 1;
      }
      struct pollfd readable = {socket_, POLLIN, 0};
      if (!pending && poll(&readable, 1, -1) != 1) break;
      bool read;
      {
        std::lock_guard<std::mutex> locked(lock_);
        read = ReadMessage(message);
      }
      if (!read) break;
      {
        base::ConditionVariable::ScopedLock locked(condition_);
        received_.swap(message);
        ready_ = true;
      }
      condition_.Wakeup();
    }
    {
      base::ConditionVariable::ScopedLock locked(condition_);
      closed_ = true;
    }
    condition_.Wakeup();
  }

  bool ReadMessage(std::vector<uint8_t>& message) {
    for (size_t done = 0; done < message.size();) {
      const int count = SSL_read(ssl_, message.data() + done, static_cast<int>(message.size() - done));
      if (count <= 0) return false;
      done += static_cast<size_t>(count);
    }
    return true;
  }

  SSL* const ssl_;
  const int socket_;
  std::mutex lock_;  // the end's TLS session, as the engine's strand keeps it
  base::ConditionVariable condition_;
  std::vector<uint8_t> received_;  // guarded by condition_
  bool ready_ = false;             // guarded by condition_
  bool closed_ = false;            // guarded by condition_
  std::thread reader_;
};

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

std::vector<double> RawTlsPair::HandOffPingPong(size_t bytes, int count) {
  std::vector<double> times;
  times.reserve(static_cast<size_t>(count));
  HandOffEnd server(server_, server_socket_, bytes);
  HandOffEnd client(client_, client_socket_, bytes);
  std::thread echo([&]() {
    std::vector<uint8_t> message;
    while (server.Await(message) && server.Write(message)) {
    }
  });
  std::vector<uint8_t> message(bytes, 1);
  for (int index = 0; index < count; ++index) {
    const auto started = std::chrono::steady_clock::now();
    if (!client.Write(message) || !client.Await(message)) break;
    times.push_back(MicrosecondsSince(started));
  }
  // Ends both readers: the server's sees the end of the stream, the client's its own
  // shut-down socket.
  shutdown(client_socket_, SHUT_RDWR);
  echo.join();
  return times;
}

}  // namespace bench
}  // namespace apm
