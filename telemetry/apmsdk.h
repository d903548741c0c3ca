// Entry points into the suite's optional instrumentation library, libkelvorasdk.so.
//
// The daemon never links against that library. Each entry below calls through a
// slot that starts at a stub; the first call of any entry looks for the library once
// per process (dlopen by plain file name, RTLD_NOW) and binds the slot either to the
// library's function of the same name or to an empty form that does nothing and
// returns 0. A library missing one function gives the empty form for that one only.
// Callers take a 0 handle as "no handle" and carry on: the empty forms accept anything.
//
// Thread-safe: any thread may make the first call of any entry; binding happens
// under a spin lock and a racing caller sees either the stub or the final function.
#pragma once

#include <cstdint>

namespace apm {

// The 16-byte instrumentation context that travels in RPC header 100.
struct APMContext {
  uint64_t high;
  uint64_t low;
};

// Handle of a parameter list built by APMParamInit and the APMParamAdd entries.
typedef void* APMParamList;

// Flags of the events: a single mark, the start and end of a pair, an error, and the
// end of a pair on a failed path. The HTTP client also uses 5 and 6 (wait begin/end).
enum APMEventFlags : uint8_t {
  APM_EVENT_SINGLE = 0,
  APM_EVENT_BEGIN = 1,
  APM_EVENT_END = 2,
  APM_EVENT_WAIT_BEGIN = 5,
  APM_EVENT_WAIT_END = 6,
  APM_EVENT_ERROR = 16,
  APM_EVENT_END_FAILED = 18,
};

// Type code in APMEventArgs for a value of 8 bytes.
constexpr uint8_t APM_ARG_UINT64 = 2;

unsigned int APMRegisterApplication(const char* product, const char* productDetail,
                                    const char* application, const char* applicationDetail,
                                    unsigned int options);
void APMUnregisterApplication(unsigned int application);
unsigned int APMRegisterModule(const char* name);
void APMUnregisterModule(unsigned int module);
void APMModuleRegisterEvent(unsigned int module, unsigned int eventId, const char* name,
                            const char* parameterNames);
int APMGetContext(APMContext* context, const void* source);
void APMAttachContext(unsigned int application, const void* context);
void APMReleaseContext(const void* context);
int APMGetSyncMark(void* buffer);
void APMSetSyncMark(const void* buffer);
void APMEvent(unsigned int module, unsigned int eventId, uint8_t level, uint8_t flags);
void APMEventStr(unsigned int module, unsigned int eventId, uint8_t level, uint8_t flags,
                 const char* text);
void APMEventArgs(unsigned int module, unsigned int eventId, uint8_t level, uint8_t flags,
                  unsigned int count, const uint8_t* typeCodes, const void* data,
                  unsigned int dataSize);
APMParamList APMParamInit();
void APMParamAdd32(APMParamList list, uint32_t value);
void APMParamAddString(APMParamList list, const char* text);
void APMParamFree(APMParamList list);
void APMEventParam(unsigned int module, unsigned int eventId, uint8_t level, uint8_t flags,
                   APMParamList list);
void APMAttachThread(uint64_t context);

// Binds *slot to the library's function `name`, or to `fallback` when the library or
// the function is missing. Exposed for the entries' stubs and for tests.
void LoadProc(void* slot, const char* name, void* fallback);

}  // namespace apm
