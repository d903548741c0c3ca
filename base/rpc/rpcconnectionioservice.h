// CConnectionIOService: the pool of I/O threads that runs RPC connections and
// acceptors, each of which keeps a shared pointer to it.
//
// It owns an io_service, a work guard that keeps its threads running while idle,
// and the threads. shutdown() drops the guard, so that the threads end when the
// last pending operation of the last connection has completed, and joins them; it
// must not run on one of the pool's own threads (joining oneself fails). The
// destructor calls it. start_timestamp, the moment of creation in 100 ns units since
// 1601-01-01, goes to peers in the version exchange, which tells them whether this
// process has restarted.
//
// The io_service is made with the concurrency hint 1. It stays fully thread-safe;
// what changes is that work an I/O thread hands itself (completions, a strand's next
// batch) stays on that thread, and no idle thread is woken merely to take over
// waiting for the sockets. The other threads take what worker threads post. The
// engine's handlers never block, so a connection waits for another's handler only
// briefly; in exchange a call costs far fewer thread wake-ups.
//
// Thread-safe for get_io_service and get_start_timestamp; start and shutdown
// belong to the owner's thread.
#pragma once

#include <boost/asio/io_service.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/thread.hpp>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/rpc/rpcconnection.h"

namespace apm {
namespace base {

class CConnectionIOService : public IConnectionIOService {
 public:
  CConnectionIOService();
  ~CConnectionIOService() override;
  CConnectionIOService(const CConnectionIOService&) = delete;
  CConnectionIOService& operator=(const CConnectionIOService&) = delete;

  // Makes the work guard if there is none and starts `threads` threads on run().
  void start(unsigned int threads);
  void shutdown() override;

  boost::asio::io_service& get_io_service() { return io_service; }
  uint64_t get_start_timestamp() const { return start_timestamp; }

  // time() as 100 ns units since 1601-01-01; 0 if time() gives 0.
  static uint64_t make_start_timestamp();

 private:
  struct RunThread {
    std::unique_ptr<boost::thread> thread;
    boost::system::error_code result;
  };

  boost::asio::io_service io_service;
  std::unique_ptr<boost::asio::io_service::work> work;
  std::vector<std::unique_ptr<RunThread>> threads;
  uint64_t start_timestamp;
};

}  // namespace base
}  // namespace apm
