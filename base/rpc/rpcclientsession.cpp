#include "base/rpc/rpcclientsession.h"

#include <vector>

#include <fcntl.h>

#include "base/famerror.h"
#include "base/file.h"
#include "base/strtools.h"

namespace apm {
namespace base {

namespace {

// A file is read in pieces of 32 network buffers: few reads, and the stream still
// sends it in full frames.
constexpr size_t kFileChunkSize = 32 * sizeof(CNetworkBuffer::data);

}  // namespace

CAPMWaitScope::CAPMWaitScope(unsigned int wait_module, unsigned int wait_event, uint8_t wait_level)
    : module(wait_module), event(wait_event), level(wait_level) {
  APMEvent(module, event, level, APM_EVENT_WAIT_BEGIN);
}

CAPMWaitScope::~CAPMWaitScope() { APMEvent(module, event, level, APM_EVENT_WAIT_END); }

bool TakeRPCErrorResponse(const RPCConnectionHeaders& headers, unsigned int module) {
  const std::string* text = headers.find_value(RPC_HEADER_ERROR_TEXT);
  const std::string* code_text = headers.find_value(RPC_HEADER_ERROR_CODE);
  unsigned int code;
  if (text == nullptr || code_text == nullptr || !StringToInt(*code_text, code)) return false;
  APMEventStr(module, RPC_EVENT_ERROR_TEXT, RPC_EVENT_LEVEL_ERROR_TEXT, APM_EVENT_ERROR, text->c_str());
  FamErrorBase::SetError(static_cast<int>(code), *text, nullptr);
  return true;
}

bool SendRequestFile(CLogicalConnectionStream& stream, unsigned int module, const std::string& path) {
  APMEvent(module, RPC_EVENT_REQUEST_FILE, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_BEGIN);
  const uint64_t sent_before = stream.GetTotalSent();
  File file;
  bool sent = file.Open(path, O_RDONLY | O_CLOEXEC);
  if (sent) {
    std::vector<char> chunk(kFileChunkSize);
    size_t read = 0;
    while ((sent = file.Read(chunk.data(), chunk.size(), read)) && read > 0) {
      if (!(sent = stream.Write(chunk.data(), static_cast<unsigned int>(read)))) break;
    }
    file.Close();
  }
  if (!sent) {
    APMEvent(module, RPC_EVENT_REQUEST_FILE_END, RPC_EVENT_LEVEL_MARSHAL, APM_EVENT_END_FAILED);
    stream.Terminate();
    return false;
  }
  detail::RPCEventWithValue(module, RPC_EVENT_REQUEST_FILE_END, APM_EVENT_END, stream.GetTotalSent() - sent_before);
  return true;
}

}  // namespace base
}  // namespace apm
