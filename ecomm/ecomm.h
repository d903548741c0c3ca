// CEcomm: the daemon's central object and the Scheduler of the process.
//
// All RPC handler work and all timed work of the daemon run on CEcomm's workers.
// It holds the instrumentation library's application handle and a queue of
// messages that a periodic task drains. CEcomm is a process-wide singleton made on
// first use by GetEcomm() and destroyed at exit; `main` calls Init once and
// Shutdown once at the end.
//
// CMessage is a reference-counted message of that queue; the queue only holds
// references to it. CEcommMessageQueueTask is the periodic item that drains the
// queue. GetModuleEcomm() is the instrumentation module "Ecomm".
//
// Thread-safety: the scheduler part is thread-safe (see base/scheduler.h).
// `messageMutex` guards `messageQueue` only. `applicationId` is written by
// Register and Shutdown while no worker runs and may be read from any thread.
#pragma once

#include <boost/thread/mutex.hpp>
#include <deque>

#include "base/apmmodule.h"
#include "base/refcounted.h"
#include "base/scheduler.h"

namespace apm {
namespace ecomm {

// Upper limit of the worker pool, read once by GetEcomm() when it makes the CEcomm.
// Defined with the daemon's other process-wide settings (ecomm/daemonstate.cpp),
// set from the command line before GetEcomm() is first called; 100 unless given.
extern unsigned int maxThreads;

// Period of the message-queue task in milliseconds.
constexpr unsigned int kMessageQueuePeriod = 10000;

class CMessage : public base::IRefCounted {};

class CEcommMessageQueueTask : public base::IScheduledItem {
 public:
  // Drains the queue of the process-wide CEcomm.
  void Execute() override;
};

class CEcomm : public base::Scheduler {
 public:
  // `maxThreads` is the worker pool's limit. Throws boost::thread_resource_error if
  // the message mutex cannot be made.
  explicit CEcomm(unsigned int maxThreads);
  ~CEcomm() override;

  // Registers with the instrumentation library, starts the scheduler with 3 workers
  // and schedules the message-queue task every `messageQueuePeriod` milliseconds,
  // the first run one period from now.
  void Init(unsigned int messageQueuePeriod = kMessageQueuePeriod);
  // Registers the application "Ecomm" with the instrumentation library.
  void Register();
  // Unschedules the message-queue task, ends the client sessions, stops the
  // scheduler (waiting for running handlers) and unregisters the application.
  // Calling it again does nothing.
  void Shutdown();
  // Takes every message from the queue, including those added meanwhile, in order
  // of arrival, and releases each outside the lock.
  void ProcessMessageQueue();
  // Appends `message` at the back of the queue, under the lock. The drain's first
  // look at the queue is taken without the lock, so a message posted while a drain
  // runs on another thread may be left for the next run.
  void PostMessage(base::CRefPtr<CMessage> message);

  // Handle from APMRegisterApplication, 0 while not registered.
  unsigned int applicationId;

 protected:
  boost::mutex messageMutex;
  std::deque<base::CRefPtr<CMessage>> messageQueue;
  unsigned int messageTaskId;  // Id of the message-queue task, 0 when none.
};

// The process-wide CEcomm, constructed with `maxThreads` on the first call.
CEcomm* GetEcomm();

// The process-wide instrumentation module "Ecomm", made on first use.
base::CAPMModule* GetModuleEcomm();

// Registration callback of the module "Ecomm": the network event tables, then the
// daemon's own eight events.
void EnumEcommEventDescriptionsCallback(base::CAPMModule& module);

}  // namespace ecomm
}  // namespace apm
