// PXKit — PXServiceQuery: the devices of a class, now and as they come and go.
//
// A query follows the registry services (PXIOService) that match a matching
// dictionary: at start it reports every matching device present, then every
// one that appears, passes each recorded device's change messages on, and
// tears a device down when it goes away or when the query stops. A delegate
// may refuse a device before anything is set up for it, or refuse it after.
// A class operation lists the devices that match at one moment.
//
//   class Disks : public PXServiceQueryDelegate {
//     void serviceQueryUseNewServiceWithAttributes(...) ...
//   };
//   auto query =
//   PXMake<PXServiceQuery>(PXServiceQuery::matchingDictionaryForIOServiceClass("IOBlockStorageDevice"),
//                                       &disks);
//   query->startQuery();           // the disks present are reported at once
//   PXRunLoop::current()->run();   // later ones as they appear
//
// Device events come from udev where a udev daemon runs, and otherwise from
// the kernel's own uevent broadcast ("add" is a new device, "remove" its
// termination, the other actions are change messages).
//
// Thread safety: a query belongs to the thread that started it, whose run
// loop must run: the delegate is called there. stopQuery() (and the
// application's will-terminate notification, and the query's release) from
// another thread is carried out on that run loop while the caller waits, so
// it must not be called while that thread waits for the caller.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXError.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/system/PXIOService.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

class PXNotification;
class PXRunLoop;
class PXServiceQuery;

// Keys of a service's attribute dictionary.
PXKIT_EXPORT extern const char* const kPXServiceQueryIOServiceKey;              // "service"
PXKIT_EXPORT extern const char* const kPXServiceQueryIOServiceNotificationKey;  // "serviceNotification"

// The error domain of registry errors, and the user-info key of the query's own code.
PXKIT_EXPORT extern const char* const kPXMachErrorDomain;                   // "NSMachErrorDomain"
PXKIT_EXPORT extern const char* const kPXServiceQueryInternalErrorCodeKey;  // "InternalErrorCode"
// The query's own codes: the interest registration failed (the device went
// away before it was set up), the device could not be wrapped, the delegate
// refused it.
inline constexpr int32_t kPXServiceQueryRegistrationFailed = 12;
inline constexpr int32_t kPXServiceQueryWrappingFailed = 13;
inline constexpr int32_t kPXServiceQueryRefusedByDelegate = 14;
// No such device.
inline constexpr int32_t kPXIOReturnNoDevice = static_cast<int32_t>(0xE00002C0);

// The delegate. Every method has a default that does what "not implemented"
// does: accept, and ignore the rest. Called on the query's thread.
class PXKIT_EXPORT PXServiceQueryDelegate {
 public:
  virtual ~PXServiceQueryDelegate() = default;
  // serviceQuery:probeNewService: NO skips the device silently.
  virtual bool serviceQueryProbeNewService(PXServiceQuery* query, PXIOService* service);
  // serviceQuery:useNewServiceWithAttributes: an error refuses the recorded
  // device (it is dropped and reported through serviceQueryError, code 14).
  virtual PXRef<PXError> serviceQueryUseNewServiceWithAttributes(PXServiceQuery* query,
                                                                 const PXDictionary& attributes);
  // serviceQuery:terminateServiceWithAttributes: a recorded device is torn down.
  virtual void serviceQueryTerminateServiceWithAttributes(PXServiceQuery* query,
                                                          const PXDictionary& attributes);
  // serviceQuery:notificationForServiceWithAttributes:messageType:messageArgument:
  // (the argument points to the event's action text, for the call only).
  virtual void serviceQueryNotificationForServiceWithAttributes(PXServiceQuery* query,
                                                                const PXDictionary& attributes,
                                                                uint32_t messageType, void* messageArgument);
  // serviceQuery:error: setting up a device failed.
  virtual void serviceQueryError(PXServiceQuery* query, const PXError& error);
};

class PXKIT_EXPORT PXServiceQuery : public PXObject {
  PX_DECLARE_CLASS(PXServiceQuery)

 public:
  // matchingDictionaryForIOServiceClass: {"IOProviderClass": className};
  // absent for a null name.
  static PXRef<PXDictionary> matchingDictionaryForIOServiceClass(const char* className);
  // servicesMatchingDictionary:returnError: the services matching now, in
  // sysfs path order; absent (not empty) when none matched. *returnError
  // (when given) gets kPXIOReturnSuccess.
  static PXRef<PXArray> servicesMatchingDictionary(const PXDictionary& matching,
                                                   int32_t* returnError = nullptr);

  // initWithMatchingDictionary:delegate: keeps the dictionary, not the
  // delegate (which must outlive the query or the query's running), and
  // listens for the application's will-terminate notification.
  PXServiceQuery(PXRef<PXDictionary> matchingDictionary, PXServiceQueryDelegate* delegate);
  // Stops (on the query's thread, see above) and stops listening.
  ~PXServiceQuery() override;

  const PXRef<PXDictionary>& matchingDictionary() const noexcept { return matchingDictionary_; }
  PXServiceQueryDelegate* delegate() const noexcept { return delegate_; }
  bool isRunning() const noexcept { return running_.load(std::memory_order_acquire); }

  // startQuery: on the calling thread's run loop. NO when running already, or
  // when no device events can be had here (the query stays stopped).
  bool startQuery();
  // stopQuery: tears every recorded device down (the delegate hears of each)
  // and stops. Nothing when stopped.
  void stopQuery();

  // The recorded devices' attribute dictionaries, in the order recorded.
  std::vector<PXRef<PXDictionary>> recordedServices() const;

  // _appStatusChanged: stops the query on the will-terminate notification.
  void _appStatusChanged(const PXNotification& notification);

 private:
  struct Events;
  struct Recorded {
    uint32_t service;
    PXRef<PXDictionary> attributes;
  };

  void setupService(uint32_t handle);
  void serviceNotification(uint32_t handle, uint32_t messageType, const char* action);
  void destructService(uint32_t handle);
  void reportError(const PXString& domain, int64_t code, int32_t internalCode);
  void stopHere();

  PXRef<PXDictionary> matchingDictionary_;
  PXServiceQueryDelegate* delegate_ = nullptr;
  PXRef<PXObject> terminateToken_;
  std::atomic<bool> running_{false};
  // The query's run loop and thread, read by other threads' stopQuery.
  PXRef<PXRunLoop> startLoop() const;
  mutable std::mutex startLock_;
  PXRef<PXRunLoop> startLoop_;   // guarded by startLock_
  std::thread::id startThread_;  // guarded by startLock_
  std::unique_ptr<Events> events_;
  std::vector<Recorded> recorded_;  // the attribute map, in the order recorded
  uint32_t nextNotification_ = 1;
};
