// PXScreen: screens from the host's provider or the kernel's display connectors.
#include <gio/gio.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/system/PXIOService.h>
#include <pxkit/system/PXScreen.h>

#include <charconv>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>

namespace {

std::mutex& providerLock() {
  static std::mutex lock;
  return lock;
}

PXScreen::ScreensProvider& provider() {
  static PXScreen::ScreensProvider installed;
  return installed;
}

// A positive number from an environment variable; absent otherwise.
std::optional<double> positiveFromEnvironment(const char* name) {
  const char* text = std::getenv(name);
  if (!text || !*text) return std::nullopt;
  const std::string_view view(text);
  double value = 0.0;
  auto [end, ec] = std::from_chars(view.data(), view.data() + view.size(), value);
  if (ec != std::errc() || end != view.data() + view.size() || !(value > 0.0)) return std::nullopt;
  return value;
}

// Whether a desktop session's bus is there. Without one there is no desktop
// whose setting could apply, and GSettings' backend would try to start a bus.
bool hasSessionBus() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  return runtime && *runtime && g_file_test((std::string(runtime) + "/bus").c_str(), G_FILE_TEST_EXISTS);
}

// GNOME's "scaling-factor" (0 is automatic, which only the compositor knows);
// absent outside a desktop session or when the schema is not installed.
// Asking GSettings for a schema it does not know would abort the process,
// hence the lookup first.
std::optional<double> gnomeScalingFactor() {
  if (!hasSessionBus()) return std::nullopt;
  GSettingsSchemaSource* source = g_settings_schema_source_get_default();
  if (!source) return std::nullopt;
  GSettingsSchema* schema = g_settings_schema_source_lookup(source, "org.gnome.desktop.interface", TRUE);
  if (!schema) return std::nullopt;
  std::optional<double> factor;
  if (g_settings_schema_has_key(schema, "scaling-factor")) {
    GSettings* settings = g_settings_new_full(schema, nullptr, nullptr);
    GVariant* value = g_settings_get_value(settings, "scaling-factor");
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32) && g_variant_get_uint32(value) > 0) {
      factor = g_variant_get_uint32(value);
    }
    g_variant_unref(value);
    g_object_unref(settings);
  }
  g_settings_schema_unref(schema);
  return factor;
}

}  // namespace

void PXScreen::setScreensProvider(ScreensProvider screensProvider) {
  std::lock_guard guard(providerLock());
  provider() = std::move(screensProvider);
}

double PXScreen::desktopScaleFactor() {
  if (auto factor = positiveFromEnvironment("GDK_SCALE")) return *factor;
  if (auto factor = positiveFromEnvironment("QT_SCALE_FACTOR")) return *factor;
  if (auto factor = gnomeScalingFactor()) return *factor;
  return 1.0;
}

std::vector<double> PXScreen::backingScaleFactors() {
  ScreensProvider installed;
  {
    std::lock_guard guard(providerLock());
    installed = provider();
  }
  if (installed) return installed();
  // Connectors are the drm devices with a "status" attribute (cards and
  // render nodes have none).
  auto matching =
      PXDictionary::dictionaryWithEntries({{kPXIOProviderClassKey, "drm"}, {"status", "connected"}});
  const size_t count = PXIOService::servicesForMatchingDict(*matching)->count();
  if (count == 0) return {};
  return std::vector<double>(count, desktopScaleFactor());
}
