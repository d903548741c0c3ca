// Benchmarks of the RPC transport: bulk transfer on one stream, the round trip of
// a 100-byte call, and calls per second of 64 workers sharing one connection; with
// plain TLS sockets (16 KiB writes, 100-byte ping-pong) as the baseline. Both sides
// of every connection speak TLS 1.2 with ECDHE-RSA-AES128-GCM-SHA256, set for the
// whole process through an OpenSSL configuration file made at start.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/famerror.h"
#include "base/rpc/certificatemgr.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcspdyserverconnection.h"
#include "base/rpc/rpcstreamconnection.h"

namespace {

using namespace apm::base;
typedef boost::shared_ptr<CLogicalConnectionStream> StreamPtr;

const char kCipher[] = "ECDHE-RSA-AES128-GCM-SHA256";
const size_t kRoundTripBytes = 100;

// Limits every TLS context of the process to TLS 1.2 and kCipher. Must run before
// the first TLS context is made; returns the path of the file, removed at exit.
std::string ConfigureTls() {
  std::string path = (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("ecomm-bench-%%%%%%.cnf")).string();
  std::ofstream file(path);
  file << "openssl_conf = openssl_init\n[openssl_init]\nssl_conf = ssl_module\n[ssl_module]\n"
       << "system_default = tls_defaults\n[tls_defaults]\nMinProtocol = TLSv1.2\nMaxProtocol = TLSv1.2\n"
       << "CipherString = " << kCipher << "\n";
  file.close();
  setenv("OPENSSL_CONF", path.c_str(), 1);
  return path;
}

// Certificate files made once per run in a temporary directory.
struct Identities {
  Identities() {
    directory = (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("ecomm-bench-%%%%%%")).string();
    boost::filesystem::create_directories(directory);
    certificate::CertificateManager manager;
    std::string fingerprint;
    server = directory + "/server.pem";
    client = directory + "/client.pem";
    manager.CreateSelfSignedCertificate(server, "bench.server", fingerprint);
    manager.CreateSelfSignedCertificate(client, "bench.client", fingerprint);
  }
  ~Identities() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(directory, ignored);
  }
  std::string directory, server, client;
};

Identities& GetIdentities() {
  static Identities identities;
  return identities;
}

// Serves accepted streams on a fixed pool of threads, as the scheduler would.
class PoolFactory : public IConnectionHandlerFactory {
 public:
  explicit PoolFactory(int threads) {
    for (int index = 0; index < threads; ++index) {
      threads_.emplace_back([this]() {
        FamError record;
        for (;;) {
          StreamPtr stream;
          {
            std::unique_lock<std::mutex> lock(mutex_);
            ready_.wait(lock, [&]() { return stopping_ || !queue_.empty(); });
            if (queue_.empty()) return;
            stream = queue_.front();
            queue_.pop_front();
          }
          Serve(stream);
        }
      });
    }
  }
  ~PoolFactory() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
    }
    ready_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }

  boost::shared_ptr<IReceiveStream> create_client_connection(const boost::shared_ptr<IPhysicalConnection>&,
                                                            RPCConnectionHeaders&,
                                                            const boost::shared_ptr<ILogicalConnection>& logical) override {
    StreamPtr stream = CLogicalConnectionStream::create(logical);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(stream);
    }
    ready_.notify_one();
    return stream;
  }
  void connection_closed(const boost::shared_ptr<IPhysicalConnection>&) override {}
  void acceptor_closed(const boost::shared_ptr<IServerConnection>&) override {}

 private:
  // Reads a 32-bit length and that many bytes (in chunks, into one reused
  // buffer), answers with the first 64 of them at most.
  static void Serve(const StreamPtr& stream) {
    uint32_t length = 0;
    if (!stream->Read(&length, sizeof(length))) return;
    std::vector<uint8_t> chunk(std::min<uint32_t>(length, 65536));
    std::vector<uint8_t> head;
    for (uint32_t done = 0; done < length;) {
      const uint32_t count = std::min<uint32_t>(length - done, static_cast<uint32_t>(chunk.size()));
      if (!stream->Read(chunk.data(), count)) return;
      if (head.empty()) head.assign(chunk.begin(), chunk.begin() + std::min<uint32_t>(count, 64));
      done += count;
    }
    RPCConnectionHeaders headers;
    stream->SendResponseHeaders(headers);
    const uint32_t answer = static_cast<uint32_t>(head.size());
    stream->Write(&answer, sizeof(answer));
    stream->Write(head.data(), answer);
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<StreamPtr> queue_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

class ClientFactory : public IConnectionHandlerFactory {
 public:
  boost::shared_ptr<IReceiveStream> create_client_connection(const boost::shared_ptr<IPhysicalConnection>&,
                                                            RPCConnectionHeaders&,
                                                            const boost::shared_ptr<ILogicalConnection>&) override {
    return boost::shared_ptr<IReceiveStream>();
  }
  void connection_closed(const boost::shared_ptr<IPhysicalConnection>&) override {}
  void acceptor_closed(const boost::shared_ptr<IServerConnection>&) override {}
};

// One acceptor (4 I/O threads, 100 handler threads) and one connection to it
// (2 I/O threads), as in the daemon.
class Transport {
 public:
  Transport() : server_factory(100) {
    server_service = IPhysicalConnection::CreateIOService(4);
    client_service = IPhysicalConnection::CreateIOService(2);
    server = IServerConnection::CreateSpdyServer(server_service, &server_factory);
    RPCConnectionParameters parameters;
    parameters.min_version = RPC_MINIMUM_VERSION;
    parameters.certificate_file = GetIdentities().server;
    parameters.ping_interval = 0;
    parameters.cipher_list = kCipher;
    FamError record;
    server->bind(parameters);
    RPCConnectionParameters client_parameters;
    client_parameters.host = "127.0.0.1";
    client_parameters.port = boost::static_pointer_cast<CSpdyServerConnection>(server)->get_bound_port();
    client_parameters.min_version = RPC_MINIMUM_VERSION;
    client_parameters.certificate_file = GetIdentities().client;
    client_parameters.ping_interval = 0;
    client_parameters.cipher_list = kCipher;
    connection = IPhysicalConnection::CreateSpdyClientConnection(client_service, &client_factory, client_parameters);
  }
  ~Transport() {
    connection->close(true);
    server->close(false);
    client_service->shutdown();
    server_service->shutdown();
    connection.reset();
    server.reset();
  }

  // One call: `size` bytes out (written in chunks of 64 KiB), at most 64 back.
  bool Call(const std::vector<uint8_t>& request) {
    StreamPtr stream = CLogicalConnectionStream::create(connection);
    if (!stream) return false;
    stream->SendRequestHeaders(1, 3600);
    uint32_t length = static_cast<uint32_t>(request.size());
    stream->Write(&length, sizeof(length));
    for (uint32_t done = 0; done < length;) {
      const uint32_t count = std::min<uint32_t>(length - done, 65536);
      stream->Write(request.data() + done, count);
      done += count;
    }
    stream->EndStream();
    RPCConnectionHeaders headers;
    if (!stream->ReadResponseHeaders(headers)) return false;
    uint32_t answer = 0;
    if (!stream->Read(&answer, sizeof(answer))) return false;
    std::vector<uint8_t> data(answer);
    return answer == 0 || stream->Read(data.data(), answer);
  }

  PoolFactory server_factory;
  ClientFactory client_factory;
  boost::shared_ptr<IConnectionIOService> server_service;
  boost::shared_ptr<IConnectionIOService> client_service;
  boost::shared_ptr<IServerConnection> server;
  boost::shared_ptr<IPhysicalConnection> connection;
};

// Processor time of the whole process (all threads, user and system) in
// microseconds: what the work costs, which a busy machine disturbs less than the
// time it takes.
double ProcessCpuMicroseconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 + usage.ru_utime.tv_usec + usage.ru_stime.tv_usec;
}

// The value below which `share` (0 to 1) of `values` lie.
double Percentile(std::vector<double> values, double share) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(share * static_cast<double>(values.size())))];
}

void ReportRoundTrips(benchmark::State& state, const std::vector<double>& times) {
  state.counters["median_us"] = Percentile(times, 0.5);
  state.counters["p99_us"] = Percentile(times, 0.99);
}

void BM_TransportBulk(benchmark::State& state) {
  FamError record;
  Transport transport;
  const std::vector<uint8_t> request(64 * 1024 * 1024, 0x42);
  const double cpu_started = ProcessCpuMicroseconds();
  for (auto _ : state) {
    if (!transport.Call(request)) state.SkipWithError("call failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(request.size()));
  state.counters["cpu_us_per_MiB"] = (ProcessCpuMicroseconds() - cpu_started) / (64.0 * state.iterations());
}
BENCHMARK(BM_TransportBulk)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_TransportRoundTrip(benchmark::State& state) {
  FamError record;
  Transport transport;
  const std::vector<uint8_t> request(kRoundTripBytes, 1);
  transport.Call(request);
  std::vector<double> times;
  const double cpu_started = ProcessCpuMicroseconds();
  for (auto _ : state) {
    auto started = std::chrono::steady_clock::now();
    if (!transport.Call(request)) state.SkipWithError("call failed");
    times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - started).count());
  }
  ReportRoundTrips(state, times);
  state.counters["cpu_us_per_call"] = (ProcessCpuMicroseconds() - cpu_started) / static_cast<double>(times.size());
}
BENCHMARK(BM_TransportRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(2000);

void BM_TransportMessages64Workers(benchmark::State& state) {
  FamError record;
  Transport transport;
  const std::vector<uint8_t> request(100, 1);
  for (auto _ : state) {
    std::atomic<int64_t> calls{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> workers;
    for (int worker = 0; worker < 64; ++worker) {
      workers.emplace_back([&]() {
        FamError worker_record;
        while (!stop) {
          if (transport.Call(request)) ++calls;
        }
      });
    }
    const double cpu_started = ProcessCpuMicroseconds();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const int64_t done = calls.load();
    const double cpu_used = ProcessCpuMicroseconds() - cpu_started;
    stop = true;
    for (std::thread& worker : workers) worker.join();
    state.counters["msgs_per_s"] = static_cast<double>(done) / 2.0;
    state.counters["cpu_us_per_call"] = done > 0 ? cpu_used / static_cast<double>(done) : 0;
  }
}
BENCHMARK(BM_TransportMessages64Workers)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

// Plain TLS over a socket pair on 127.0.0.1.
class RawTlsPair {
 public:
  RawTlsPair() {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address;
    std::memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener, reinterpret_cast<struct sockaddr*>(&address), sizeof(address));
    listen(listener, 1);
    socklen_t length = sizeof(address);
    getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length);
    client_socket = socket(AF_INET, SOCK_STREAM, 0);
    connect(client_socket, reinterpret_cast<struct sockaddr*>(&address), sizeof(address));
    server_socket = accept(listener, nullptr, nullptr);
    close(listener);
    int one = 1;
    setsockopt(client_socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    setsockopt(server_socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    server_context = SSL_CTX_new(TLS_method());
    SSL_CTX_use_certificate_file(server_context, GetIdentities().server.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(server_context, GetIdentities().server.c_str(), SSL_FILETYPE_PEM);
    client_context = SSL_CTX_new(TLS_method());
    server = SSL_new(server_context);
    client = SSL_new(client_context);
    SSL_set_fd(server, server_socket);
    SSL_set_fd(client, client_socket);
    std::thread accepting([this]() { SSL_accept(server); });
    SSL_connect(client);
    accepting.join();
  }
  ~RawTlsPair() {
    SSL_free(server);
    SSL_free(client);
    SSL_CTX_free(server_context);
    SSL_CTX_free(client_context);
    close(server_socket);
    close(client_socket);
  }
  // The suite the pair negotiated, shown beside the figures.
  std::string Cipher() const { return std::string(SSL_get_version(client)) + " " + SSL_get_cipher_name(client); }
  static bool ReadAll(SSL* ssl, uint8_t* data, size_t size) {
    size_t done = 0;
    while (done < size) {
      int count = SSL_read(ssl, data + done, static_cast<int>(size - done));
      if (count <= 0) return false;
      done += static_cast<size_t>(count);
    }
    return true;
  }

  int server_socket, client_socket;
  SSL_CTX* server_context;
  SSL_CTX* client_context;
  SSL* server;
  SSL* client;
};

void BM_RawTlsBulk(benchmark::State& state) {
  RawTlsPair pair;
  const size_t total = 64 * 1024 * 1024;
  std::vector<uint8_t> chunk(16384, 0x42);
  const double cpu_started = ProcessCpuMicroseconds();
  for (auto _ : state) {
    std::thread reader([&]() {
      std::vector<uint8_t> data(16384);
      size_t done = 0;
      while (done < total) {
        int count = SSL_read(pair.server, data.data(), static_cast<int>(data.size()));
        if (count <= 0) break;
        done += static_cast<size_t>(count);
      }
      SSL_write(pair.server, data.data(), 4);
    });
    for (size_t done = 0; done < total; done += chunk.size()) SSL_write(pair.client, chunk.data(), static_cast<int>(chunk.size()));
    uint8_t answer[4];
    RawTlsPair::ReadAll(pair.client, answer, 4);
    reader.join();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(total));
  state.counters["cpu_us_per_MiB"] = (ProcessCpuMicroseconds() - cpu_started) / (64.0 * state.iterations());
  state.SetLabel(pair.Cipher());
}
BENCHMARK(BM_RawTlsBulk)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_RawTlsPingPong(benchmark::State& state) {
  RawTlsPair pair;
  std::thread echo([&]() {
    uint8_t message[kRoundTripBytes];
    while (RawTlsPair::ReadAll(pair.server, message, sizeof(message))) SSL_write(pair.server, message, sizeof(message));
  });
  uint8_t message[kRoundTripBytes] = {1};
  std::vector<double> times;
  const double cpu_started = ProcessCpuMicroseconds();
  for (auto _ : state) {
    auto started = std::chrono::steady_clock::now();
    SSL_write(pair.client, message, sizeof(message));
    RawTlsPair::ReadAll(pair.client, message, sizeof(message));
    times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - started).count());
  }
  ReportRoundTrips(state, times);
  state.counters["cpu_us_per_call"] = (ProcessCpuMicroseconds() - cpu_started) / static_cast<double>(times.size());
  state.SetLabel(pair.Cipher());
  shutdown(pair.client_socket, SHUT_RDWR);
  echo.join();
}
BENCHMARK(BM_RawTlsPingPong)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(2000);

}  // namespace

int main(int argc, char** argv) {
  const std::string tls_configuration = ConfigureTls();
  signal(SIGPIPE, SIG_IGN);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  boost::system::error_code ignored;
  boost::filesystem::remove(tls_configuration, ignored);
  return 0;
}
