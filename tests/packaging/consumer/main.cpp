// Built against an installed PXKit as an application would be (installed headers, libpxkit.so):
//   pxkit_consumer <expected version> <expected library directory>
// Exits 0 only when the loaded library is the installed one of that version and the object model
// works across the library boundary (descriptions, type information for casts and exceptions,
// weak references).
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

static int failures = 0;

#define EXPECT(condition)                                         \
  do {                                                            \
    if (!(condition)) {                                           \
      std::fprintf(stderr, "consumer: FAILED: %s\n", #condition); \
      ++failures;                                                 \
    }                                                             \
  } while (0)

// The directory of the shared object that defines PXKitVersionString.
static std::filesystem::path libraryDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&PXKitVersionString), &info) == 0 || !info.dli_fname) return {};
  return std::filesystem::canonical(info.dli_fname).parent_path();
}

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <expected version> <expected library directory>\n", argv[0]);
    return 2;
  }
  std::printf("PXKit %s from %s\n", PXKitVersionString(), libraryDirectory().c_str());
  EXPECT(PXKitVersionString() == std::string(argv[1]));
  EXPECT(libraryDirectory() == std::filesystem::weakly_canonical(argv[2]));

  // Made, mutated and described inside the library; a replaced value keeps its key's place.
  PXRef<PXMutableDictionary> counts = PXMutableDictionary::dictionary();
  counts->setObject(3, "clicks");
  counts->setObject("editor", "name");
  counts->setObject(4, "clicks");
  const PXString description = counts->description();
  EXPECT(counts->count() == 2 && counts->objectForKey("clicks").intValue() == 4);
  EXPECT(counts->objectForKey("missing").isAbsent());
  EXPECT(description == "{\n    clicks = 4;\n    name = editor;\n}");
  EXPECT(PXFormat("%@ has %lu entries", PXValue(counts), counts->count()) ==
         PXString(description.str() + " has 2 entries"));

  // Type information crosses the boundary: casts, copies, exceptions caught by type.
  PXRef<PXObject> object = counts;
  EXPECT(PXDynamicCast<PXDictionary>(object) && !PXDynamicCast<PXArray>(object));
  PXRef<PXDictionary> frozen = counts->copyDictionary();
  EXPECT(frozen && !frozen->isMutable() && frozen->isEqual(*counts));
  bool caught = false;
  try {
    (void)PXArray::arrayWithObjects({1})->objectAtIndex(5);
  } catch (const PXException& e) {
    caught = e.name() == kPXRangeException;
  }
  EXPECT(caught);

  PXWeakRef<PXMutableDictionary> weak = counts;
  EXPECT(weak.lock());
  counts = nullptr;
  object = nullptr;
  EXPECT(!weak.lock());
  if (failures == 0) std::printf("consumer: all checks passed\n");
  return failures == 0 ? 0 : 1;
}
