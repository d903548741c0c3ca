// CIStream: a growing memory buffer behind the IStream interface, and the plain
// COM-style scaffolding it stands on (CComObjectRootEx, CComObject).
//
// A stream is written once from the start (Write always appends at the end), rewound
// with Seek and then read; Read returning 0 bytes marks the end. The buffer is owned
// by the stream and comes from malloc; capacity and length are 32-bit, so a stream
// holds less than 4 GiB. Seek with origin 2 counts backwards from the end: the
// target is length - offset.
//
// Make streams with CreateMemoryStream (or CreateIStream), which hands out one
// reference; CComPtr<IStream> is the usual owner. The reference count is atomic; the
// data is not locked, so a stream belongs to one thread at a time.
#pragma once

#include <atomic>
#include <cstdint>

#include "base/stream.h"

namespace apm {
namespace base {

// Holds the atomic reference count of a COM-style object. The threading model
// parameter is kept for the shape of the type; the count is always atomic.
template <int threadModel>
class CComObjectRootEx {
 public:
  uint32_t InternalAddRef() { return ++refCount; }
  uint32_t InternalRelease() { return --refCount; }

 protected:
  std::atomic<uint32_t> refCount{0};
};

// The creatable form of a COM-style class T: supplies AddRef and Release, and
// deletes itself when the last reference goes.
template <class T>
class CComObject : public T {
 public:
  uint32_t AddRef() override { return this->InternalAddRef(); }
  uint32_t Release() override {
    uint32_t count = this->InternalRelease();
    if (count == 0) delete this;
    return count;
  }
};

class CIStream : public CComObjectRootEx<1>, public IStream {
 public:
  CIStream() = default;
  ~CIStream() override;
  CIStream(const CIStream&) = delete;
  CIStream& operator=(const CIStream&) = delete;

  // Accepts IID_IUnknown, IID_IStream and IID_ISequentialStream.
  HRESULT QueryInterface(const tagGUID& iid, void** object) override;

  HRESULT Read(void* destination, unsigned int count, unsigned int* read) override;
  HRESULT Write(const void* data, unsigned int count, unsigned int* written) override;
  HRESULT Seek(_LARGE_INTEGER offset, unsigned int origin, _ULARGE_INTEGER* newPosition) override;
  HRESULT SetSize(_ULARGE_INTEGER size) override;
  HRESULT CopyTo(IStream* target, _ULARGE_INTEGER count, _ULARGE_INTEGER* read,
                 _ULARGE_INTEGER* written) override;
  HRESULT Commit(unsigned int flags) override;
  HRESULT Revert() override;
  HRESULT LockRegion(_ULARGE_INTEGER offset, _ULARGE_INTEGER count, unsigned int type) override;
  HRESULT UnlockRegion(_ULARGE_INTEGER offset, _ULARGE_INTEGER count, unsigned int type) override;
  // Stores `length` in cbSize.
  HRESULT Stat(tagSTATSTG* stat, unsigned int flags) override;
  HRESULT Clone(IStream** clone) override;

  // Read-only for everybody but the stream itself.
  unsigned char* buffer = nullptr;
  uint32_t capacity = 0;
  uint32_t length = 0;
  uint64_t position = 0;
};

// Makes a CComObject<CIStream> holding one reference for the caller. False for a
// null argument.
bool CreateIStream(IStream** stream);
bool CreateMemoryStream(IStream** stream);

}  // namespace base
}  // namespace apm
