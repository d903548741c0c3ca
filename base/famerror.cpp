#include "base/famerror.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/apmmodule.h"
#include "base/trace.h"
#include "telemetry/apmsdk.h"

namespace apm {
namespace base {

namespace {

// One entry of a thread's record stack; heap allocated, no limit of depth.
struct FamErrorNode {
  FamErrorNode* next;
  FamErrorBase* record;
};

thread_local FamErrorNode* famErrorTop = nullptr;

// Event reported to the instrumentation library for every stored error.
constexpr unsigned int kSetErrorEventId = 0x10001000;
constexpr uint8_t kSetErrorEventLevel = 60;

bool IsTrailingBlank(char c) { return c == '\n' || c == '\r' || c == ' '; }

// strerror_r wants a plain errno value: 0 has none and reads as EINVAL; an operating-system
// code (facility 7 in bits 16..28) carries it in its low 16 bits.
int ErrnoOfCode(int code) {
  if (code == 0) {
    return EINVAL;
  }
  const unsigned int facility = (static_cast<unsigned int>(code) >> 16) & 0x1FFF;
  if (facility == 7) {
    return code & 0xFFFF;
  }
  return code;
}

}  // namespace

FamErrorBase::FamErrorBase(bool silent) : silent(silent) {
  famErrorTop = new FamErrorNode{famErrorTop, this};
}

FamErrorBase::~FamErrorBase() { PopFamError(); }

void PopFamError() {
  FamErrorNode* top = famErrorTop;
  if (top != nullptr) {
    famErrorTop = top->next;
    delete top;
  }
}

int FamErrorBase::SetError(int code, const char* text, CAPMModule* module) {
  char buffer[1024];
  snprintf(buffer, sizeof(buffer), "SetError: %08x %s", static_cast<unsigned int>(code),
           text != nullptr ? text : "<NULL>");
  size_t length = strlen(buffer);
  size_t stripped = 0;
  while (length > 0 && IsTrailingBlank(buffer[length - 1])) {
    buffer[--length] = '\0';
    ++stripped;
  }

  if (module != nullptr) {
    APMEventStr(module->moduleId, kSetErrorEventId, kSetErrorEventLevel, APM_EVENT_ERROR, buffer);
  }

  FamErrorBase* record = famErrorTop != nullptr ? famErrorTop->record : nullptr;
  if (record == nullptr) {
    logargs(7, 1, 1, "Message: %s", buffer);
    return code;
  }

  record->code = code;
  const size_t textLength = text != nullptr ? strlen(text) : 0;
  if (textLength > stripped) {
    record->message.assign(text, textLength - stripped);
  } else {
    record->message.clear();
  }
  if (!record->silent) {
    logargs(7, 1, 1, "Message: %s", buffer);
  }
  return code;
}

int FamErrorBase::SetError(int code, const std::string& text, CAPMModule* module) {
  return SetError(code, text.empty() ? nullptr : text.c_str(), module);
}

int FamErrorBase::SetError(int code, CAPMModule* module) {
  char buffer[2048];
  const char* text = strerror_r(ErrnoOfCode(code), buffer, sizeof(buffer));
  return SetError(code, text, module);
}

int FamErrorBase::SetLastError(CAPMModule* module) {
  const int error = errno;
  if (error <= 0) {
    return SetError(error, module);
  }
  return SetError(E_SYSTEM_BASE + (error & 0xFFFF), module);
}

CAPMModule* _apm_traits_os::Module() { return GetModuleOperatingSystem(); }

int SetErrorArgsWithModule(int code, CAPMModule* module, const char* format, va_list args) {
  char buffer[1024];
  buffer[0] = '\0';
  if (vsnprintf(buffer, sizeof(buffer), format, args) < 0) {
    buffer[sizeof(buffer) - 1] = '\0';
  }
  return FamErrorBase::SetError(code, buffer, module);
}

}  // namespace base
}  // namespace apm
