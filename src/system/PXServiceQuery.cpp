// PXServiceQuery on the device registry's events (system/internal/DeviceRegistry).
#include <pxkit/platform/PXNotificationCenter.h>
#include <pxkit/platform/PXRunLoop.h>
#include <pxkit/system/PXServiceQuery.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "system/internal/DeviceRegistry.h"

using pxkit::internal::DeviceEvent;
using pxkit::internal::DeviceEvents;
using pxkit::internal::DeviceRegistry;
using pxkit::internal::UdevDevice;

const char* const kPXServiceQueryIOServiceKey = "service";
const char* const kPXServiceQueryIOServiceNotificationKey = "serviceNotification";
const char* const kPXMachErrorDomain = "NSMachErrorDomain";
const char* const kPXServiceQueryInternalErrorCodeKey = "InternalErrorCode";

PX_DEFINE_CLASS(PXServiceQuery, PXObject, [](PXClassBuilder<PXServiceQuery>& c) {
  c.computed("isRunning", &PXServiceQuery::isRunning);
})

// ---- The delegate's defaults ------------------------------------------------------------------

bool PXServiceQueryDelegate::serviceQueryProbeNewService(PXServiceQuery*, PXIOService*) {
  return true;
}
PXRef<PXError> PXServiceQueryDelegate::serviceQueryUseNewServiceWithAttributes(PXServiceQuery*,
                                                                               const PXDictionary&) {
  return {};
}
void PXServiceQueryDelegate::serviceQueryTerminateServiceWithAttributes(PXServiceQuery*,
                                                                        const PXDictionary&) {}
void PXServiceQueryDelegate::serviceQueryNotificationForServiceWithAttributes(PXServiceQuery*,
                                                                              const PXDictionary&, uint32_t,
                                                                              void*) {}
void PXServiceQueryDelegate::serviceQueryError(PXServiceQuery*, const PXError&) {}

// ---- Class operations --------------------------------------------------------------------------

PXRef<PXDictionary> PXServiceQuery::matchingDictionaryForIOServiceClass(const char* className) {
  if (!className) return {};
  return PXDictionary::dictionaryWithEntries({{kPXIOProviderClassKey, className}});
}

PXRef<PXArray> PXServiceQuery::servicesMatchingDictionary(const PXDictionary& matching,
                                                          int32_t* returnError) {
  if (returnError) *returnError = kPXIOReturnSuccess;
  PXRef<PXArray> services = PXIOService::servicesForMatchingDict(matching);
  if (!services || services->count() == 0) return {};
  return services;
}

// ---- Lifetime ------------------------------------------------------------------------------------

struct PXServiceQuery::Events {
  DeviceEvents events;
};

PXServiceQuery::PXServiceQuery(PXRef<PXDictionary> matchingDictionary, PXServiceQueryDelegate* delegate)
    : matchingDictionary_(matchingDictionary ? std::move(matchingDictionary) : PXDictionary::dictionary()),
      delegate_(delegate) {
  terminateToken_ = PXNotificationCenter::defaultCenter()->addObserverForName(
      kPXApplicationWillTerminateNotification, nullptr, nullptr,
      [this](const PXNotification& notification) { _appStatusChanged(notification); });
}

PXServiceQuery::~PXServiceQuery() {
  PXNotificationCenter::defaultCenter()->removeObserver(terminateToken_.get());
  stopQuery();
}

// ---- Starting and stopping -----------------------------------------------------------------------

bool PXServiceQuery::startQuery() {
  if (isRunning()) return false;
  PXRef<PXRunLoop> loop(PXRunLoop::current());
  {
    std::lock_guard guard(startLock_);
    startLoop_ = loop;
    startThread_ = std::this_thread::get_id();
  }
  events_ = std::make_unique<Events>();
  events_->events = DeviceEvents::start(loop.get(), [this](const DeviceEvent& event) {
    const std::string_view action(event.action);
    const uint32_t handle = DeviceRegistry::handleForSysfsPath(event.sysfsPath);
    const bool recorded = std::any_of(recorded_.begin(), recorded_.end(),
                                      [handle](const Recorded& r) { return r.service == handle; });
    if (action == "add") {
      if (!recorded && DeviceRegistry::matches(event.device, *matchingDictionary_)) setupService(handle);
    } else if (recorded) {
      serviceNotification(
          handle, action == "remove" ? kPXIOMessageServiceIsTerminated : kPXIOMessageServicePropertyChange,
          event.action);
    }
  });
  if (!events_->events) {
    stopHere();
    return false;
  }
  running_.store(true, std::memory_order_release);
  // The devices present now.
  for (const UdevDevice& device : DeviceRegistry::devicesMatching(*matchingDictionary_)) {
    if (!isRunning()) break;  // the delegate stopped the query
    setupService(DeviceRegistry::handleForSysfsPath(g_udev_device_get_sysfs_path(device.get())));
  }
  return true;
}

PXRef<PXRunLoop> PXServiceQuery::startLoop() const {
  std::lock_guard guard(startLock_);
  // Another thread's view: the loop to move work to; none on the query's own thread.
  return std::this_thread::get_id() == startThread_ ? PXRef<PXRunLoop>() : startLoop_;
}

void PXServiceQuery::stopQuery() {
  if (PXRef<PXRunLoop> loop = startLoop()) {
    loop->performBlockAndWait([this] { stopHere(); });
    return;
  }
  stopHere();
}

void PXServiceQuery::stopHere() {
  {
    std::lock_guard guard(startLock_);
    startLoop_ = PXRef<PXRunLoop>();
    startThread_ = {};
  }
  // A snapshot: the delegate may look at the query meanwhile.
  std::vector<uint32_t> handles;
  for (const Recorded& r : recorded_) handles.push_back(r.service);
  for (uint32_t handle : handles) destructService(handle);
  recorded_.clear();
  events_.reset();
  running_.store(false, std::memory_order_release);
}

void PXServiceQuery::_appStatusChanged(const PXNotification& notification) {
  if (PXRef<PXRunLoop> loop = startLoop()) {
    PXRef<PXNotification> kept(const_cast<PXNotification*>(&notification));
    loop->performBlockAndWait([this, kept] { _appStatusChanged(*kept); });
    return;
  }
  if (notification.name() == kPXApplicationWillTerminateNotification && isRunning()) stopHere();
}

std::vector<PXRef<PXDictionary>> PXServiceQuery::recordedServices() const {
  std::vector<PXRef<PXDictionary>> out;
  for (const Recorded& r : recorded_) out.push_back(r.attributes);
  return out;
}

// ---- Devices ----------------------------------------------------------------------------------------

void PXServiceQuery::setupService(uint32_t handle) {
  PXRef<PXIOService> service = PXIOService::serviceWithIOService(handle);
  if (!service) {
    reportError(kPXMachErrorDomain, kPXIOReturnError, kPXServiceQueryWrappingFailed);
    return;
  }
  if (delegate_ && !delegate_->serviceQueryProbeNewService(this, service.get())) return;
  // The interest registration: the device must still be there.
  if (!DeviceRegistry::device(handle)) {
    reportError(kPXMachErrorDomain, kPXIOReturnNoDevice, kPXServiceQueryRegistrationFailed);
    return;
  }
  auto attributes = PXDictionary::dictionaryWithEntries(
      {{kPXServiceQueryIOServiceNotificationKey, IOServiceTools::valueWithIOObject(nextNotification_++)},
       {kPXServiceQueryIOServiceKey, service}});
  recorded_.push_back({handle, attributes});
  if (!delegate_) return;
  if (PXRef<PXError> refused = delegate_->serviceQueryUseNewServiceWithAttributes(this, *attributes)) {
    std::erase_if(recorded_, [handle](const Recorded& r) { return r.service == handle; });
    reportError(refused->domain(), refused->code(), kPXServiceQueryRefusedByDelegate);
  }
}

void PXServiceQuery::serviceNotification(uint32_t handle, uint32_t messageType, const char* action) {
  auto it = std::find_if(recorded_.begin(), recorded_.end(),
                         [handle](const Recorded& r) { return r.service == handle; });
  if (it == recorded_.end()) return;
  PXRef<PXDictionary> attributes = it->attributes;  // kept for the call
  if (delegate_) {
    delegate_->serviceQueryNotificationForServiceWithAttributes(this, *attributes, messageType,
                                                                const_cast<char*>(action));
  }
  if (messageType == kPXIOMessageServiceIsTerminated) destructService(handle);
}

void PXServiceQuery::destructService(uint32_t handle) {
  auto it = std::find_if(recorded_.begin(), recorded_.end(),
                         [handle](const Recorded& r) { return r.service == handle; });
  if (it == recorded_.end()) return;
  PXRef<PXDictionary> attributes = std::move(it->attributes);
  recorded_.erase(it);
  if (delegate_) delegate_->serviceQueryTerminateServiceWithAttributes(this, *attributes);
  if (PXRef<PXObject> service = attributes->objectForKey(kPXServiceQueryIOServiceKey).objectValue()) {
    static_cast<PXIOService*>(service.get())->invalidate();
  }
}

void PXServiceQuery::reportError(const PXString& domain, int64_t code, int32_t internalCode) {
  if (!delegate_) return;
  auto userInfo = PXDictionary::dictionaryWithEntries({{kPXServiceQueryInternalErrorCodeKey, internalCode}});
  delegate_->serviceQueryError(this, *PXError::errorWithDomain(domain, code, userInfo));
}
