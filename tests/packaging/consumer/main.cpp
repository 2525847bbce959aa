// A program built against an installed PXKit, the way an application would be:
// only the installed headers, only libpxkit.so.
//
//   pxkit_consumer <expected version> <expected library directory>
//
// It checks that the library it runs with is the installed one and of the
// expected version, and that the object model works across the shared-library
// boundary: objects made and described inside the library, type information
// for casts and exceptions, weak references. Exit status 0 only when all hold.
#include <dlfcn.h>
#include <pxkit/PXKit.h>
#include <pxkit/objects/PXArray.h>
#include <pxkit/objects/PXDictionary.h>
#include <pxkit/objects/PXException.h>
#include <pxkit/objects/PXFormat.h>
#include <pxkit/objects/PXRef.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>

namespace {

int failures = 0;

void expect(bool ok, std::string_view what) {
  if (!ok) {
    std::fprintf(stderr, "consumer: FAILED: %.*s\n", static_cast<int>(what.size()), what.data());
    ++failures;
  }
}

// The directory of the shared object that defines PXKitVersionString.
std::filesystem::path libraryDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&PXKitVersionString), &info) == 0 || !info.dli_fname) return {};
  return std::filesystem::canonical(info.dli_fname).parent_path();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <expected version> <expected library directory>\n", argv[0]);
    return 2;
  }
  const std::string_view expectedVersion = argv[1];
  const std::filesystem::path expectedDirectory = std::filesystem::weakly_canonical(argv[2]);

  std::printf("PXKit %s from %s\n", PXKitVersionString(), libraryDirectory().c_str());
  expect(PXKitVersionString() == expectedVersion, "PXKitVersionString() is the installed package's version");
  expect(libraryDirectory() == expectedDirectory, "libpxkit.so is loaded from the installed prefix");

  // Made, mutated and described inside the library.
  PXRef<PXMutableDictionary> counts = PXMutableDictionary::dictionary();
  counts->setObject(3, "clicks");
  counts->setObject("editor", "name");
  counts->setObject(4, "clicks");  // replaces the value, keeps the key's place
  const PXString description = counts->description();
  std::printf("%s\n", description.c_str());
  expect(counts->count() == 2, "two entries");
  expect(counts->objectForKey("clicks").intValue() == 4, "\"clicks\" holds the replaced value");
  expect(counts->objectForKey("missing").isAbsent(), "a missing key gives an absent value");
  expect(description == "{\n    clicks = 4;\n    name = editor;\n}", "description in insertion order");
  expect(PXFormat("%@ has %lu entries", PXValue(counts), counts->count()) ==
             PXString(description.str() + " has 2 entries"),
         "PXFormat with %@ and %lu");

  // Type information crosses the boundary: casts and equality of copies.
  PXRef<PXObject> object = counts;
  expect(static_cast<bool>(PXDynamicCast<PXDictionary>(object)), "a mutable dictionary is a PXDictionary");
  expect(!PXDynamicCast<PXArray>(object), "a dictionary is not a PXArray");
  PXRef<PXDictionary> frozen = counts->copyDictionary();
  expect(frozen && !frozen->isMutable() && frozen->isEqual(*counts), "an immutable copy equals its source");

  // An exception raised inside the library is caught here by its type.
  bool caught = false;
  try {
    (void)PXArray::arrayWithObjects({1})->objectAtIndex(5);
  } catch (const PXException& e) {
    caught = e.name() == kPXRangeException;
  }
  expect(caught, "reading past the end raises the range PXException");

  // Weak references see the object go.
  PXWeakRef<PXMutableDictionary> weak = counts;
  expect(static_cast<bool>(weak.lock()), "a weak reference to a live object locks");
  counts = nullptr;
  object = nullptr;
  expect(!weak.lock(), "a weak reference to a destroyed object is empty");

  if (failures == 0) std::printf("consumer: all checks passed\n");
  return failures == 0 ? 0 : 1;
}
