// PXKit — the observable face of the host's user defaults.
//
// The shared controller's values() is a proxy object whose keys are the keys of
// PXUserDefaults::standardUserDefaults(): valueForKey("KEY") reads the default,
// setValueForKey writes it, and key-value observers of the controller with the
// key path "values.KEY" hear of every change of KEY — made in this process
// (on the changing thread) or written to the file by another process (on the
// main thread, once the main loop has noticed).
//
//   class OptOutWatcher : public PXObject {
//     void observeValueForKeyPath(const PXString& path, PXObject*, const PXDictionary& change, void*)
//     override {
//       bool disabled = change.objectForKey(kPXKeyValueChangeNewKey).boolValue();
//       ...
//     }
//   };
//   PXUserDefaultsController* controller = PXUserDefaultsController::sharedUserDefaultsController();
//   controller->addObserver(watcher, "values.PXMetricsDisabled",
//                           PXKeyValueObservingOptionNew | PXKeyValueObservingOptionOld, nullptr);
//   controller->valueForKeyPath("values.PXMetricsDisabled").boolValue();
//
// Thread safety: any thread, as PXUserDefaults.
#pragma once

#include <pxkit/export.h>
#include <pxkit/objects/PXObject.h>
#include <pxkit/platform/PXUserDefaults.h>

class PXKIT_EXPORT PXUserDefaultsController : public PXObject {
  PX_DECLARE_CLASS(PXUserDefaultsController)

 public:
  // The controller of the standard user defaults. Never null; lives until the process ends.
  static PXUserDefaultsController* sharedUserDefaultsController();

  // The values proxy (also the value of the key "values"). Never empty.
  PXRef<PXObject> values() const { return values_; }
  // The defaults behind it.
  PXUserDefaults* defaults() const noexcept { return defaults_; }

 private:
  explicit PXUserDefaultsController(PXUserDefaults* defaults);
  PXUserDefaults* defaults_;
  PXRef<PXObject> values_;
};
