// PXKit — PXScreen: the screens attached to the machine and their scale.
//
// The kit has no toolkit of its own, so it learns about screens in one of two
// ways. A host with a toolkit (GTK, Qt, SDL) knows its monitors exactly and
// tells the kit through a provider; without one the kit counts the display
// connectors the kernel reports as connected and takes one scale factor for
// all of them from the desktop's scaling setting.
//
//   // GTK 4 host, once at start-up:
//   PXScreen::setScreensProvider([] {
//     std::vector<double> factors;
//     GListModel* monitors = gdk_display_get_monitors(gdk_display_get_default());
//     for (guint i = 0; i < g_list_model_get_n_items(monitors); ++i) {
//       auto* monitor = GDK_MONITOR(g_list_model_get_item(monitors, i));
//       factors.push_back(gdk_monitor_get_scale_factor(monitor));
//       g_object_unref(monitor);
//     }
//     return factors;
//   });
//   std::vector<double> factors = PXScreen::backingScaleFactors();   // one per screen
//
// Without a provider (docs/linux-sources.md, "Screens"):
// - screens: the DRM connectors ("card0-HDMI-A-1") whose "status" is
//   "connected"; none on a headless machine;
// - scale: GDK_SCALE (a whole number), else QT_SCALE_FACTOR, else the GNOME
//   interface setting "scaling-factor" when a desktop session's bus is there,
//   that schema is installed and the value is not 0 (automatic), else 1.0.
//
// Thread safety: every function may be called from any thread. The provider
// is called on the thread that asks; a host whose toolkit must be asked on
// its main thread answers from values it keeps current there.
#pragma once

#include <pxkit/export.h>

#include <functional>
#include <optional>
#include <vector>

class PXKIT_EXPORT PXScreen {
 public:
  PXScreen() = delete;

  // One backing scale factor per screen, in the provider's order (or the
  // connectors' sysfs order); empty when there is no screen.
  using ScreensProvider = std::function<std::vector<double>()>;

  // Installs the host's provider (copied); an empty function goes back to the
  // kit's own reading.
  static void setScreensProvider(ScreensProvider provider);

  // The screens' backing scale factors: from the provider when one is set,
  // otherwise one entry of desktopScaleFactor() per connected connector.
  static std::vector<double> backingScaleFactors();

  // The desktop's scale setting as described above; 1.0 when nothing says
  // otherwise. Values that are not numbers, or not above 0, are ignored.
  static double desktopScaleFactor();
};
