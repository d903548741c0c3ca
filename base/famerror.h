// Per-thread error records: how a failure's code and text reach whoever asks.
//
// A caller that wants to know why something failed puts a FamErrorBase (usually a
// _FamError<traits>) on its stack and calls on; the innermost failing code stores
// an HRESULT-shaped code and a text with a static SetError, which writes the record
// on top of the calling thread's stack and logs it at level 7 unless the record is
// silent. With no record on the thread SetError only logs. Functions report success
// or failure as bool; the detail travels here.
//
// Each thread has its own stack: no locking, and a record must be destroyed on the
// thread that made it. All SetError forms return `code`.
#pragma once

#include <cstdarg>
#include <string>

namespace apm {
namespace base {

class CAPMModule;

// General failure with a text.
constexpr int E_FAIL_CODE = static_cast<int>(0x80004005);
// An HTTP or service call whose answer counts as failed.
constexpr int E_TOKEN_CODE = static_cast<int>(0x80008002);
// Base of operating-system errors: 0x80070000 plus the low 16 bits of errno.
constexpr int E_SYSTEM_BASE = static_cast<int>(0x80070000);

class FamErrorBase {
 public:
  explicit FamErrorBase(bool silent);
  virtual ~FamErrorBase();
  FamErrorBase(const FamErrorBase&) = delete;
  FamErrorBase& operator=(const FamErrorBase&) = delete;

  static int SetError(int code, const char* text, CAPMModule* module);
  static int SetError(int code, const std::string& text, CAPMModule* module);
  static int SetError(int code, CAPMModule* module);
  static int SetLastError(CAPMModule* module);

  int code = 0;
  std::string message;
  bool silent;
};

// Removes the top node of this thread's record stack, if any.
void PopFamError();

// Traits: errors reported against the "Operating System" module, or against none.
struct _apm_traits_os {
  static CAPMModule* Module();
};
struct _apm_traits_none {
  static CAPMModule* Module() { return nullptr; }
};

template <class traits>
class _FamError : public FamErrorBase {
 public:
  explicit _FamError(bool silent = false) : FamErrorBase(silent) {}

  static int SetError(int code, const char* text) {
    return FamErrorBase::SetError(code, text, traits::Module());
  }
  static int SetError(int code, const std::string& text) {
    return FamErrorBase::SetError(code, text, traits::Module());
  }
  static int SetErrorArgs(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
  static int SetLastError() { return FamErrorBase::SetLastError(traits::Module()); }
};

// Formats like vsnprintf into 1024 bytes and stores it with SetError.
int SetErrorArgsWithModule(int code, CAPMModule* module, const char* format, va_list args);

template <class traits>
int _FamError<traits>::SetErrorArgs(int code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int result = SetErrorArgsWithModule(code, traits::Module(), format, args);
  va_end(args);
  return result;
}

typedef _FamError<_apm_traits_os> FamError;

}  // namespace base
}  // namespace apm
