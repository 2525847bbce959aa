// The desktop's scale factor from the toolkits' variables.
#include <gtest/gtest.h>
#include <pxkit/system/PXScreen.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "support/PXTempHome.h"

TEST(PXScreen, DesktopScaleFactorTakesTheFirstSettingThatIsANumberAboveZero) {
  PXTempHome home;
  home.setVariable("DBUS_SESSION_BUS_ADDRESS", "");  // no desktop session: its setting is not asked
  const std::tuple<const char*, const char*, double> cases[] = {
      {"2", "1.5", 2.0}, {"0", "1.25", 1.25}, {"-2", "", 1.0}, {"2x", "abc", 1.0}};
  for (const auto& [gdk, qt, expected] : cases) {
    setenv("GDK_SCALE", gdk, 1);
    setenv("QT_SCALE_FACTOR", qt, 1);
    EXPECT_DOUBLE_EQ(PXScreen::desktopScaleFactor(), expected) << gdk << " / " << qt;
  }
  unsetenv("GDK_SCALE");
  unsetenv("QT_SCALE_FACTOR");
}
