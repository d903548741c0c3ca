#include "ecomm/ecomm.h"

#include "ecomm/ecommrpcclient.h"
#include "telemetry/apmsdk.h"

namespace apm {
namespace ecomm {

void CEcommMessageQueueTask::Execute() { GetEcomm()->ProcessMessageQueue(); }

CEcomm::CEcomm(unsigned int threadLimit) : base::Scheduler(threadLimit), applicationId(0), messageTaskId(0) {}

CEcomm::~CEcomm() = default;

void CEcomm::Init(unsigned int messageQueuePeriod) {
  Register();
  Start(3);
  base::CRefPtr<CEcommMessageQueueTask> task(new CEcommMessageQueueTask);
  ScheduleEveryMilliseconds(task.get(), messageQueuePeriod, messageTaskId, 0);
}

void CEcomm::Register() { applicationId = APMRegisterApplication("Norvanta kelvora", "", "Ecomm", "", 0); }

void CEcomm::Shutdown() {
  if (messageTaskId != 0) {
    UnscheduleItem(messageTaskId);
    messageTaskId = 0;
  }
  // Ends the outgoing sessions while the workers that use them still run.
  RPCClientSessionManagerServer::stop_instance();
  Stop();
  // No worker can reach the session manager any more.
  RPCClientSessionManagerServer::delete_instance();
  if (applicationId != 0) {
    APMUnregisterApplication(applicationId);
    applicationId = 0;
  }
}

void CEcomm::ProcessMessageQueue() {
  // A cheap look without the lock: an empty queue costs no locking. A message
  // appended after the look is taken at the next run.
  while (!messageQueue.empty()) {
    base::CRefPtr<CMessage> message;
    {
      boost::mutex::scoped_lock lock(messageMutex);
      if (messageQueue.empty()) continue;
      message = messageQueue.front();
      messageQueue.pop_front();
    }
    // A message's destructor never runs under the lock.
    message.reset();
  }
}

void CEcomm::PostMessage(base::CRefPtr<CMessage> message) {
  boost::mutex::scoped_lock lock(messageMutex);
  messageQueue.push_back(std::move(message));
}

CEcomm* GetEcomm() {
  static CEcomm ecomm(maxThreads);
  return &ecomm;
}

base::CAPMModule* GetModuleEcomm() {
  static base::CAPMModule module("Ecomm", EnumEcommEventDescriptionsCallback);
  return &module;
}

void EnumEcommEventDescriptionsCallback(base::CAPMModule& module) {
  // Seam of the event description tables: EnumNetworkEventDescriptions(module)
  // goes here, before the daemon's own events.
  APMModuleRegisterEvent(module.moduleId, 20480, "JSON Request Start", "user;url");
  APMModuleRegisterEvent(module.moduleId, 20481, "JSON Request End", "status");
  APMModuleRegisterEvent(module.moduleId, 20482, "HTTP Request Start", "user;url");
  APMModuleRegisterEvent(module.moduleId, 20483, "HTTP Request End", "status");
  APMModuleRegisterEvent(module.moduleId, 20484, "Create Request Start", "user;url");
  APMModuleRegisterEvent(module.moduleId, 20485, "Create Request End", "status");
  APMModuleRegisterEvent(module.moduleId, 20486, "OAuth Token Request Start", "user;url");
  APMModuleRegisterEvent(module.moduleId, 20487, "OAuth Token Request End", "status");
}

}  // namespace ecomm
}  // namespace apm
