// DataCache: the daemon's in-process copy of the main server's infrastructure,
// renewed on demand by an RPC back to the server just before a handler acts on it.
//
// For now the class only stands for the process-wide object that main makes and
// hands to EcommRPCServer: the store of elements, its lookups, the merge and the
// refresh (UpdateInfrastructure) are added to it as the handlers that need them
// arrive. The object is a process-wide singleton made on first use by
// GetDataCache() and destroyed at exit.
#pragma once

namespace apm {
namespace ecomm {

class DataCache {
 public:
  DataCache() = default;
  DataCache(const DataCache&) = delete;
  DataCache& operator=(const DataCache&) = delete;
};

// The process-wide DataCache, made by the first call.
DataCache* GetDataCache();

}  // namespace ecomm
}  // namespace apm
