// The application provider against real desktop files in a temporary XDG home.
#include <gtest/gtest.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/rules/PXRuleCheckerApplicationFunction.h>
#include <sys/stat.h>

#include <string>

#include "support/PXTempHome.h"

namespace {

class ApplicationFunction : public ::testing::Test {
 protected:
  ApplicationFunction() {
    editorBin = home.root() + "/opt/editor/bin";
    viewerBin = home.root() + "/opt/viewer";
    program(editorBin + "/editor");
    program(viewerBin + "/viewer");
    entry(home.systemDataDir(), "org.example.Editor", "Name=Text Editor\nExec=" + editorBin + "/editor %F\n");
    // In a vendor subdirectory: the id is "kde-org.example.Viewer".
    entry(home.systemDataDir(), "kde/org.example.Viewer",
          "Name=Viewer\nExec=env A=1 " + viewerBin + "/viewer\n");
    // Two vendor levels, and a dash inside a vendor's name.
    entry(home.systemDataDir(), "acme-corp/tools/org.example.Tool",
          "Name=Tool\nTryExec=" + editorBin + "/editor\nExec=tool\n");
    entry(home.systemDataDir(), "org.example.NoProgram", "Name=Ghost\nExec=/nonexistent/ghost\n");
    // The user's copy hides the system's entry.
    entry(home.systemDataDir(), "org.example.Gone", "Name=Gone\nExec=" + editorBin + "/editor\n");
    home.writeFile(home.dataHome() + "/applications/org.example.Gone.desktop",
                   "[Desktop Entry]\nHidden=true\n");
    home.writeFile(home.systemDataDir() + "/applications/org.example.Broken.desktop", "not a key file\n");
  }

  void program(const std::string& path) {
    home.writeFile(path, "#!/bin/sh\n");
    chmod(path.c_str(), 0755);
  }
  void entry(const std::string& dataDir, const std::string& relative, const std::string& keys) {
    home.writeFile(dataDir + "/applications/" + relative + ".desktop",
                   "[Desktop Entry]\nType=Application\n" + keys);
  }

  PXTempHome home;
  std::string editorBin, viewerBin;
};

TEST_F(ApplicationFunction, AnswersByIdentifierAndByName) {
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", "1.0", "100"));
  PXRef<PXRuleCheckerApplicationFunction> function = PXRuleCheckerApplicationFunction::function();
  struct Row {
    const char* argument;
    PXValue result;
  };
  const Row rows[] = {
      {"installed.org.example.Editor", PXValue(true)},
      {"path.org.example.Editor", PXValue(editorBin)},
      {"installed.AppName.Text Editor", PXValue(true)},
      {"path.AppName.Text Editor", PXValue(editorBin)},
      {"installed.AppName.text editor", PXValue(false)},  // names compare exactly
      {"installed.kde-org.example.Viewer", PXValue(true)},
      {"path.kde-org.example.Viewer", PXValue(viewerBin)},
      {"path.AppName.Viewer", PXValue(viewerBin)},
      {"installed.org.example.Viewer", PXValue(false)},  // the id carries its vendor
      {"path.acme-corp-tools-org.example.Tool", PXValue(editorBin)},
      {"path.AppName.Tool", PXValue(editorBin)},
      {"installed.org.example.NoProgram", PXValue(false)},  // its program cannot be found
      {"installed.AppName.Ghost", PXValue(false)},
      {"installed.org.example.Gone", PXValue(false)},
      {"installed.AppName.Gone", PXValue(false)},
      {"installed.org.example.Broken", PXValue(false)},
      {"installed.org.example.Missing", PXValue(false)},
      {"path.org.example.Missing", PXValue()},
      {"installed.", PXValue(false)},
      {"installed.AppName.", PXValue(false)},
      {"installed.../applications/org.example.Editor", PXValue(false)},
      {"installed", PXValue()},
      {"remove.org.example.Editor", PXValue()},
      {"hostApplicationBundleID", PXValue("org.example.Host")},
      {"hostApplicationBundleID.", PXValue()},
      {"hostApplicationPath", PXValue()},  // a verb: it needs its "."
      {"hostApplicationPath.", PXValue(PXBundle::mainBundle()->bundlePath())},
      {"hostApplicationPath.org.example.Missing", PXValue(PXBundle::mainBundle()->bundlePath())},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.argument);
    EXPECT_EQ(function->resultFor(PXValue(row.argument), false), row.result);
    // The text flag changes nothing.
    EXPECT_EQ(function->resultFor(PXValue(row.argument), true), row.result);
  }
  EXPECT_TRUE(PXBundle::mainBundle()->bundlePath());
  EXPECT_FALSE(function->resultFor(PXValue(), false));
  EXPECT_FALSE(function->resultFor(PXValue(PXDictionary::dictionary()), false));
  EXPECT_FALSE(function->resultFor(PXValue(1), false));
}

}  // namespace
