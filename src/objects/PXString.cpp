#include <pxkit/objects/PXString.h>

#include <cstring>
#include <new>

namespace pxkit::internal {

StringRep* StringRep::make(const char* bytes, size_t size) {
  if (size > UINT32_MAX) throw std::bad_alloc();
  auto* rep = static_cast<StringRep*>(::operator new(sizeof(StringRep) + size + 1));
  new (&rep->refs) std::atomic<uint32_t>(1);
  rep->size = static_cast<uint32_t>(size);
  if (size) std::memcpy(rep->chars(), bytes, size);
  rep->chars()[size] = '\0';
  return rep;
}

StringRep* StringRep::empty() noexcept {
  // One shared "" for the whole process. It starts with a count no balance of
  // retains and releases can bring to zero, and every handle still takes its own.
  struct Storage {
    StringRep rep;
    char nul;
  };
  static Storage storage{{{1u << 30}, 0}, '\0'};
  storage.rep.retain();
  return &storage.rep;
}

}  // namespace pxkit::internal
