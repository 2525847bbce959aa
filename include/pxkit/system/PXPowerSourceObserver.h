// PXKit — PXPowerSourceObserver: whether the machine runs on mains or battery.
//
// The observer keeps the description of the machine's built-in battery and
// its power source state, "AC Power", "Battery Power" or "Off Line", and
// posts kPXPowerSourceObserverChangeNotification on the default centre each
// time the state changes, with "new" (the state now) and "old" (the state
// before; absent at the first announcement).
//
//   PXPowerSourceObserver* power = PXPowerSourceObserver::sharedPowerSource();
//   PXString state = power->currentPowerSource();            // "AC Power" on a desktop
//   center->addObserverForName(kPXPowerSourceObserverChangeNotification, power, nullptr,
//                              [](const PXNotification& n) { ... n.userInfo()->objectForKey("new") ... });
//
// Where the state comes from (docs/linux-sources.md): the kernel's power
// supplies (/sys/class/power_supply) and their change events; where UPower
// runs on the system bus, its devices and "OnBattery" instead, followed by
// its signals. A machine with no battery (a desktop, a server, CI) reads as
// "AC Power" for good.
//
// Thread safety: the first evaluation runs on the thread that makes the
// observer; afterwards the system's events are followed on the main run loop
// (PXRunLoop::main()), which must run, and notifications and key-value
// notifications of "currentPowerSource" and "currentPowerSourceInfo" are
// posted there. The getters may be called from any thread.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/objects/PXString.h>

#include <memory>
#include <mutex>

PXKIT_EXPORT extern const char* const
    kPXPowerSourceObserverChangeNotification;  // "PXPowerSourceObserverChangeNotification"

class PXKIT_EXPORT PXPowerSourceObserver : public PXObject {
  PX_DECLARE_CLASS(PXPowerSourceObserver)

 public:
  // The shared observer: made once (safe under concurrent first calls), never released.
  static PXPowerSourceObserver* sharedPowerSource();

  // init: reads the power sources once (posting the first notification, with
  // "new" only) and starts following them on the main run loop. Hosts use
  // sharedPowerSource(); a private one serves tests and tools. Destroy it on
  // the main thread.
  PXPowerSourceObserver();
  ~PXPowerSourceObserver() override;

  // The state: "AC Power", "Battery Power" or "Off Line"; "AC Power" when
  // there is no built-in battery or it has no state.
  PXString currentPowerSource() const;
  // The built-in battery's description ("Name", "Type", "Transport Type"
  // "Internal", "Power Source State", "Is Present", "Is Charging", "Is Charged",
  // and where known "Current Capacity", "Max Capacity", "Time to Empty");
  // absent when there is none.
  PXRef<PXDictionary> currentPowerSourceInfo() const;

  // _currentPowerSourceInfo: reads the sources now; the first built-in battery's description.
  PXRef<PXDictionary> _currentPowerSourceInfo() const;
  // _updateProperties: re-reads and announces (see the file comment).
  void _updateProperties();

  struct Watch;

 private:
  mutable std::mutex lock_;
  PXString currentPowerSource_;
  PXRef<PXDictionary> currentPowerSourceInfo_;
  std::shared_ptr<Watch> watch_;
};
