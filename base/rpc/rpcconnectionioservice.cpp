#include "base/rpc/rpcconnectionioservice.h"

#include <ctime>

namespace apm {
namespace base {

// Concurrency hint 1: see the header.
CConnectionIOService::CConnectionIOService() : io_service(1), start_timestamp(make_start_timestamp()) {}

CConnectionIOService::~CConnectionIOService() { shutdown(); }

uint64_t CConnectionIOService::make_start_timestamp() {
  time_t now = time(nullptr);
  if (now == 0) return 0;
  return static_cast<uint64_t>(now) * 10000000ull + 116444736000000000ull;
}

void CConnectionIOService::start(unsigned int count) {
  if (!work) work.reset(new boost::asio::io_service::work(io_service));
  threads.reserve(threads.size() + count);
  for (unsigned int index = 0; index < count; ++index) {
    std::unique_ptr<RunThread> entry(new RunThread);
    RunThread* raw = entry.get();
    entry->thread.reset(new boost::thread([this, raw]() { io_service.run(raw->result); }));
    threads.push_back(std::move(entry));
  }
}

void CConnectionIOService::shutdown() {
  work.reset();
  for (auto& entry : threads) entry->thread->join();
  threads.clear();
}

boost::shared_ptr<IConnectionIOService> IPhysicalConnection::CreateIOService(unsigned int threads) {
  boost::shared_ptr<CConnectionIOService> service(new CConnectionIOService);
  service->start(threads);
  return service;
}

}  // namespace base
}  // namespace apm
