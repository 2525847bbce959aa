// The application and filesystem providers in a temporary XDG home.
#include <gtest/gtest.h>
#include <pxkit/platform/PXBundle.h>
#include <pxkit/platform/PXPropertyList.h>
#include <pxkit/rules/PXRuleChecker.h>
#include <pxkit/rules/PXRuleCheckerApplicationFunction.h>
#include <sys/stat.h>

#include <string>

#include "support/PXTempHome.h"

namespace {

class InstalledApplications : public ::testing::Test {
 protected:
  InstalledApplications() {
    editorBin = home.root() + "/opt/editor/bin";
    viewerBin = home.root() + "/opt/viewer";
    program(editorBin + "/editor");
    program(viewerBin + "/viewer");
    home.writeFile(editorBin + "/plugins/spell.so", "12345");
    entry(home.systemDataDir(), "org.example.Editor", "Name=Text Editor\nExec=" + editorBin + "/editor %F\n");
    home.writeFile(home.configHome() + "/org.example.Editor/org.example.Editor.plist",
                   PXPropertyList::XMLStringWithPropertyList(PXValue(PXDictionary::dictionaryWithEntries(
                       {{"LastUsed", "spell"}, {"Count", 3}, {"Off", false}}))));
    // In a vendor subdirectory: the id is "kde-org.example.Viewer".
    entry(home.systemDataDir(), "kde/org.example.Viewer",
          "Name=Viewer\nExec=env A=1 " + viewerBin + "/viewer\n");
    entry(home.systemDataDir(), "org.example.NoProgram", "Name=Ghost\nExec=/nonexistent/ghost\n");
    home.writeFile(home.systemDataDir() + "/applications/org.example.Broken.desktop", "not a key file\n");
    data = home.writeFile("files/data.txt", "abc");
    empty = home.writeFile("files/empty", "");
    big = home.writeFile("files/big", std::string(200000, 'x'));  // larger than one read
  }

  void program(const std::string& path) {
    home.writeFile(path, "#!/bin/sh\n");
    chmod(path.c_str(), 0755);
  }
  void entry(const std::string& dataDir, const std::string& relative, const std::string& keys) {
    home.writeFile(dataDir + "/applications/" + relative + ".desktop",
                   "[Desktop Entry]\nType=Application\n" + keys);
  }
  PXValue ask(const std::string& arguments) {
    return checker->computeFunction("${filesystem(" + arguments + ")}");
  }

  PXTempHome home;
  std::string editorBin, viewerBin, data, empty, big;
  PXRef<PXRuleChecker> checker = PXRuleChecker::ruleCheckerWithDefaultFunctions(true);
};

TEST_F(InstalledApplications, AnswersByIdentifierAndByName) {
  ASSERT_TRUE(PXBundle::setMainBundleIdentity("org.example.Host", "1.0", "100"));
  PXRef<PXRuleCheckerApplicationFunction> function = PXRuleCheckerApplicationFunction::function();
  const std::pair<const char*, PXValue> rows[] = {
      {"installed.org.example.Editor", PXValue(true)},
      {"path.org.example.Editor", PXValue(editorBin)},
      {"installed.AppName.Text Editor", PXValue(true)},
      {"installed.AppName.text editor", PXValue(false)},  // names compare exactly
      {"installed.kde-org.example.Viewer", PXValue(true)},
      {"path.kde-org.example.Viewer", PXValue(viewerBin)},
      {"installed.org.example.Viewer", PXValue(false)},     // the id carries its vendor
      {"installed.org.example.NoProgram", PXValue(false)},  // its program cannot be found
      {"installed.org.example.Broken", PXValue(false)},
      {"installed.../applications/org.example.Editor", PXValue(false)},
      {"hostApplicationBundleID", PXValue("org.example.Host")},
      {"hostApplicationPath", PXValue()},  // a verb: it needs its "."
      {"hostApplicationPath.", PXValue(PXBundle::mainBundle()->bundlePath())},
  };
  for (const auto& [argument, result] : rows) {
    EXPECT_EQ(function->resultFor(PXValue(argument), false), result) << argument;
    EXPECT_EQ(function->resultFor(PXValue(argument), true), result)
        << argument;  // the text flag changes nothing
  }
  EXPECT_TRUE(PXBundle::mainBundle()->bundlePath());  // the rows above compare a real path
  EXPECT_FALSE(function->resultFor(PXValue(PXDictionary::dictionary()), false));
}

// Files, digests of the whole file as hexadecimal text, and another
// application's preferences, read afresh on each call.
TEST_F(InstalledApplications, AnswersFilesAndPreferences) {
  struct stat info {};
  ASSERT_EQ(stat(data.c_str(), &info), 0);
  const PXDate modified = PXDate::dateWithTimeIntervalSince1970(
      static_cast<double>(info.st_mtim.tv_sec) + static_cast<double>(info.st_mtim.tv_nsec) / 1e9);
  const std::string missing = home.root() + "/files/missing", dir = home.root() + "/files";
  const std::pair<std::string, PXValue> rows[] = {
      {"do=exists;absPath=" + data, true},
      {"do=exists;absPath=" + dir, true},  // directories too
      {"do=exists;absPath=" + missing + ";fallbackValue=1", false},
      {"do=exists", false},  // no path: false, not nothing
      {"do=size;absPath=" + data, 3u},
      {"do=size;absPath=" + dir, PXValue()},  // not a file
      {"do=date;absPath=" + data, modified},
      // "bundlePath" below the application's program directory, ignored beside "absPath".
      {"do=size;bundleID=org.example.Editor;bundlePath=plugins/spell.so", 5u},
      {"do=size;bundleID=org.example.Editor;bundlePath=/plugins/spell.so", 5u},
      {"do=size;absPath=" + data + ";bundleID=org.example.Editor;bundlePath=plugins/spell.so", 3u},
      {"absPath=" + data, PXValue()},  // no "do"
      {"do=sha1sum;absPath=" + data, "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"do=md5sum;absPath=" + data, "900150983cd24fb0d6963f7d28e17f72"},
      {"do=md5sum;absPath=" + empty, "d41d8cd98f00b204e9800998ecf8427e"},
      {"do=sha1sum;absPath=" + big, "62951f943c41cdd326e5ce2b53a779e7916a820d"},
      {"do=sha1sum;absPath=" + missing, PXValue()},
      {"do=prefsValue;bundleID=org.example.Editor;key=LastUsed", "spell"},
      {"do=prefsValue;bundleID=org.example.Editor;key=Count", 3},
      {"do=prefsValue;bundleID=org.example.Editor;key=Missing", PXValue()},
      {"do=prefsValue;key=LastUsed", PXValue()},  // no application
      {"do=prefsExists;bundleID=org.example.Editor;key=Off", true},
      {"do=prefsExists;bundleID=org.example.Editor;key=Missing", false},
      {"do=prefsOther;bundleID=org.example.Editor;key=LastUsed", PXValue()},
  };
  for (const auto& [arguments, expected] : rows) {
    SCOPED_TRACE(arguments);
    PXValue answer = ask(arguments);
    EXPECT_EQ(answer.kind(), expected.kind()) << answer.description().str();
    EXPECT_TRUE(answer.isEqual(expected)) << answer.description().str();
  }
  EXPECT_FALSE(ask("exists"));
  EXPECT_FALSE(checker->computeFunction("${filesystem}"));
  home.writeFile(home.configHome() + "/org.example.Editor/org.example.Editor.plist",
                 PXPropertyList::XMLStringWithPropertyList(
                     PXValue(PXDictionary::dictionaryWithEntries({{"LastUsed", "grammar"}}))));
  EXPECT_EQ(ask("do=prefsValue;bundleID=org.example.Editor;key=LastUsed").stringValue(), "grammar");
}

}  // namespace
