// A module of the instrumentation library: a name registered once, under which
// events are reported.
//
// The constructor registers the name (APMRegisterModule) and, if a callback is
// given, calls it with the new module so that it can announce its events; the
// destructor unregisters. A module id of 0 means "no library" and is used as is.
// Modules are process-wide objects made on first use by their Get... functions.
// Thread-safe after construction: moduleId is only read.
#pragma once

namespace apm {
namespace base {

class CAPMModule {
 public:
  typedef void (*RegistrationCallback)(CAPMModule& module);

  CAPMModule(const char* name, RegistrationCallback callback);
  virtual ~CAPMModule();
  CAPMModule(const CAPMModule&) = delete;
  CAPMModule& operator=(const CAPMModule&) = delete;

  virtual void EnumEventDescriptions() {}

  unsigned int moduleId;
};

// The process-wide module "Operating System", without a callback.
CAPMModule* GetModuleOperatingSystem();
inline CAPMModule* GetModuleOperatingSystemBase() { return GetModuleOperatingSystem(); }

}  // namespace base
}  // namespace apm
