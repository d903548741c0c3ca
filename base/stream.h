// COM-shaped stream interfaces: IUnknown and IStream with their slots and HRESULT
// numbers, and CComPtr, the owning pointer to them.
//
// Everything that moves documents around (HTTP bodies, JSON text, session files)
// works on IStream. The implementation in memory is CIStream (base/memorystream.h).
// Reference counts are atomic; a stream's data belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <utility>

namespace apm {
namespace base {

typedef int32_t HRESULT;

constexpr HRESULT S_OK = 0;
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001);
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057);

struct tagGUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
};
bool operator==(const tagGUID& a, const tagGUID& b);

// The standard interface identifiers.
extern const tagGUID IID_IUnknown;
extern const tagGUID IID_ISequentialStream;
extern const tagGUID IID_IStream;

union _LARGE_INTEGER {
  int64_t QuadPart;
};
union _ULARGE_INTEGER {
  uint64_t QuadPart;
};

// Stat record; CIStream fills only the first field, the size.
struct tagSTATSTG {
  _ULARGE_INTEGER cbSize;
  uint32_t type;
  uint32_t grfMode;
};

// Seek origins.
constexpr unsigned int STREAM_SEEK_SET = 0;
constexpr unsigned int STREAM_SEEK_CUR = 1;
constexpr unsigned int STREAM_SEEK_END = 2;

class IUnknown {
 public:
  virtual ~IUnknown() = default;
  virtual HRESULT QueryInterface(const tagGUID& iid, void** object) = 0;
  virtual uint32_t AddRef() = 0;
  virtual uint32_t Release() = 0;
};

class IStream : public IUnknown {
 public:
  virtual HRESULT Read(void* buffer, unsigned int count, unsigned int* read) = 0;
  virtual HRESULT Write(const void* data, unsigned int count, unsigned int* written) = 0;
  virtual HRESULT Seek(_LARGE_INTEGER offset, unsigned int origin, _ULARGE_INTEGER* position) = 0;
  virtual HRESULT SetSize(_ULARGE_INTEGER size) = 0;
  virtual HRESULT CopyTo(IStream* target, _ULARGE_INTEGER count, _ULARGE_INTEGER* read,
                         _ULARGE_INTEGER* written) = 0;
  virtual HRESULT Commit(unsigned int flags) = 0;
  virtual HRESULT Revert() = 0;
  virtual HRESULT LockRegion(_ULARGE_INTEGER offset, _ULARGE_INTEGER count, unsigned int type) = 0;
  virtual HRESULT UnlockRegion(_ULARGE_INTEGER offset, _ULARGE_INTEGER count, unsigned int type) = 0;
  virtual HRESULT Stat(tagSTATSTG* stat, unsigned int flags) = 0;
  virtual HRESULT Clone(IStream** clone) = 0;
};

// Owning pointer to a COM-shaped object: AddRef on copy, Release on destruction.
// Attach takes over a reference already counted (as CreateIStream hands one out).
template <class T>
class CComPtr {
 public:
  CComPtr() = default;
  CComPtr(T* object) : object_(object) { if (object_) object_->AddRef(); }  // NOLINT: implicit by design
  CComPtr(const CComPtr& other) : CComPtr(other.object_) {}
  CComPtr(CComPtr&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
  ~CComPtr() { if (object_) object_->Release(); }
  CComPtr& operator=(CComPtr other) { std::swap(object_, other.object_); return *this; }

  void Attach(T* object) { CComPtr old; old.object_ = object_; object_ = object; }
  T* Detach() { T* object = object_; object_ = nullptr; return object; }
  T** operator&() { Attach(nullptr); return &object_; }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  operator T*() const { return object_; }  // NOLINT: implicit by design

 private:
  T* object_ = nullptr;
};

}  // namespace base
}  // namespace apm
