// The screens' scale: the host's provider, else one desktop factor per connector.
// Its own program: GSettings reads its schema directory once per process.
#include <glib.h>
#include <gtest/gtest.h>
#include <pxkit/system/PXScreen.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "support/PXSubprocess.h"
#include "support/PXTempHome.h"

namespace {

// A schema directory with the interface schema whose "scaling-factor" defaults
// to `factor`, compiled as a desktop installs it; empty when it cannot be made.
std::string interfaceSchema(const PXTempHome& home, unsigned factor) {
  const std::string dir = home.makeDirectory("schemas");
  home.writeFile(
      dir + "/org.gnome.desktop.interface.gschema.xml",
      "<schemalist><schema id=\"org.gnome.desktop.interface\" path=\"/org/gnome/desktop/interface/\">"
      "<key name=\"scaling-factor\" type=\"u\"><default>" +
          std::to_string(factor) + "</default></key></schema></schemalist>\n");
  gchar* compiler = g_find_program_in_path("glib-compile-schemas");
  if (!compiler) return {};
  const bool compiled = PXSubprocess::run({compiler, dir}).exitStatus == 0;
  g_free(compiler);
  return compiled ? dir : std::string();
}

}  // namespace

TEST(PXScreen, DesktopScaleFactorTakesTheFirstSettingThatIsANumberAboveZero) {
  PXTempHome home;
  home.setVariable("DBUS_SESSION_BUS_ADDRESS", "");  // no desktop session: its setting is not asked
  const std::tuple<const char*, const char*, double> cases[] = {{"2", "1.5", 2.0},  {"", "1.25", 1.25},
                                                                {"0", "1.5", 1.5},  {"-2", "", 1.0},
                                                                {"2x", "abc", 1.0}, {"", "", 1.0}};
  for (const auto& [gdk, qt, expected] : cases) {
    setenv("GDK_SCALE", gdk, 1);
    setenv("QT_SCALE_FACTOR", qt, 1);
    EXPECT_DOUBLE_EQ(PXScreen::desktopScaleFactor(), expected) << gdk << " / " << qt;
  }
  unsetenv("GDK_SCALE");
  unsetenv("QT_SCALE_FACTOR");

  // In a desktop session the interface setting counts; 0 means automatic,
  // which only the compositor knows, and reads as 1.0.
  const std::string schemas = interfaceSchema(home, 2);
  if (schemas.empty()) GTEST_SKIP() << "glib-compile-schemas could not compile a schema";
  home.setVariable("GSETTINGS_SCHEMA_DIR", schemas);
  home.setVariable("GSETTINGS_BACKEND", "memory");
  home.setVariable("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home.runtimeDir() + "/bus");
  EXPECT_DOUBLE_EQ(PXScreen::desktopScaleFactor(), 2.0);
  setenv("QT_SCALE_FACTOR", "3", 1);
  EXPECT_DOUBLE_EQ(PXScreen::desktopScaleFactor(), 3.0);
  unsetenv("QT_SCALE_FACTOR");
}

TEST(PXScreen, TheHostsProviderAnswersUntilItIsRemoved) {
  PXScreen::setScreensProvider([] { return std::vector<double>{1.0, 2.0}; });
  EXPECT_EQ(PXScreen::backingScaleFactors(), (std::vector<double>{1.0, 2.0}));
  PXScreen::setScreensProvider([] { return std::vector<double>{}; });
  EXPECT_TRUE(PXScreen::backingScaleFactors().empty());
  // Without a provider the connectors count, one desktop factor each.
  PXScreen::setScreensProvider({});
  const std::vector<double> factors = PXScreen::backingScaleFactors();
  for (double factor : factors) EXPECT_DOUBLE_EQ(factor, PXScreen::desktopScaleFactor());
}
