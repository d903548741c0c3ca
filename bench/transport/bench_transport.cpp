// Benchmarks of the RPC transport beside plain TLS sockets doing the same work in
// the same run: bulk transfer of 256 MiB on one stream (against plain TLS writing
// the same records as a frame-per-write engine, 8 and 8192 bytes in turn, and
// against 16 KiB records); the round trip of 100 bytes, on one long-lived stream and
// as a whole call on a stream of its own (against a plain TLS ping-pong); and calls
// per second of 64 workers sharing one connection. Both sides of every connection
// speak TLS 1.2 with ECDHE-RSA-AES128-GCM-SHA256. The ratios and their goals are
// printed at the end.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/famerror.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpcconnectionheaders.h"
#include "base/rpc/rpcspdyserverconnection.h"
#include "base/rpc/rpcstreamconnection.h"
#include "bench/support/baselines.h"
#include "bench/support/measure.h"
#include "bench/support/rawtls.h"
#include "bench/support/runsummary.h"

namespace {

using namespace apm::base;
using namespace apm::bench;
typedef boost::shared_ptr<CLogicalConnectionStream> StreamPtr;

const size_t kRoundTripBytes = 100;
const size_t kBulkBytes = 256 * 1024 * 1024;
const int kRoundTrips = 5000;
// What a stream asks for in header 2: a whole call (length, bytes, answer) or an
// echo of every segment until the end of the stream.
const unsigned short kCallFunction = 3600;
const unsigned short kEchoFunction = 3700;

// Serves accepted streams on a fixed pool of threads, as the scheduler would.
class PoolFactory : public IConnectionHandlerFactory {
 public:
  explicit PoolFactory(int threads) {
    for (int index = 0; index < threads; ++index) {
      threads_.emplace_back([this]() {
        FamError record;
        for (;;) {
          Accepted accepted;
          {
            std::unique_lock<std::mutex> lock(mutex_);
            ready_.wait(lock, [&]() { return stopping_ || !queue_.empty(); });
            if (queue_.empty()) return;
            accepted = queue_.front();
            queue_.pop_front();
          }
          if (accepted.echo) {
            Echo(accepted.stream);
          } else {
            Serve(accepted.stream);
          }
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
                                                            RPCConnectionHeaders& headers,
                                                            const boost::shared_ptr<ILogicalConnection>& logical) override {
    const std::string* function = headers.find_value(RPC_HEADER_FUNCTION);
    Accepted accepted{CLogicalConnectionStream::create(logical),
                      function != nullptr && *function == std::to_string(kEchoFunction)};
    {
      std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(accepted);
    }
    ready_.notify_one();
    return accepted.stream;
  }
  void connection_closed(const boost::shared_ptr<IPhysicalConnection>&) override {}
  void acceptor_closed(const boost::shared_ptr<IServerConnection>&) override {}

 private:
  struct Accepted {
    StreamPtr stream;
    bool echo;
  };

  // Reads a 32-bit length and that many bytes (in chunks, into one reused
  // buffer), answers with the first kRoundTripBytes of them at most.
  static void Serve(const StreamPtr& stream) {
    uint32_t length = 0;
    if (!stream->Read(&length, sizeof(length))) return;
    std::vector<uint8_t> chunk(std::min<uint32_t>(length, 65536));
    std::vector<uint8_t> head;
    for (uint32_t done = 0; done < length;) {
      const uint32_t count = std::min<uint32_t>(length - done, static_cast<uint32_t>(chunk.size()));
      if (!stream->Read(chunk.data(), count)) return;
      if (head.empty()) head.assign(chunk.begin(), chunk.begin() + std::min<uint32_t>(count, kRoundTripBytes));
      done += count;
    }
    RPCConnectionHeaders headers;
    stream->SendResponseHeaders(headers);
    const uint32_t answer = static_cast<uint32_t>(head.size());
    stream->Write(&answer, sizeof(answer));
    stream->Write(head.data(), answer);
  }

  // Sends back every segment of kRoundTripBytes as a segment of its own, until the
  // stream ends; the response headers go out before the first answer.
  static void Echo(const StreamPtr& stream) {
    RPCConnectionHeaders headers;
    std::vector<uint8_t> message(kRoundTripBytes);
    for (bool first = true; stream->Read(message.data(), kRoundTripBytes); first = false) {
      stream->NextSegment();
      if (first) stream->SendResponseHeaders(headers);
      stream->Write(message.data(), kRoundTripBytes);
      stream->Flush();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Accepted> queue_;
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
    parameters.certificate_file = GetBenchIdentities().server;
    parameters.ping_interval = 0;
    parameters.cipher_list = kBenchCipher;
    FamError record;
    server->bind(parameters);
    RPCConnectionParameters client_parameters;
    client_parameters.host = "127.0.0.1";
    client_parameters.port = boost::static_pointer_cast<CSpdyServerConnection>(server)->get_bound_port();
    client_parameters.min_version = RPC_MINIMUM_VERSION;
    client_parameters.certificate_file = GetBenchIdentities().client;
    client_parameters.ping_interval = 0;
    client_parameters.cipher_list = kBenchCipher;
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

  // One call on a stream of its own: `length` bytes out (`chunk` over and over,
  // one Write per chunk), then the end of the stream; at most kRoundTripBytes back.
  bool Call(uint32_t length, const std::vector<uint8_t>& chunk) {
    StreamPtr stream = CLogicalConnectionStream::create(connection);
    if (!stream) return false;
    stream->SendRequestHeaders(1, kCallFunction);
    stream->Write(&length, sizeof(length));
    for (uint32_t done = 0; done < length;) {
      const uint32_t count = std::min<uint32_t>(length - done, static_cast<uint32_t>(chunk.size()));
      stream->Write(chunk.data(), count);
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

  // A stream on which every message of kRoundTripBytes comes back.
  StreamPtr OpenEchoStream() {
    StreamPtr stream = CLogicalConnectionStream::create(connection);
    if (stream) stream->SendRequestHeaders(1, kEchoFunction);
    return stream;
  }
  // One round trip on an echo stream: `message` out as a segment, its echo back
  // into `message`. The first one also waits for the response headers.
  static bool Echo(const StreamPtr& stream, std::vector<uint8_t>& message, bool first) {
    stream->Write(message.data(), static_cast<unsigned int>(message.size()));
    stream->Flush();
    RPCConnectionHeaders headers;
    if (first && !stream->ReadResponseHeaders(headers)) return false;
    if (!stream->Read(message.data(), message.size())) return false;
    stream->NextSegment();
    return true;
  }

  PoolFactory server_factory;
  ClientFactory client_factory;
  boost::shared_ptr<IConnectionIOService> server_service;
  boost::shared_ptr<IConnectionIOService> client_service;
  boost::shared_ptr<IServerConnection> server;
  boost::shared_ptr<IPhysicalConnection> connection;
};

void BM_TransportBulk(benchmark::State& state) {
  FamError record;
  Transport transport;
  const std::vector<uint8_t> chunk(64 * 1024, 0x42);
  const double cpu_started = ProcessCpuMicroseconds();
  const auto started = std::chrono::steady_clock::now();
  for (auto _ : state) {
    if (!transport.Call(kBulkBytes, chunk)) state.SkipWithError("call failed");
  }
  ReportBulkFigures(state, "transport_bulk", kBulkBytes, MicrosecondsSince(started) / 1e6, cpu_started);
}
BENCHMARK(BM_TransportBulk)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_TransportRoundTrip(benchmark::State& state) {
  FamError record;
  Transport transport;
  const std::vector<uint8_t> request(kRoundTripBytes, 1);
  transport.Call(kRoundTripBytes, request);
  TimeRoundTrips(state, "transport_call", [&]() { return transport.Call(kRoundTripBytes, request); });
}
BENCHMARK(BM_TransportRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(kRoundTrips);

void BM_TransportStreamRoundTrip(benchmark::State& state) {
  FamError record;
  Transport transport;
  std::vector<uint8_t> message(kRoundTripBytes, 1);
  StreamPtr stream = transport.OpenEchoStream();
  if (!stream || !Transport::Echo(stream, message, true)) state.SkipWithError("no echo stream");
  TimeRoundTrips(state, "transport_stream", [&]() { return Transport::Echo(stream, message, false); });
}
BENCHMARK(BM_TransportStreamRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(kRoundTrips);

void BM_TransportMessages64Workers(benchmark::State& state) {
  FamError record;
  Transport transport;
  const std::vector<uint8_t> request(kRoundTripBytes, 1);
  MeasureConcurrentCalls(state, "transport_64_workers", 64, 2.0,
                         [&]() { return transport.Call(kRoundTripBytes, request); });
}
BENCHMARK(BM_TransportMessages64Workers)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

void AddGoals(RunSummary& summary) {
  summary.AddRatio("bulk / raw 16 KiB records", "transport_bulk_MBps", "raw_bulk_16k_MBps", RunSummary::kAtLeast,
                   0.35);
  // The same comparison by processor time per MiB, which a busy machine, whose
  // cores go to the process with more threads, disturbs less.
  summary.AddRatio("bulk, raw 16 KiB / own processor time", "raw_bulk_16k_cpu_us_per_MiB",
                   "transport_bulk_cpu_us_per_MiB", RunSummary::kAtLeast, 0.35);
  summary.AddRatio("bulk / raw frame records", "transport_bulk_MBps", "raw_bulk_frames_MBps", RunSummary::kNoGoal,
                   0);
  summary.AddRatio("stream round trip median / raw", "transport_stream_median_us", "raw_pingpong_median_us",
                   RunSummary::kAtMost, 1.5);
  summary.AddRatio("stream round trip p99 / median", "transport_stream_p99_us", "transport_stream_median_us",
                   RunSummary::kAtMost, 3.0);
  summary.AddRatio("call round trip median / raw", "transport_call_median_us", "raw_pingpong_median_us",
                   RunSummary::kAtMost, 1.5);
  summary.AddRatio("call round trip p99 / median", "transport_call_p99_us", "transport_call_median_us",
                   RunSummary::kAtMost, 3.0);
  // What handing each message from a reading thread to a waiting one costs, without
  // an engine: the least any round trip between blocked workers can take here.
  summary.AddRatio("hand-off ping-pong median / raw", "handoff_pingpong_median_us", "raw_pingpong_median_us",
                   RunSummary::kNoGoal, 0);
  summary.AddRatio("stream round trip median / hand-off ping-pong", "transport_stream_median_us",
                   "handoff_pingpong_median_us", RunSummary::kNoGoal, 0);
  summary.AddFigure("64 workers, calls per second", "transport_64_workers_per_s", RunSummary::kAtLeast, 25000);
}

}  // namespace

int main(int argc, char** argv) {
  BenchTlsSettings tls_settings;
  return RunBenchmarksWithBaselines(argc, argv, {kBulkBytes, 3, true, kRoundTripBytes, kRoundTrips}, AddGoals);
}
