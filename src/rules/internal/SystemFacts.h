// Facts of the system below a root directory, for the rule providers: the
// pure parsers and the file reads around them.
//
// Thread safety: pure functions and plain file reads; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pxkit::rules {

// `relative` ("etc/os-release") below `root` ("/", "/tmp/fixture").
std::string pathBelowRoot(std::string_view root, std::string_view relative);
// The whole file, or nothing when it cannot be read.
std::optional<std::string> readWholeFile(const std::string& path);

// The value of `key` in os-release text: "KEY=value" lines, the value
// unquoted ('…' or "…", with \" \\ \$ \` escapes in double quotes); comments
// and malformed lines skipped; the last assignment wins. Nothing when unset.
std::optional<std::string> osReleaseValue(std::string_view text, std::string_view key);
// VERSION_ID of <root>/etc/os-release, else <root>/usr/lib/os-release; empty when none.
std::string osReleaseVersion(std::string_view root);
// <root>/proc/sys/kernel/osrelease without its line end; for the root "/"
// uname's release when that file cannot be read. Empty when none.
std::string kernelRelease(std::string_view root);

// The computer's model: whether the machine describes itself at all (a DMI
// directory or a device-tree model), and the model text (DMI product_name,
// else the device tree's model, without trailing white space or NULs).
struct ComputerModel {
  bool described = false;
  std::optional<std::string> model;
};
ComputerModel computerModel(std::string_view root);

// Splits a model identifier at its first comma into a name and a version:
// from just before the comma, back over "0123456789,", to the first other
// character, which ends the name ("MacBookPro8,1" → "MacBookPro", "8,1").
// Nothing without a comma, or when the walk reaches the first character
// (which is never examined).
struct ModelParts {
  std::string name, version;
};
std::optional<ModelParts> splitModelIdentifier(std::string_view model);

}  // namespace pxkit::rules
