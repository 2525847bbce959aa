// The desktop's scale from the toolkits' variables and, in a session, the interface's "scaling-factor".
// Its own program: GSettings reads its schema directory once per process.
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/system/PXScreen.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "support/PXSubprocess.h"
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
  // In a session the interface setting counts (0, automatic, reads as 1.0); the variables come first.
  const std::string schemas = home.makeDirectory("schemas");
  home.writeFile(
      schemas + "/org.gnome.desktop.interface.gschema.xml",
      "<schemalist><schema id=\"org.gnome.desktop.interface\" path=\"/org/gnome/desktop/interface/\">"
      "<key name=\"scaling-factor\" type=\"u\"><default>2</default></key></schema></schemalist>\n");
  g_autofree gchar* compiler = g_find_program_in_path("glib-compile-schemas");
  const bool compiled = compiler && PXSubprocess::run({compiler, schemas}).exitStatus == 0;
  if (!compiled) GTEST_SKIP() << "glib-compile-schemas could not compile a schema";
  home.setVariable("GSETTINGS_SCHEMA_DIR", schemas);
  home.setVariable("GSETTINGS_BACKEND", "memory");
  home.setVariable("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home.runtimeDir() + "/bus");
  EXPECT_DOUBLE_EQ(PXScreen::desktopScaleFactor(), 2.0);
  setenv("QT_SCALE_FACTOR", "3", 1);
  EXPECT_DOUBLE_EQ(PXScreen::desktopScaleFactor(), 3.0);
  unsetenv("QT_SCALE_FACTOR");
}
