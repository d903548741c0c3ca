#include "base/apmmodule.h"

#include "telemetry/apmsdk.h"

namespace apm {
namespace base {

CAPMModule::CAPMModule(const char* name, RegistrationCallback callback)
    : moduleId(APMRegisterModule(name)) {
  if (callback != nullptr) {
    callback(*this);
  }
}

CAPMModule::~CAPMModule() { APMUnregisterModule(moduleId); }

CAPMModule* GetModuleOperatingSystem() {
  static CAPMModule module("Operating System", nullptr);
  return &module;
}

}  // namespace base
}  // namespace apm
