// Installed applications for the rule providers: by identifier or by name.
//
// An application is a desktop entry (<data dir>/applications/<id>.desktop in
// the XDG data directories, the first directory holding the id deciding; a
// Hidden entry counts as absent). Vendor subdirectories count: the entry
// applications/kde/org.example.Foo.desktop has the id "kde-org.example.Foo". Its identifier is the
// desktop-file id, its version the newest release of its AppStream metainfo, and its path the directory that
// holds the program its TryExec or Exec line starts (found on PATH when the line names no directory) — the
// same thing PXBundle's bundlePath is for the host.
//
// Thread safety: reads files and the environment only; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pxkit::rules {

struct InstalledApplication {
  std::string identifier;  // the desktop-file id, without ".desktop"
  std::string name;        // the unlocalised Name
  std::string version;     // the newest metainfo release; empty when none is known
  std::string path;        // the directory of its program; empty when it cannot be found
};

// The XDG data directories, the user's first.
std::vector<std::string> applicationDataDirs();

// The application with desktop-file id `identifier`, or nothing.
std::optional<InstalledApplication> findApplicationWithIdentifier(std::string_view identifier,
                                                                  const std::vector<std::string>& dataDirs);
// The first application whose unlocalised Name is `name` exactly (by data
// directory order, then by file name, files before vendor subdirectories;
// an id shadowed by an earlier directory
// is skipped), or nothing.
std::optional<InstalledApplication> findApplicationNamed(std::string_view name,
                                                         const std::vector<std::string>& dataDirs);

}  // namespace pxkit::rules
