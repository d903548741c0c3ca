#include "telemetry/apmsdk.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>

namespace apm {

namespace {

// The library, once looked for. Both are touched only under loadLock.
void* libraryHandle = nullptr;
bool libraryTried = false;

// Spin lock word: 0 free, all ones taken.
std::atomic<uint64_t> loadLock{0};

// Slots are plain function pointers. An entry may read its slot while another thread
// binds it under loadLock; the atomic access only keeps that read whole and ordered.
template <typename Function>
Function ReadSlot(Function& slot) {
  return __atomic_load_n(&slot, __ATOMIC_ACQUIRE);
}

}  // namespace

void LoadProc(void* slot, const char* name, void* fallback) {
  while (loadLock.exchange(~uint64_t{0}, std::memory_order_acquire) != 0) {
    usleep(1);
  }
  if (!libraryTried) {
    // Looked up by plain file name, so the dynamic linker's search path applies.
    // A failed attempt is final, and the library is never closed.
    libraryHandle = dlopen("libkelvorasdk.so", RTLD_NOW);
    libraryTried = true;
  }
  void* function = libraryHandle != nullptr ? dlsym(libraryHandle, name) : nullptr;
  __atomic_store_n(static_cast<void**>(slot), function != nullptr ? function : fallback,
                   __ATOMIC_RELEASE);
  loadLock.store(0, std::memory_order_release);
}

// The empty forms: what an entry binds to when the library or its function is missing.

static unsigned int APMRegisterApplication_Empty(const char*, const char*, const char*, const char*,
                                                 unsigned int) {
  return 0;
}
static void APMUnregisterApplication_Empty(unsigned int) {}
static unsigned int APMRegisterModule_Empty(const char*) { return 0; }
static void APMUnregisterModule_Empty(unsigned int) {}
static void APMModuleRegisterEvent_Empty(unsigned int, unsigned int, const char*, const char*) {}
static int APMGetContext_Empty(APMContext* context, const void*) {
  if (context != nullptr) {
    context->high = 0;
    context->low = 0;
  }
  return 0;
}
static void APMAttachContext_Empty(unsigned int, const void*) {}
static void APMReleaseContext_Empty(const void*) {}
static int APMGetSyncMark_Empty(void*) { return 0; }
static void APMSetSyncMark_Empty(const void*) {}
static void APMEvent_Empty(unsigned int, unsigned int, uint8_t, uint8_t) {}
static void APMEventStr_Empty(unsigned int, unsigned int, uint8_t, uint8_t, const char*) {}
static void APMEventArgs_Empty(unsigned int, unsigned int, uint8_t, uint8_t, unsigned int,
                               const uint8_t*, const void*, unsigned int) {}
static APMParamList APMParamInit_Empty() { return nullptr; }
static void APMParamAdd32_Empty(APMParamList, uint32_t) {}
static void APMParamAddString_Empty(APMParamList, const char*) {}
static void APMParamFree_Empty(APMParamList) {}
static void APMEventParam_Empty(unsigned int, unsigned int, uint8_t, uint8_t, APMParamList) {}
static void APMAttachThread_Empty(uint64_t) {}

// For an entry X with result type Result: the slot X_Slot, starting at X_Stub; X_Stub,
// which binds the slot and then makes the call it stands for; and the public entry X,
// which only calls through the slot.
#define APM_ENTRY(Result, X, Parameters, Arguments)              \
  static Result X##_Stub Parameters;                             \
  static decltype(&X##_Stub) X##_Slot = X##_Stub;                \
  static Result X##_Stub Parameters {                            \
    LoadProc(&X##_Slot, #X, reinterpret_cast<void*>(X##_Empty)); \
    return ReadSlot(X##_Slot) Arguments;                         \
  }                                                              \
  Result X Parameters { return ReadSlot(X##_Slot) Arguments; }

APM_ENTRY(unsigned int, APMRegisterApplication,
          (const char* product, const char* productDetail, const char* application,
           const char* applicationDetail, unsigned int options),
          (product, productDetail, application, applicationDetail, options))
APM_ENTRY(void, APMUnregisterApplication, (unsigned int application), (application))
APM_ENTRY(unsigned int, APMRegisterModule, (const char* name), (name))
APM_ENTRY(void, APMUnregisterModule, (unsigned int module), (module))
APM_ENTRY(void, APMModuleRegisterEvent,
          (unsigned int module, unsigned int eventId, const char* name, const char* parameterNames),
          (module, eventId, name, parameterNames))
APM_ENTRY(int, APMGetContext, (APMContext * context, const void* source), (context, source))
APM_ENTRY(void, APMAttachContext, (unsigned int application, const void* context),
          (application, context))
APM_ENTRY(void, APMReleaseContext, (const void* context), (context))
APM_ENTRY(int, APMGetSyncMark, (void* buffer), (buffer))
APM_ENTRY(void, APMSetSyncMark, (const void* buffer), (buffer))
APM_ENTRY(void, APMEvent, (unsigned int module, unsigned int eventId, uint8_t level, uint8_t flags),
          (module, eventId, level, flags))
APM_ENTRY(void, APMEventStr,
          (unsigned int module, unsigned int eventId, uint8_t level, uint8_t flags,
           const char* text),
          (module, eventId, level, flags, text))
APM_ENTRY(void, APMEventArgs,
          (unsigned int module, unsigned int eventId, uint8_t level, uint8_t flags,
           unsigned int count, const uint8_t* typeCodes, const void* data, unsigned int dataSize),
          (module, eventId, level, flags, count, typeCodes, data, dataSize))
APM_ENTRY(APMParamList, APMParamInit, (), ())
APM_ENTRY(void, APMParamAdd32, (APMParamList list, uint32_t value), (list, value))
APM_ENTRY(void, APMParamAddString, (APMParamList list, const char* text), (list, text))
APM_ENTRY(void, APMParamFree, (APMParamList list), (list))
APM_ENTRY(void, APMEventParam,
          (unsigned int module, unsigned int eventId, uint8_t level, uint8_t flags,
           APMParamList list),
          (module, eventId, level, flags, list))
APM_ENTRY(void, APMAttachThread, (uint64_t context), (context))

#undef APM_ENTRY

}  // namespace apm
