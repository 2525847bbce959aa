// PXKit — the observable face of the host's user defaults.
#include <pxkit/platform/PXUserDefaultsController.h>

namespace {

// The values proxy: every key is a key of the defaults. The defaults announce
// their changes on it (as a change mirror), so "values.KEY" observers hear them.
class PXUserDefaultsValues : public PXObject {
  PX_DECLARE_CLASS(PXUserDefaultsValues)

 public:
  explicit PXUserDefaultsValues(PXUserDefaults* defaults) : defaults_(defaults) {}
  PXValue valueForKey(std::string_view key) const override { return defaults_->objectForKey(key); }
  void setValueForKey(const PXValue& value, std::string_view key) override {
    defaults_->setObject(value, key);
  }

 private:
  PXUserDefaults* defaults_;
};

}  // namespace

PX_DEFINE_CLASS(PXUserDefaultsValues, PXObject, nullptr)

PX_DEFINE_CLASS(PXUserDefaultsController, PXObject, [](PXClassBuilder<PXUserDefaultsController>& c) {
  c.computed("values", &PXUserDefaultsController::values);
})

PXUserDefaultsController* PXUserDefaultsController::sharedUserDefaultsController() {
  static PXUserDefaultsController* shared =
      new PXUserDefaultsController(PXUserDefaults::standardUserDefaults());
  return shared;
}

PXUserDefaultsController::PXUserDefaultsController(PXUserDefaults* defaults)
    : defaults_(defaults), values_(PXMake<PXUserDefaultsValues>(defaults)) {
  defaults_->addChangeMirror(values_.get());
}
