#include "base/jsonreader.h"

namespace apm {
namespace base {

CJsonStringReader::CJsonStringReader(const char* begin, const char* end) {
  pending_ = reinterpret_cast<const unsigned char*>(begin);
  pendingEnd_ = reinterpret_cast<const unsigned char*>(end);
}

bool CJsonStringReader::get(unsigned char& byte) {
  if (pending_ == pendingEnd_) return false;
  byte = *pending_++;
  return true;
}

CJsonIStreamReader::CJsonIStreamReader(IStream* stream) : stream_(stream) {
  pending_ = block_;
  pendingEnd_ = block_;
}

bool CJsonIStreamReader::get(unsigned char& byte) {
  if (pending_ == pendingEnd_ && !readNextBlock()) return false;
  byte = *pending_++;
  return true;
}

bool CJsonIStreamReader::readNextBlock() {
  pending_ = block_;
  pendingEnd_ = block_;
  if (stream_.get() == nullptr) return false;
  unsigned int read = 0;
  const HRESULT result = stream_->Read(block_, blockSize, &read);
  if (result < 0 || read == 0) return false;  // a failing stream ends the input
  pendingEnd_ = block_ + (read < blockSize ? read : blockSize);
  return true;
}

}  // namespace base
}  // namespace apm
