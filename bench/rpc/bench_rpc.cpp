// Benchmarks of the RPC layer: an RPC server in this process, built as the daemon's
// is (a handler table of member functions, a scheduler whose workers run the
// handlers, an acceptor with four I/O threads), serving an echo of a 100-byte
// record and the upload of a file; a client session on one connection calls it:
// the round trip at one call in flight, calls per second at 16 and at 64 in flight,
// and a 256 MiB upload. Then the real daemon binary receives a 256 MiB upload while
// its resident memory is sampled. Plain TLS sockets measured in the same run are the
// baseline; both ends of every connection speak TLS 1.2 with
// ECDHE-RSA-AES128-GCM-SHA256. The ratios and their goals are printed at the end.
#include <benchmark/benchmark.h>
#include <sys/types.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/apmmodule.h"
#include "base/famerror.h"
#include "base/rpc/rpcclientsession.h"
#include "base/rpc/rpcconnection.h"
#include "base/rpc/rpchandler.h"
#include "base/rpc/rpcspdyserverconnection.h"
#include "base/scheduler.h"
#include "bench/support/baselines.h"
#include "bench/support/measure.h"
#include "bench/support/rawtls.h"
#include "bench/support/runsummary.h"
#include "protocol/rpccloud.h"
#include "tests/support/daemonpeer.h"
#include "tests/support/runningdaemon.h"
#include "tools/ecomm-sim/simclient.h"

namespace {

using namespace apm::base;
using namespace apm::bench;
using apm::tools::SimClientManager;
using apm::tools::SimClientSession;

const unsigned short kEchoRpc = 3700;
const unsigned short kUploadRpc = 3701;
// The daemon's cloud request with a file; it answers "not implemented" once the
// file has been received.
const unsigned short kDaemonUploadRpc = 3601;
// A record of one string: its 4-byte length and 96 bytes.
const size_t kEchoPayloadBytes = 96;
const size_t kRoundTripBytes = 100;
const size_t kUploadBytes = 256 * 1024 * 1024;
const int kRoundTrips = 5000;

// The record of the echo and of the upload's answer: one string.
struct EchoRecord {
  std::string payload;

  template <class T>
  bool Read(unsigned long /*version*/, ReadStream<T>& stream) {
    return stream.Read(payload);
  }
  template <class T>
  bool Write(unsigned long /*version*/, WriteStream<T>& stream) const {
    return stream.Write(payload);
  }
};

void EnumBenchServerEventDescriptions(CAPMModule& /*module*/) {}

// The server: its handler table answers kEchoRpc with the request's string and
// kUploadRpc with the size of the file received, in decimal. The scheduler starts
// three workers and grows to 100, as the daemon's does.
class EchoServer : public IConnectionHandlerFactory {
 public:
  EchoServer() : scheduler_(100) {
    handlers_.add(kEchoRpc, MakeRPCHandlerFactory<1>(this, &EchoServer::Echo));
    handlers_.add(kUploadRpc, MakeRPCHandlerFactory<2>(this, &EchoServer::Upload));
    scheduler_.Start(3);
    service_ = IPhysicalConnection::CreateIOService(4);
    acceptor_ = IServerConnection::CreateSpdyServer(service_, this);
    RPCConnectionParameters parameters;
    parameters.min_version = RPC_MINIMUM_VERSION;
    parameters.certificate_file = GetBenchIdentities().server;
    parameters.ping_interval = 0;
    parameters.cipher_list = kBenchCipher;
    acceptor_->bind(parameters);
  }
  ~EchoServer() override {
    acceptor_->close(false);
    service_->shutdown();
    scheduler_.Stop();
  }

  unsigned short port() const {
    return boost::static_pointer_cast<CSpdyServerConnection>(acceptor_)->get_bound_port();
  }

  boost::shared_ptr<IReceiveStream> create_client_connection(const boost::shared_ptr<IPhysicalConnection>&,
                                                            RPCConnectionHeaders& headers,
                                                            const boost::shared_ptr<ILogicalConnection>& logical) override {
    return ScheduleRPCHandler(handlers_, scheduler_, 0, headers, logical);
  }
  void connection_closed(const boost::shared_ptr<IPhysicalConnection>&) override {}
  void acceptor_closed(const boost::shared_ptr<IServerConnection>&) override {}

  CAPMModule* GetModule() const {
    static CAPMModule module("Bench Server", EnumBenchServerEventDescriptions);
    return &module;
  }

  bool Echo(const EchoRecord& request, EchoRecord& response) {
    response.payload = request.payload;
    return true;
  }
  bool Upload(const EchoRecord& /*request*/, EchoRecord& response, const std::string& file) {
    response.payload = std::to_string(boost::filesystem::file_size(file));
    return true;
  }

 private:
  GenericRPCHandlerMap<unsigned short> handlers_;
  Scheduler scheduler_;
  boost::shared_ptr<IConnectionIOService> service_;
  boost::shared_ptr<IServerConnection> acceptor_;
};

// Connection settings of a client towards 127.0.0.1:`port` presenting `certificate`.
RPCConnectionParameters ClientParameters(unsigned short port, const std::string& certificate) {
  RPCConnectionParameters parameters;
  parameters.host = "127.0.0.1";
  parameters.port = port;
  parameters.certificate_file = certificate;
  parameters.connect_timeout = 10;
  parameters.ping_interval = 0;
  parameters.cipher_list = kBenchCipher;
  return parameters;
}

// The server and a client session manager with one connection to it; the client
// goes first when it ends.
struct EchoSetup {
  EchoSetup() : client(ClientParameters(server.port(), GetBenchIdentities().client)) {}

  // One echo call of a kEchoPayloadBytes string.
  bool Echo() {
    SimClientSession session(&client);
    EchoRecord request{std::string(kEchoPayloadBytes, 'e')}, response;
    return session.ExecuteRPC<RPC_KIND_RECORD>(kEchoRpc, request, response, nullptr, nullptr, nullptr, 0) &&
           response.payload.size() == kEchoPayloadBytes;
  }

  EchoServer server;
  SimClientManager client;
};

// The file of kUploadBytes that the uploads send, in the temporary folder: made at
// the first call of UploadFile, removed by main at the end.
std::string upload_file;

const std::string& UploadFile() {
  if (!upload_file.empty()) return upload_file;
  upload_file =
      (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("ecomm-bench-%%%%%%.bin")).string();
  std::ofstream out(upload_file, std::ios::binary);
  const std::vector<char> chunk(1 << 20, 'u');
  for (size_t done = 0; done < kUploadBytes; done += chunk.size()) out.write(chunk.data(), chunk.size());
  return upload_file;
}

void BM_RpcRoundTrip(benchmark::State& state) {
  FamError record;
  EchoSetup setup;
  if (!setup.Echo()) state.SkipWithError("no connection");
  TimeRoundTrips(state, "rpc_call", [&]() { return setup.Echo(); });
}
BENCHMARK(BM_RpcRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime()->Iterations(kRoundTrips);

void BM_RpcCallsPerSecond(benchmark::State& state) {
  FamError record;
  EchoSetup setup;
  if (!setup.Echo()) state.SkipWithError("no connection");
  const int in_flight = static_cast<int>(state.range(0));
  MeasureConcurrentCalls(state, "rpc_" + std::to_string(in_flight) + "_in_flight", in_flight, 2.0,
                         [&]() { return setup.Echo(); });
}
BENCHMARK(BM_RpcCallsPerSecond)
    ->Arg(16)
    ->Arg(64)
    ->ArgName("in_flight")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

void BM_RpcUpload(benchmark::State& state) {
  FamError record;
  EchoSetup setup;
  const std::string& file = UploadFile();
  SimClientSession session(&setup.client);
  const EchoRecord request{"upload"};
  const double cpu_started = ProcessCpuMicroseconds();
  const auto started = std::chrono::steady_clock::now();
  for (auto _ : state) {
    EchoRecord response;
    if (!session.ExecuteRPC<RPC_KIND_REQUEST_FILE>(kUploadRpc, request, response, &file, nullptr, nullptr, 0) ||
        response.payload != std::to_string(kUploadBytes)) {
      state.SkipWithError("upload failed");
    }
  }
  ReportBulkFigures(state, "rpc_upload", kUploadBytes, MicrosecondsSince(started) / 1e6, cpu_started);
}
BENCHMARK(BM_RpcUpload)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// The value in kB of the line `key` ("VmRSS:", "VmHWM:") of /proc/`pid`/status; 0 if
// there is none.
double ProcessStatusKilobytes(pid_t pid, const std::string& key) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, key.size(), key) != 0) continue;
    std::istringstream value(line.substr(key.size()));
    double kilobytes = 0;
    value >> kilobytes;
    return kilobytes;
  }
  return 0;
}

// The real daemon, started for this benchmark in the process's private root (made
// in main, before any thread).
apm::test::RunningDaemon* daemon_under_test = nullptr;

void BM_DaemonUploadMemory(benchmark::State& state) {
  apm::test::RunningDaemon& daemon = *daemon_under_test;
  daemon.WriteConfiguration("ListenPort " + std::to_string(daemon.port) + "\n");
  daemon.InstallTestIdentities();
  apm::test::TrustAtDaemon(apm::test::MainServerIdentity());
  if (!daemon.StartServing()) {
    state.SkipWithError("the daemon did not start");
    return;
  }
  const pid_t pid = daemon.process.pid();
  const std::string& file = UploadFile();
  SimClientManager client(ClientParameters(daemon.port, apm::test::MainServerIdentity().certificate_file));
  double started_kilobytes = ProcessStatusKilobytes(pid, "VmRSS:"), peak_sampled = started_kilobytes;
  std::string answer;
  const auto started = std::chrono::steady_clock::now();
  for (auto _ : state) {
    std::atomic<bool> done{false};
    std::thread sampler([&]() {
      for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
        peak_sampled = std::max(peak_sampled, ProcessStatusKilobytes(pid, "VmRSS:"));
      }
    });
    FamErrorBase record(true);
    SimClientSession session(&client);
    apm::protocol::RPCCloudHttpRequest request;
    request.target = 1;
    request.user = "bench";
    request.method = "PUT";
    apm::protocol::RPCCloudJsonResponse response;
    session.ExecuteRPC<RPC_KIND_REQUEST_FILE>(kDaemonUploadRpc, request, response, &file, nullptr, nullptr, 0);
    answer = record.message;
    done = true;
    sampler.join();
  }
  const double seconds = MicrosecondsSince(started) / 1e6;
  const double peak_kilobytes = ProcessStatusKilobytes(pid, "VmHWM:");
  client.stop();
  daemon.Stop();
  if (answer != "not implemented") state.SkipWithError(("the daemon answered: " + answer).c_str());
  state.counters["rss_start_MiB"] = started_kilobytes / 1024;
  state.counters["rss_sampled_peak_MiB"] = peak_sampled / 1024;
  state.counters["hwm_MiB"] = peak_kilobytes / 1024;
  state.counters["MBps"] = static_cast<double>(kUploadBytes) / 1e6 / seconds;
  RunSummary::Get().Set("daemon_rss_start_MiB", started_kilobytes / 1024);
  RunSummary::Get().Set("daemon_rss_sampled_peak_MiB", peak_sampled / 1024);
  RunSummary::Get().Set("daemon_hwm_MiB", peak_kilobytes / 1024);
  RunSummary::Get().Set("daemon_upload_MBps", static_cast<double>(kUploadBytes) / 1e6 / seconds);
}
BENCHMARK(BM_DaemonUploadMemory)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

void AddGoals(RunSummary& summary) {
  summary.AddRatio("RPC round trip median / raw ping-pong", "rpc_call_median_us", "raw_pingpong_median_us",
                   RunSummary::kAtMost, 1.7);
  summary.AddRatio("RPC round trip p99 / median", "rpc_call_p99_us", "rpc_call_median_us", RunSummary::kNoGoal, 0);
  // What handing each message from a reading thread to a waiting one costs, without
  // an engine: the least a call that reaches a worker and comes back can take here.
  summary.AddRatio("hand-off ping-pong median / raw", "handoff_pingpong_median_us", "raw_pingpong_median_us",
                   RunSummary::kNoGoal, 0);
  summary.AddRatio("RPC round trip median / hand-off ping-pong", "rpc_call_median_us", "handoff_pingpong_median_us",
                   RunSummary::kNoGoal, 0);
  summary.AddFigure("RPCs per second, 16 in flight", "rpc_16_in_flight_per_s", RunSummary::kNoGoal, 0);
  summary.AddFigure("RPCs per second, 64 in flight", "rpc_64_in_flight_per_s", RunSummary::kAtLeast, 20000);
  summary.AddRatio("upload / raw 16 KiB records", "rpc_upload_MBps", "raw_bulk_16k_MBps", RunSummary::kAtLeast, 0.3);
  // The same comparison by processor time per MiB, which a busy machine, whose
  // cores go to the process with more threads, disturbs less.
  summary.AddRatio("upload, raw 16 KiB / own processor time", "raw_bulk_16k_cpu_us_per_MiB",
                   "rpc_upload_cpu_us_per_MiB", RunSummary::kAtLeast, 0.3);
  summary.AddRatio("daemon upload / raw 16 KiB records", "daemon_upload_MBps", "raw_bulk_16k_MBps",
                   RunSummary::kNoGoal, 0);
  summary.AddFigure("daemon peak resident memory, MiB", "daemon_hwm_MiB", RunSummary::kAtMost, 64);
}

}  // namespace

int main(int argc, char** argv) {
  // The private root and the log capture change the environment: before any thread.
  BenchTlsSettings tls_settings;
  apm::test::RunningDaemon daemon;
  daemon_under_test = &daemon;
  const int status =
      RunBenchmarksWithBaselines(argc, argv, {kUploadBytes, 3, false, kRoundTripBytes, kRoundTrips}, AddGoals);
  boost::system::error_code ignored;
  if (!upload_file.empty()) boost::filesystem::remove(upload_file, ignored);
  return status;
}
