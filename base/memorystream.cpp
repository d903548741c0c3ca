#include "base/memorystream.h"

#include <cstdlib>
#include <cstring>

namespace apm {
namespace base {

CIStream::~CIStream() { std::free(buffer); }

HRESULT CIStream::QueryInterface(const tagGUID& iid, void** object) {
  if (object == nullptr) return E_POINTER;
  if (iid == IID_IUnknown || iid == IID_IStream || iid == IID_ISequentialStream) {
    *object = static_cast<IStream*>(this);
    AddRef();
    return S_OK;
  }
  *object = nullptr;
  return E_NOINTERFACE;
}

HRESULT CIStream::Read(void* destination, unsigned int count, unsigned int* read) {
  uint64_t available = length - position;
  unsigned int copied = count < available ? count : static_cast<unsigned int>(available);
  if (copied > 0) std::memcpy(destination, buffer + position, copied);
  position += copied;
  if (read != nullptr) *read = copied;
  return S_OK;
}

HRESULT CIStream::Write(const void* data, unsigned int count, unsigned int* written) {
  if (capacity - length < count) {
    uint64_t wanted = static_cast<uint64_t>(capacity) + count;
    uint64_t grown = capacity == 0 ? 1024 : static_cast<uint64_t>(capacity) * 2;
    while (grown < wanted) grown *= 2;
    if (grown > UINT32_MAX) return E_FAIL;
    auto* block = static_cast<unsigned char*>(std::malloc(grown));
    if (block == nullptr) return E_FAIL;
    if (length > 0) std::memcpy(block, buffer, length);
    std::free(buffer);
    buffer = block;
    capacity = static_cast<uint32_t>(grown);
  }
  if (count > 0) std::memcpy(buffer + length, data, count);
  length += count;
  position += count;
  if (written != nullptr) *written = count;
  return S_OK;
}

HRESULT CIStream::Seek(_LARGE_INTEGER offset, unsigned int origin, _ULARGE_INTEGER* newPosition) {
  int64_t target;
  switch (origin) {
    case STREAM_SEEK_SET:
      target = offset.QuadPart;
      break;
    case STREAM_SEEK_CUR:
      target = static_cast<int64_t>(position) + offset.QuadPart;
      break;
    case STREAM_SEEK_END:
      // Counts backwards: a positive offset moves towards the start.
      target = static_cast<int64_t>(length) - offset.QuadPart;
      break;
    default:
      return E_NOTIMPL;
  }
  if (target > static_cast<int64_t>(length)) target = length;
  if (target < 0) target = 0;
  position = static_cast<uint64_t>(target);
  if (newPosition != nullptr) newPosition->QuadPart = position;
  return S_OK;
}

HRESULT CIStream::SetSize(_ULARGE_INTEGER) { return E_NOTIMPL; }

HRESULT CIStream::CopyTo(IStream*, _ULARGE_INTEGER, _ULARGE_INTEGER*, _ULARGE_INTEGER*) {
  return E_NOTIMPL;
}

HRESULT CIStream::Commit(unsigned int) { return E_NOTIMPL; }

HRESULT CIStream::Revert() { return E_NOTIMPL; }

HRESULT CIStream::LockRegion(_ULARGE_INTEGER, _ULARGE_INTEGER, unsigned int) { return E_NOTIMPL; }

HRESULT CIStream::UnlockRegion(_ULARGE_INTEGER, _ULARGE_INTEGER, unsigned int) {
  return E_NOTIMPL;
}

HRESULT CIStream::Stat(tagSTATSTG* stat, unsigned int) {
  if (stat == nullptr) return E_INVALIDARG;
  stat->cbSize.QuadPart = length;
  return S_OK;
}

HRESULT CIStream::Clone(IStream**) { return E_NOTIMPL; }

bool CreateIStream(IStream** stream) {
  if (stream == nullptr) return false;
  auto* object = new CComObject<CIStream>();
  object->AddRef();
  *stream = object;
  return true;
}

bool CreateMemoryStream(IStream** stream) { return CreateIStream(stream); }

}  // namespace base
}  // namespace apm
